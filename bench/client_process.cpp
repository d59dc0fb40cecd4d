#include "client_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "run_folder.h"

namespace bench {

ClientProcess::ClientProcess(const std::vector<std::string>& command) : name_(command.at(0)) {
    const std::string program = support::programFile().parent_path() / name_;
    std::vector<char*> arguments = {const_cast<char*>(program.c_str())};
    for (std::size_t i = 1; i < command.size(); ++i) arguments.push_back(const_cast<char*>(command[i].c_str()));
    arguments.push_back(nullptr);
    int there[2];
    int back[2];
    // Closed when the program starts: another child that kept an end open would keep this one from seeing the end.
    if (pipe2(there, O_CLOEXEC) != 0 || pipe2(back, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, there[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, back[1], STDOUT_FILENO);
    const int spawned = posix_spawn(&process_, program.c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(there[0]);
    close(back[1]);
    input_ = fdopen(there[1], "w");
    output_ = fdopen(back[0], "r");
    if (spawned != 0) throw std::runtime_error("cannot start " + program);
}

ClientProcess::~ClientProcess() {
    if (input_ != nullptr) std::fclose(input_);
    std::fclose(output_);
    if (process_ != 0) waitpid(process_, nullptr, 0);
}

std::string ClientProcess::ask(const std::string& line) {
    std::fprintf(input_, "%s\n", line.c_str());
    std::fflush(input_);
    return readLine();
}

void ClientProcess::expect(const std::string& line) {
    if (readLine() != line) throw std::runtime_error(name_ + " doesn't answer");
}

void ClientProcess::finish() {
    std::fclose(std::exchange(input_, nullptr));
    int status = 0;
    waitpid(std::exchange(process_, 0), &status, 0);
    if (status != 0) throw std::runtime_error(name_ + " failed");
}

std::string ClientProcess::readLine() {
    std::string line;
    for (int character = std::fgetc(output_); character != '\n'; character = std::fgetc(output_)) {
        if (character == EOF) throw std::runtime_error(name_ + " has ended");
        line.push_back(static_cast<char>(character));
    }
    return line;
}

}  // namespace bench

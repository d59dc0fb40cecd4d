#include "start_costs.h"

#include <cstdio>
#include <ctime>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "run_folder.h"

namespace bench {

namespace {

long long nanosecondsNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

StartCost startCost(const std::vector<std::string>& arguments) {
    const std::string program = support::programFile().parent_path() / "software_token_start";
    std::vector<char*> pointers = {const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_addclose(&actions, ends[1]);
    pid_t child = 0;
    const long long start = nanosecondsNow();
    const int spawned = posix_spawn(&child, program.c_str(), &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (spawned != 0) throw std::runtime_error("cannot start " + program);
    std::FILE* const answer = fdopen(ends[0], "r");
    long long done = 0;
    long kibibytes = 0;
    const bool answered = std::fscanf(answer, "%lld %ld", &done, &kibibytes) == 2;
    std::fclose(answer);
    int status = 0;
    waitpid(child, &status, 0);
    if (!answered || status != 0) throw std::runtime_error("software_token_start failed");
    return {static_cast<double>(done - start) / 1e6, static_cast<double>(kibibytes) * 1024 / 1e6};
}

}  // namespace bench

#include "other_process.h"

#include <stdexcept>

#ifdef _WIN32
#include <windows.h>
#else
#include <csignal>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace softtoken {

namespace fs = std::filesystem;

#ifdef _WIN32

fs::path programFolder() {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return fs::path(path).parent_path();
}

OtherProcess::OtherProcess(const std::string& program, const std::vector<std::string>& arguments) {
    std::wstring line = L"\"" + (programFolder() / (program + ".exe")).native() + L"\"";
    for (const std::string& argument : arguments) line += L" \"" + fs::path(argument).native() + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information{};
    // Wine, when it is busy with ending others, refuses now and then.
    for (int left = 5;
         !CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &information);
         --left) {
        const DWORD number = GetLastError();
        if (left == 0) throw std::runtime_error("can't start " + program + ": error " + std::to_string(number));
        Sleep(200);
    }
    CloseHandle(information.hThread);
    process_ = reinterpret_cast<std::intptr_t>(information.hProcess);
}

void OtherProcess::kill() {
    TerminateProcess(reinterpret_cast<HANDLE>(process_), 255);
    wait();
}

int OtherProcess::wait() {
    const auto process = reinterpret_cast<HANDLE>(process_);
    WaitForSingleObject(process, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(process, &code);
    CloseHandle(process);
    process_ = 0;
    return static_cast<int>(code);
}

#else

fs::path programFolder() {
    return fs::read_symlink("/proc/self/exe").parent_path();
}

OtherProcess::OtherProcess(const std::string& program, const std::vector<std::string>& arguments) {
    const std::string path = (programFolder() / program).string();
    std::vector<char*> list = {const_cast<char*>(path.c_str())};
    for (const std::string& argument : arguments) list.push_back(const_cast<char*>(argument.c_str()));
    list.push_back(nullptr);
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("can't start " + program);
    if (child == 0) {
        execv(path.c_str(), list.data());
        _exit(127);
    }
    process_ = child;
}

void OtherProcess::kill() {
    ::kill(static_cast<pid_t>(process_), SIGKILL);
    wait();
}

void OtherProcess::stop() {
    ::kill(static_cast<pid_t>(process_), SIGSTOP);
    siginfo_t information{};
    waitid(P_PID, static_cast<id_t>(process_), &information, WSTOPPED | WNOWAIT);
}

double OtherProcess::processorTime() const {
    std::ifstream file("/proc/" + std::to_string(process_) + "/stat");
    std::string skipped;
    for (int i = 0; i < 13; ++i) file >> skipped;
    double ticks = 0;
    file >> ticks;
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

int OtherProcess::wait() {
    int status = 0;
    waitpid(static_cast<pid_t>(process_), &status, 0);
    process_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#endif

OtherProcess::~OtherProcess() {
    if (process_ != 0) kill();
}

}  // namespace softtoken

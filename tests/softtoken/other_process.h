/// A process that runs beside the test and may be killed.

#ifndef ZENTAK_TESTS_SOFTTOKEN_OTHER_PROCESS_H
#define ZENTAK_TESTS_SOFTTOKEN_OTHER_PROCESS_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace softtoken {

/// The folder of the test program, where the other programs lie too.
std::filesystem::path programFolder();

class OtherProcess {
public:
    /// Starts a program of programFolder(). Arguments hold no quotes.
    OtherProcess(const std::string& program, const std::vector<std::string>& arguments);
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;
    ~OtherProcess();

    /// Ends it at once, wherever it is: SIGKILL, or TerminateProcess.
    void kill();
#ifndef _WIN32
    /// Stops it where it is, as Control-Z does; what it has locked stays locked.
    void stop();
    /// What it has used of a processor, in seconds.
    [[nodiscard]] double processorTime() const;
#endif
    /// Waits for its end and answers its exit code, or -1 when a signal ended it.
    int wait();

private:
    std::intptr_t process_ = 0;
};

}  // namespace softtoken

#endif

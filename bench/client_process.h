/// A child process of the benchmarks that answers lines on its standard output to lines on its standard input.

#ifndef ZENTAK_BENCH_CLIENT_PROCESS_H
#define ZENTAK_BENCH_CLIENT_PROCESS_H

#include <cstdio>
#include <string>
#include <vector>

namespace bench {

class ClientProcess {
public:
    /// Starts the program of that name in the running program's folder. Throws std::runtime_error.
    explicit ClientProcess(const std::vector<std::string>& command);
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;
    ~ClientProcess();

    /// One line there, one back. Throws when the process has ended.
    std::string ask(const std::string& line);
    /// Throws unless the next line is this one.
    void expect(const std::string& line);
    /// Lets the process end and throws unless it ended well.
    void finish();

private:
    std::string readLine();

    std::string name_;
    int process_ = 0;
    std::FILE* input_ = nullptr;
    std::FILE* output_ = nullptr;
};

}  // namespace bench

#endif

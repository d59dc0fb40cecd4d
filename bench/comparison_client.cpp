/// A host of one PKCS #11 module, as a process of its own: module_comparison starts one for each module and lets them
/// measure by turns. The environment tells the module where its token is.
///
///   comparison_client MODULE fill KEYS.pem     makes the token (see peer_token.h)
///   comparison_client MODULE measure PAIRS     logs in to a token with so many key pairs and answers each line
///                                              "REPETITIONS OPERATION" with the microseconds that one of them took

#include <ctime>
#include <iostream>
#include <map>
#include <stdexcept>

#include "host_operations.h"
#include "peer_token.h"

namespace {

using namespace bench;

double microsecondsNow(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

/// The processor's time, which other programs don't lengthen; where the disk is waited for, the time that passes.
double microsecondsOf(const std::function<void()>& work, Operation::Kind kind, int repetitions) {
    const clockid_t clock = kind == Operation::Kind::changing ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID;
    const double start = microsecondsNow(clock);
    for (int i = 0; i < repetitions; ++i) work();
    return (microsecondsNow(clock) - start) / repetitions;
}

void measure(std::size_t keyPairs) {
    const UserSession session;
    const Subjects subjects(session, keyPairs, keyPairs);
    std::map<std::string, std::function<void()>> prepared;
    std::cout << "ready" << std::endl;
    int repetitions = 0;
    std::string name;
    while (std::cin >> repetitions && std::getline(std::cin >> std::ws, name)) {
        const Operation& operation = hostOperation(name);
        auto& work = prepared[name];
        if (!work) work = operation.prepare(subjects);
        std::cout << microsecondsOf(work, operation.kind, repetitions) << std::endl;
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 4) {
        std::cerr << "usage: comparison_client MODULE fill KEYS.pem | comparison_client MODULE measure PAIRS\n";
        return 2;
    }
    try {
        useModule(argv[1]);
        if (std::string(argv[2]) == "fill") {
            makePeerToken(argv[3]);
        } else {
            measure(std::stoul(argv[3]));
        }
    } catch (const std::exception& problem) {
        std::cerr << "comparison_client, " << argv[1] << ": " << problem.what() << '\n';
        return 1;
    }
    return 0;
}

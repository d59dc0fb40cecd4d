/// Google Benchmark's runs of the host operations (see host_operations.h), the same for every device library.

#ifndef ZENTAK_BENCH_CALL_BENCHMARKS_H
#define ZENTAK_BENCH_CALL_BENCHMARKS_H

#include <functional>
#include <string>

#include "host_operations.h"

namespace bench {

/// What a token holds. Certificates have the CKA_ID and label of the key pair of the same number.
struct TokenSize {
    std::size_t keyPairs;
    std::size_t certificates;

    friend bool operator==(const TokenSize&, const TokenSize&) = default;
};

/// A token of this size is made anew each time, because it is filled.
inline constexpr TokenSize fillable = {9, 9};

/// Makes a token of that size the one that is plugged in. The module isn't initialised meanwhile.
using PlugIn = std::function<void(const TokenSize&)>;

/// Registers each operation on a token of ordinary size, those that depend on the size on several, and the way from
/// C_Initialize to a first signature. Names are "operation/KEY PAIRS/CERTIFICATES".
void registerCallBenchmarks(PlugIn plugIn);

/// A benchmark that repeats the work. Work and what prepares it may throw; the run has failed then.
void registerBenchmark(const std::string& name, std::function<std::function<void()>()> prepare);

/// Lets a benchmark's work use a token of that size in a user session.
const Subjects& enterToken(const TokenSize& size);

/// `main` of a benchmark program, after its benchmarks are registered: the exit code.
int runBenchmarks(int argc, char* argv[]);

}  // namespace bench

#endif

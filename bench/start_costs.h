/// What other processes need from their start to their first RSA signature, and how much memory: runs of
/// software_token_start.

#ifndef ZENTAK_BENCH_START_COSTS_H
#define ZENTAK_BENCH_START_COSTS_H

#include <string>
#include <vector>

namespace bench {

struct StartCost {
    double milliseconds;   ///< from the start of the process to what it was asked for
    double peakMegabytes;  ///< 10^6 bytes
};

/// Runs software_token_start with these arguments in this process's environment. Throws when it fails.
StartCost startCost(const std::vector<std::string>& arguments);

}  // namespace bench

#endif

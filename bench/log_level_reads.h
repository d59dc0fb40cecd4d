/// The module's looks for its log level, one for each line of its log, written or not: on some machines they are much
/// of a short operation. For Linux.

#ifndef ZENTAK_BENCH_LOG_LEVEL_READS_H
#define ZENTAK_BENCH_LOG_LEVEL_READS_H

#include <functional>

namespace bench {

/// How often the work looks for the log level, on an average of some repetitions.
double countLogLevelReads(const std::function<void()>& work);

/// What one look for a log level that isn't there costs, in microseconds.
double logLevelReadCost();

}  // namespace bench

#endif

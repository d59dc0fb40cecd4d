/// A limit for the time that a test may take. One that takes longer hangs: the program says which, and ends with all
/// the processes it has started.

#ifndef ZENTAK_TESTS_SUPPORT_TIME_LIMIT_H
#define ZENTAK_TESTS_SUPPORT_TIME_LIMIT_H

#include <chrono>

namespace support {

/// What a test gets that doesn't ask for more: a minute. A sanitizer and Wine make that, and what a test asks for,
/// three times as long.
constexpr std::chrono::seconds usualTimeLimit{60};

/// For the running test: from now on it may take this time.
void allowTime(std::chrono::seconds time);

/// From now on each test of this process has its limit. The environment's ZENTAK_TEST_SECONDS, where it is set, is the
/// limit of every test, and 0 is none, for a debugger.
void limitEachTest();

}  // namespace support

#endif

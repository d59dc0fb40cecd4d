/// What the tests with many host threads share: the record of what a thread was answered.

#ifndef ZENTAK_TESTS_BEHAVIOUR_THREADS_TEST_H
#define ZENTAK_TESTS_BEHAVIOUR_THREADS_TEST_H

#include <map>
#include <set>
#include <string>

#include "module_test.h"

namespace support {

#if defined(ZENTAK_THREAD_SANITIZER)
constexpr bool underThreadSanitizer = true;
#else
constexpr bool underThreadSanitizer = false;
#endif

/// The codes that functions have answered to one thread. Each thread has its own: a common one would put the threads in
/// an order, and so hide from ThreadSanitizer what it is to find.
class Answers {
public:
    CK_RV note(const std::string& function, CK_RV code) {
        codes_[function].insert(code);
        return code;
    }

    void add(const Answers& other) {
        for (const auto& [function, codes] : other.codes_) codes_[function].insert(codes.begin(), codes.end());
    }

    const std::map<std::string, std::set<CK_RV>>& all() const { return codes_; }

    std::set<CK_RV> of(const std::string& function) const {
        const auto found = codes_.find(function);
        return found == codes_.end() ? std::set<CK_RV>{} : found->second;
    }

private:
    std::map<std::string, std::set<CK_RV>> codes_;
};

/// What each function may answer.
using AllowedCodes = std::map<std::string, std::set<CK_RV>>;

/// Every answer is among the allowed ones, and every function of `allowed` has succeeded at least once.
inline void expectAllowed(const Answers& answers, const AllowedCodes& allowed) {
    for (const auto& [function, codes] : answers.all()) {
        const auto expected = allowed.find(function);
        ASSERT_NE(expected, allowed.end()) << function;
        for (const CK_RV code : codes) EXPECT_EQ(expected->second.count(code), 1U) << function << " answered " << code;
    }
    for (const auto& [function, codes] : allowed) {
        EXPECT_EQ(answers.of(function).count(*codes.begin()), 1U) << function << " has never succeeded";
    }
}

}  // namespace support

#endif

/// A process that measures what its standard input asks for (tools/measuring.py has the other end), and what it mostly
/// offers: every operation of an application, the same for every device library.

#ifndef ZENTAK_BENCH_MEASURABLES_H
#define ZENTAK_BENCH_MEASURABLES_H

#include <functional>
#include <string>
#include <vector>

#include "operations.h"

namespace bench {

/// What a token holds. Certificates have the CKA_ID and label of the key pair of the same number.
struct TokenSize {
    std::size_t keyPairs;
    std::size_t certificates;

    friend bool operator==(const TokenSize&, const TokenSize&) = default;
};

struct Measurable {
    std::string name;
    Kind kind;
    TokenSize size;
    std::function<Work()> prepare;  ///< may throw, and what it makes may throw
    double known = 0;               ///< a number that was counted; there is nothing to prepare then
};

/// Writes what can be measured, a line each (NAME, KIND, KEY PAIRS and CERTIFICATES, with tabs between them), and an
/// empty one. Answers each line "PLACE REPETITIONS", with a place in that list from 0, by the microseconds that one of
/// the repetitions took. Each line that it writes begins with "= ". Ends with the standard input.
void serve(const std::vector<Measurable>& all);

/// `main` of such a program: its exit code, after it has told on the standard error what was thrown.
int runProgram(const char* name, const std::function<void()>& run);

/// An everyday token.
inline constexpr TokenSize ordinary = {10, 10};

/// A token of this size is made anew each time, because it is filled.
inline constexpr TokenSize fillable = {9, 9};

/// Makes a token of that size the one that is plugged in. The module isn't initialised meanwhile.
using PlugIn = std::function<void(const TokenSize&)>;

/// How `enterToken` gets its tokens.
void usePlugIn(PlugIn plugIn);

/// Each operation on an everyday token, those that depend on the size on several, and the way from C_Initialize to a
/// first signature.
std::vector<Measurable> callMeasurables();

/// Lets what is measured use a token of that size in a user session.
const Subjects& enterToken(const TokenSize& size);

/// Finalises the module where a token was entered.
void leaveToken();

}  // namespace bench

#endif

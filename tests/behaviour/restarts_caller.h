/// One thread of the host in restarts_test.cpp: what it does, and what it may be answered.

#ifndef ZENTAK_TESTS_BEHAVIOUR_RESTARTS_CALLER_H
#define ZENTAK_TESTS_BEHAVIOUR_RESTARTS_CALLER_H

#include <random>
#include <set>
#include <string>

#include "threads_test.h"

namespace support {

/// What each function may answer while other threads start and stop the module. Handles begin anew with each start, so
/// the session that a thread has opened may be another thread's at its next call; the answers are therefore wider here
/// than anywhere else. What is delivered with CKR_OK isn't.
const AllowedCodes& allowedCodes();

/// Opens a session, does a few things in it, and leaves. The world must be that of `plugInTokensForCallers`.
class Caller {
public:
    explicit Caller(unsigned number) : random_(number) {}

    void useOnce();
    /// Every function that it calls has answered CKR_OK once.
    bool hasSeenEverything() const;
    const Answers& answers() const { return answers_; }
    /// What was delivered with CKR_OK and isn't what it should be.
    const std::set<std::string>& complaints() const { return complaints_; }

private:
    const CK_FUNCTION_LIST& api = functions();
    std::mt19937 random_;
    Answers answers_;
    std::set<std::string> complaints_;
    CK_SESSION_HANDLE session_ = 0;
    CK_BYTE data_[32] = {1, 2, 3};
    CK_BYTE output_[2048] = {};
    CK_ULONG length_ = 0;

    bool chance(unsigned oneIn) { return random_() % oneIn == 0; }
    CK_RV note(const std::string& function, CK_RV code) { return answers_.note(function, code); }
    void require(bool good, const char* complaint);
    /// Notes the answer of a function that delivers `expected` into `output_`.
    void noteOutput(const char* function, CK_RV code, const Bytes& expected);
    CK_ULONG* room();

    void listSlots();
    void askSession();
    void askSlot();
    void search();
    void readAttributes();
    void change();
    void create();
    void digest();
    CK_RV beginSigning();
    void sign();
    void signParts();
    void verify();
    void encrypt();
    void decrypt();
    /// What needs no token or no module.
    void without();
};

/// Two tokens, with one key pair and its certificate on the first.
void plugInTokensForCallers();

}  // namespace support

#endif

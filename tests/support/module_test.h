/// The fixture of the behaviour tests: the module, initialised, with one token plugged in and its slot listed, DEBUG
/// lines on, and nothing logged or called yet. A test reads as: `observe` a call, and compare its `Outcome`.
///
///     class LoginTest : public support::ModuleTest {};
///
///     TEST_F(LoginTest, AsksTheDevice) {
///         const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
///         EXPECT_EQ(observe([&] { return functions().C_Login(session, CKU_USER, pin("1234"), 4); }),
///                   (Outcome{CKR_OK,
///                            {"DEBUG C_Login", "DEBUG Login state : 2", "DEBUG Login end result : 0"},
///                            {"zentak_validatePassword(\"SN1\", \"1234\", 1, *0, instance)"}}));
///     }
///
/// `openSession`, `login` and `listSlots` fail the test themselves when the module refuses, and leave no log lines and
/// no calls behind (what a test hadn't taken before is gone too). The world is `device()` of scripted_library.h, the
/// builders are in records.h. EXPECT_EQ can't take a field of a Cryptoki structure by reference in the packed form:
/// write +info.flags, or compare wholes with bytesOf.

#ifndef ZENTAK_TESTS_SUPPORT_MODULE_TEST_H
#define ZENTAK_TESTS_SUPPORT_MODULE_TEST_H

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

#include "log.h"
#include "module.h"
#include "records.h"
#include "scripted_library.h"

namespace support {

using scripted::device;

constexpr CK_SLOT_ID firstSlot = 0x50000001UL;
constexpr CK_SESSION_HANDLE firstSession = 0x60000001UL;
constexpr CK_OBJECT_HANDLE privateKeyBase = 0x70000000UL;
constexpr CK_OBJECT_HANDLE publicKeyBase = 0x70001000UL;
constexpr CK_OBJECT_HANDLE certificateBase = 0x70002000UL;

/// States, classes or types to go through; the constants themselves are wider than CK_ULONG in the Windows form.
using Numbers = std::vector<CK_ULONG>;

inline const Numbers everyState = {CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION,
                                   CKS_RW_USER_FUNCTIONS, CKS_RW_SO_FUNCTIONS};

/// Numbers beside that have more than 32 bits, where CK_ULONG has.
inline Numbers withWide(Numbers numbers, std::initializer_list<std::uint64_t> wide) {
    for (const std::uint64_t number : wide) {
        if (sizeof(CK_ULONG) == 8) numbers.push_back(static_cast<CK_ULONG>(number));
    }
    return numbers;
}

/// Puts a token at the end of the connected devices; the module sees it at its next listing, its monitor at its next
/// poll.
void plugIn(const TokenInfo& info);

/// A text as a Cryptoki function takes it; the text must outlive the call.
CK_UTF8CHAR_PTR pin(const char* text);

/// A number as the log shows it.
std::string decimal(CK_ULONG value);

/// All that a call shows to the outside, its output parameters apart.
struct Outcome {
    CK_RV code = CKR_OK;
    Lines log;          ///< whole log output at DEBUG level
    Lines device = {};  ///< calls to the device library

    bool operator==(const Outcome&) const = default;
};

/// A success that logs nothing but the function's name.
inline Outcome succeeded(const std::string& function, const Lines& device = {}) {
    return {CKR_OK, {"DEBUG " + function}, device};
}

/// A failure with one ERROR line.
inline Outcome failed(CK_RV code, const std::string& function, const std::string& line, const Lines& device = {}) {
    return {code, {"DEBUG " + function, "ERROR " + line}, device};
}

/// A failure whose ERROR line begins with the function's name.
inline Outcome refused(CK_RV code, const std::string& line, const Lines& device = {}) {
    return failed(code, line.substr(0, line.find_first_of(": ")), line, device);
}

inline void PrintTo(const Outcome& outcome, std::ostream* out) {
    *out << "code " << outcome.code << "\n";
    for (const std::string& line : outcome.log) *out << "  log    " << line << "\n";
    for (const std::string& call : outcome.device) *out << "  device " << call << "\n";
}

/// A call from another thread gets through: no lock was left behind.
void expectUsable();

/// A call that came to this code, with one ERROR line: the function's own, at the end.
void expectOneError(const Outcome& outcome, CK_RV code, const std::string& function);

/// An exception from the device library and the code that it becomes.
struct ThrownCode {
    scripted::Throw thrown;
    CK_RV code;
};
inline const ThrownCode thrownCodes[] = {{scripted::Throw::badAlloc, CKR_HOST_MEMORY},
                                         {scripted::Throw::exception, CKR_FUNCTION_FAILED},
                                         {scripted::Throw::somethingElse, CKR_FUNCTION_FAILED}};

/// Lets the n-th call from now of `operation` throw.
void letThrow(const std::string& operation, scripted::Throw thrown, int nth = 1);

class ModuleTest : public ::testing::Test {
protected:
    /// One token "SN1" that isn't FIPS 140-3. A fixture with another world overrides this.
    virtual void plugInTokens();

    void SetUp() override;
    void TearDown() override;

    /// Lets the module list the slots, so that the connected tokens can be used.
    static std::vector<CK_SLOT_ID> listSlots();
    /// CKF_SERIAL_SESSION is added to the flags.
    static CK_SESSION_HANDLE openSession(CK_FLAGS flags = 0, CK_SLOT_ID slot = firstSlot);
    static void login(CK_SESSION_HANDLE session, const char* password = "1234", CK_USER_TYPE userType = CKU_USER);
    static CK_STATE stateOf(CK_SESSION_HANDLE session);

    /// Lines and calls since they were last taken.
    static Lines log() { return takeLog(); }
    static Lines calls() { return device().takeCalls(); }
    static void clear();

    /// Runs the call. What was logged and called before is dropped.
    template <typename Function>
    static Outcome observe(Function call) {
        clear();
        const CK_RV code = call();
        return {code, log(), calls()};
    }
};

}  // namespace support

#endif

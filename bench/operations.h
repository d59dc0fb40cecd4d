/// An application in the benchmarks: loads the module, logs in to the one token that there is, and asks of it what
/// applications ask, operation by operation, through the function list only. So the same table measures the module on
/// any device library, and another PKCS #11 module beside it.

#ifndef ZENTAK_BENCH_OPERATIONS_H
#define ZENTAK_BENCH_OPERATIONS_H

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "module/cryptoki.h"

namespace bench {

using Bytes = std::vector<unsigned char>;
using Template = std::vector<CK_ATTRIBUTE>;
using Work = std::function<void()>;

inline constexpr const char* userPin = "12345678";
inline constexpr CK_ULONG pinLength = 8;
inline CK_UTF8CHAR_PTR pinBytes() {
    return reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(userPin));
}

/// Throws std::runtime_error with the call's name unless the result is CKR_OK.
void require(CK_RV result, const char* call);

/// Lets `p11` load this module instead of support::moduleFile().
void useModule(const std::filesystem::path& file);

/// The module's functions; the first call loads it.
const CK_FUNCTION_LIST& p11();

/// Where nothing else is said, the log level is looked for in its usual folder, as with most applications; the
/// constructor of a support::RunFolder names another one.
void useUsualConfiguration();

/// As long as it lives, the log level is this one, set in the RunFolder.
class LogLevel {
public:
    explicit LogLevel(int level);
    LogLevel(const LogLevel&) = delete;
    LogLevel& operator=(const LogLevel&) = delete;
    ~LogLevel();
};

/// Initialises the module and opens a read/write session of the user, as long as the object lives.
class UserSession {
public:
    UserSession();
    UserSession(const UserSession&) = delete;
    UserSession& operator=(const UserSession&) = delete;
    ~UserSession() { p11().C_Finalize(nullptr); }

    [[nodiscard]] CK_SESSION_HANDLE handle() const { return handle_; }
    [[nodiscard]] CK_SLOT_ID slot() const { return slot_; }

private:
    CK_SLOT_ID slot_ = 0;
    CK_SESSION_HANDLE handle_ = CK_INVALID_HANDLE;
};

/// An attribute's value is the given one, which outlives it.
template <typename Value>
CK_ATTRIBUTE entry(CK_ATTRIBUTE_TYPE type, Value& value) {
    return {type, &value, sizeof value};
}

inline CK_ATTRIBUTE entry(CK_ATTRIBUTE_TYPE type, std::string& text) {
    return {type, text.data(), static_cast<CK_ULONG>(text.size())};
}

inline CK_ULONG sizeOf(const Bytes& bytes) {
    return static_cast<CK_ULONG>(bytes.size());
}

inline CK_ATTRIBUTE entry(CK_ATTRIBUTE_TYPE type, Bytes& bytes) {
    return {type, bytes.data(), sizeOf(bytes)};
}

/// What a search finds, handed out `step` at a time.
std::vector<CK_OBJECT_HANDLE> find(CK_SESSION_HANDLE session, Template wanted, CK_ULONG step = 4096);

/// Throws std::runtime_error unless there is one object of this class and CKA_ID.
CK_OBJECT_HANDLE findOne(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, std::string id);

/// The objects that the operations work on: the last RSA key pair, the last P-256 key pair (if there are two) and the
/// last certificate of a token whose keys are in the order of `makeKeys`. Who looks for them from the front walks over
/// all others.
struct Subjects {
    Subjects(const UserSession& userSession, std::size_t keyPairs, std::size_t certificates);

    CK_SESSION_HANDLE session;
    CK_SLOT_ID slot;
    std::string rsaId;
    CK_OBJECT_HANDLE rsaPrivateKey;
    CK_OBJECT_HANDLE rsaPublicKey;
    CK_OBJECT_HANDLE ecPrivateKey;
    CK_OBJECT_HANDLE ecPublicKey;
    CK_OBJECT_HANDLE certificate;  ///< invalid when there are none
};

enum class Kind {
    stored,      ///< only hands out what the module has
    changing,    ///< changes the token
    other,       ///< any other
    uncompared,  ///< says nothing, or nothing new, beside another module
    waiting,     ///< the same, and reaches the disk
    filling,     ///< the same, and leaves something on the token that no application can take away
};

struct Operation {
    const char* name;
    Kind kind;
    /// Makes the inputs, and what is to be measured: it throws when a call fails. The subjects outlive it.
    std::function<Work(const Subjects& subjects)> prepare;
};

const std::vector<Operation>& operations();

/// Throws std::runtime_error for an unknown name.
const Operation& operation(const std::string& name);

// The operations by what they are about; `operations` has them all.
std::vector<Operation> objectOperations();
std::vector<Operation> cryptoOperations();
std::vector<Operation> sessionOperations();

/// What the module makes of the data with this key in one part, its Init included. Throws std::runtime_error.
Bytes sign(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Bytes& data);
Bytes encrypt(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Bytes& data);
Bytes decrypt(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Bytes& data);

/// A byte 1. Throws std::runtime_error unless the signature is good.
Bytes verify(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Bytes& data,
             const Bytes& signature);

}  // namespace bench

#endif

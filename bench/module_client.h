/// A host of the module in the benchmarks: loads it, logs in to the one token that there is, finds keys. The same host
/// serves another PKCS #11 module for comparison.

#ifndef ZENTAK_BENCH_MODULE_CLIENT_H
#define ZENTAK_BENCH_MODULE_CLIENT_H

#include <filesystem>
#include <string>
#include <vector>

#include "module/cryptoki.h"

namespace bench {

inline constexpr const char* userPin = "12345678";

/// Throws std::runtime_error with the call's name unless the result is CKR_OK.
void require(CK_RV result, const char* call);

/// Lets `cryptoki` load this module instead of support::moduleFile().
void useModule(const std::filesystem::path& file);

/// The module's functions; the first call loads it.
const CK_FUNCTION_LIST& cryptoki();

/// Where nothing else is said, the log level is looked for in its usual folder, as with most hosts; the constructor of
/// a support::RunFolder names another one.
void useUsualConfiguration();

/// As long as it lives, the log level is the one that is set in the RunFolder.
class OwnConfiguration {
public:
    OwnConfiguration();
    OwnConfiguration(const OwnConfiguration&) = delete;
    OwnConfiguration& operator=(const OwnConfiguration&) = delete;
    ~OwnConfiguration() { useUsualConfiguration(); }
};

/// Initialises the module and opens a read/write session of the user, as long as the object lives.
class UserSession {
public:
    UserSession();
    UserSession(const UserSession&) = delete;
    UserSession& operator=(const UserSession&) = delete;
    ~UserSession();

    [[nodiscard]] CK_SESSION_HANDLE handle() const { return handle_; }

    /// The private keys with this CKA_ID, or all of them without one.
    [[nodiscard]] std::vector<CK_OBJECT_HANDLE> privateKeys(std::string id = {}) const;

private:
    CK_SESSION_HANDLE handle_ = CK_INVALID_HANDLE;
};

}  // namespace bench

#endif

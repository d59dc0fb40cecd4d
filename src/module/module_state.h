/// All state of the module, in one place, and the lock around it.

#ifndef ZENTAK_MODULE_MODULE_STATE_H
#define ZENTAK_MODULE_MODULE_STATE_H

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/secrets.h"
#include "device/token.h"
#include "device/zentak_dsc_library.h"
#include "module/cryptoki.h"

namespace zentak {

/// The operation a session is in. The numbers appear in log lines; 6 and 8 are not used.
enum class ActiveOperation : std::int32_t {
    None = 0,
    Find = 1,
    Encrypt = 2,
    Decrypt = 3,
    Digest = 4,
    Sign = 5,
    Verify = 7,
    DigestEncrypt = 9,   ///< an encryption started during a digest
    DigestDecrypt = 10,  ///< a decryption started during a digest
};

/// One open session. What an operation leaves in its fields stays for the next one, which may visibly depend on it.
struct SessionRecord {
    SessionRecord() = default;
    SessionRecord(SessionRecord&&) = default;
    /// A plaintext that was never fetched goes with its session.
    ~SessionRecord() { wipe(resultBuffer); }

    CK_STATE state = CKS_RO_PUBLIC_SESSION;
    CK_SLOT_ID slotID = 0;
    TokenInfo tokenInfo;  ///< as it was when the session was opened
    ActiveOperation activeOperation = ActiveOperation::None;

    std::vector<ZentakCertificate> foundCertificates;
    std::vector<ZentakKeyPair> foundKeyPairs;
    bool findPublicKeys = false;
    bool findPrivateKeys = false;
    std::uint32_t findCursor = 0;  ///< search results handed out so far

    ZentakKeyPair* keyPair = nullptr;         ///< points at ModuleState::keyPairBuffer, so any later lookup changes it
    std::vector<unsigned char> resultBuffer;  ///< a computed result until it is delivered
    std::vector<unsigned char> dataBuffer;    ///< multi-part input
    void* hashContext = nullptr;              ///< the device library's; it is never released
    CK_MECHANISM_TYPE mechanism = 0;
    bool isPss = false;
    CK_MECHANISM_TYPE cipherMechanism = 0;

    /// Whether operations that need more than a read-only public session may begin.
    bool permitsOperations() const { return state >= CKS_RO_USER_FUNCTIONS && state <= CKS_RW_SO_FUNCTIONS; }
    bool isReadWrite() const { return state >= CKS_RW_PUBLIC_SESSION && state <= CKS_RW_SO_FUNCTIONS; }
    /// Whether a normal user is logged in on this session's token.
    bool isUserSession() const { return state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS; }
};

struct ModuleState {
    /// The device library's instance; the module is initialised exactly while it isn't null.
    std::atomic<void*> instance{nullptr};

    /// Tokens of the last full C_GetSlotList by device string; slot IDs resolve by position.
    std::map<std::string, TokenInfo> slotTable;
    /// Iterated in ascending handle order.
    std::map<CK_SESSION_HANDLE, SessionRecord> sessionTable;
    /// The user PIN while a user is logged in, otherwise empty: one for the whole module. It may hold zero bytes.
    std::string cachedUserPassword;

    /// Where object lookups leave the record they found: one of each kind for all sessions.
    ZentakKeyPair keyPairBuffer = {};
    ZentakCertificate certificateBuffer = {};

    /// Secrets made by key derivation. Nothing removes an entry.
    std::map<CK_OBJECT_HANDLE, std::vector<unsigned char>> derivedSecrets;
    /// Handle of the next derived secret: none is used twice in a process.
    std::uint32_t nextDerivedSecret = 0x70003000;
};

/// The session's token, to be spoken to with the PIN that is remembered now. Good for as long as the module is locked.
inline device::Token tokenOf(const ModuleState& state, const SessionRecord& session) {
    return {state.instance, session.tokenInfo.serialNumber, state.cachedUserPassword};
}

/// Makes `pin` the remembered PIN and wipes the one before. Throws std::bad_alloc, with that one still remembered.
void rememberPassword(ModuleState& state, const std::string& pin);

/// Forgets the remembered PIN and wipes its memory.
void forgetPassword(ModuleState& state) noexcept;

struct Module {
    /// Held by every entry point that uses the state, for the length of the call.
    Mutex mutex;
    ModuleState state ZENTAK_THREAD_SAFETY(guarded_by(mutex));

    /// The device library's instance for those who must not wait for the lock.
    void* instanceWithoutLock() const ZENTAK_THREAD_SAFETY(no_thread_safety_analysis) { return state.instance; }
};

/// The one module of this process. It is never destroyed.
Module& theModule();

/// Before a fork: what `replaceModule` needs. Throws std::bad_alloc.
void prepareToReplaceModule();

/// In a forked child: another module, which isn't initialised, takes the place of the parent's.
void replaceModule() noexcept;

}  // namespace zentak

#endif

/// The key and the mechanism of an operation: what the Init functions select and the others rely on.

#ifndef ZENTAK_CRYPTO_KEY_SELECTION_H
#define ZENTAK_CRYPTO_KEY_SELECTION_H

#include "module/entry_frame.h"
#include "module/lookup.h"
#include "module/mechanisms.h"

namespace zentak {

/// Makes the key pair with this identifier the session's. CKR_OK, or CKR_OBJECT_HANDLE_INVALID with `refusal` and the
/// handle in the log and the session's key as it was.
inline CK_RV selectKeyPair(ModuleState& state, SessionRecord& session, CK_ULONG id, const char* refusal,
                           CK_OBJECT_HANDLE hKey) {
    ZentakKeyPair* keyPair = findKeyPair(state, session, id);
    if (keyPair == nullptr) {
        return refuse(CKR_OBJECT_HANDLE_INVALID, refusal, hKey);
    }
    session.keyPair = keyPair;
    return CKR_OK;
}

/// The mechanism of the session's signature or verification: its Init function has let no other in.
inline const Mechanism& activeMechanism(const SessionRecord& session) {
    return *findMechanism(session.mechanism);
}

/// CKR_OK when the session's key has the usage bit; otherwise the key is dropped and `refusal` logged with the bits.
inline CK_RV requireKeyUsage(SessionRecord& session, std::uint32_t bit, const char* refusal) {
    const std::uint32_t usage = session.keyPair->keyUsage;
    if ((usage & bit) == 0) {
        session.keyPair = nullptr;
        return refuse(CKR_KEY_FUNCTION_NOT_PERMITTED, refusal, usage);
    }
    return CKR_OK;
}

}  // namespace zentak

#endif

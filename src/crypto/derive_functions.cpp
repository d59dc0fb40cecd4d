/// C_DeriveKey. Its early refusals say nothing in the log beyond the function's name.

#include <cstring>
#include <optional>

#include "base/secrets.h"
#include "crypto/hashing.h"
#include "device/library_buffer.h"
#include "module/entry_frame.h"
#include "module/lookup.h"
#include "module/object_handles.h"
#include "module/template_reader.h"

using namespace zentak;

namespace {

constexpr CK_EC_KDF_TYPE kdfSha1 = CKD_SHA1_KDF;
constexpr CK_EC_KDF_TYPE kdfSha256 = 6;  ///< of later versions of the standard

/// The parameters, which may lie at any address; nothing where they are unusable.
std::optional<CK_ECDH1_DERIVE_PARAMS> readParameters(const CK_MECHANISM& mechanism) {
    CK_ECDH1_DERIVE_PARAMS parameters;
    if (mechanism.pParameter == nullptr || mechanism.ulParameterLen < sizeof(parameters)) {
        return std::nullopt;
    }
    std::memcpy(&parameters, mechanism.pParameter, sizeof(parameters));
    if (parameters.pPublicData == nullptr || parameters.ulPublicDataLen == 0) {
        return std::nullopt;
    }
    return parameters;
}

/// Replaces `secret` by its hash, with the code and the area that devices know for this purpose. A step that fails is
/// passed over, by a result in silence, by an exception with a line in the log; after a failed last step the whole area
/// becomes the secret, with what it then holds.
void hashSecret(const ModuleState& state, const SessionRecord& session, int hashCode, std::size_t areaLength,
                std::vector<unsigned char>& secret) {
    void* context = nullptr;
    withoutExceptions("C_DeriveKey: zentak_initHash", [&]() -> CK_RV {
        zentak_initHash(session.deviceId(), hashCode, &context, state.instance);
        return CKR_OK;
    });
    withoutExceptions("C_DeriveKey: zentak_updateHash", [&]() -> CK_RV {
        updateHash(context, secret.data(), secret.size(), state.instance);
        return CKR_OK;
    });
    std::vector<unsigned char> digest(areaLength);
    const WipedAtEnd wipeLast(digest);
    int length = static_cast<int>(areaLength);
    bool finished = false;
    withoutExceptions("C_DeriveKey: zentak_finalHash", [&]() -> CK_RV {
        finished = zentak_finalHash(context, digest.data(), &length, state.instance) == 0;
        return CKR_OK;
    });
    if (finished) {
        cutToReportedLength(digest, length);
    }
    // The agreed secret goes with `digest`.
    secret.swap(digest);
}

void applyKeyDerivationFunction(const ModuleState& state, const SessionRecord& session, CK_EC_KDF_TYPE kdf,
                                std::vector<unsigned char>& secret) {
    constexpr int deviceSha1 = 1;
    constexpr int deviceSha256 = 4;
    if (kdf == kdfSha1) {
        hashSecret(state, session, deviceSha1, 20, secret);
    } else if (kdf == kdfSha256) {
        hashSecret(state, session, deviceSha256, 32, secret);
    }
}

/// The length that the first CKA_VALUE_LEN of the template asks for, 0 without one.
CK_ULONG requestedLength(CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
    if (pTemplate == nullptr) {
        return 0;
    }
    for (CK_ULONG index = 0; index < ulCount; ++index) {
        const CK_ATTRIBUTE entry = pTemplate[index];
        if (entry.type == CKA_VALUE_LEN && entry.pValue != nullptr) {
            return numberIn({static_cast<const unsigned char*>(entry.pValue), entry.ulValueLen});
        }
    }
    return 0;
}

CK_RV deriveKey(ModuleState& state, const SessionRecord& session, const CK_ECDH1_DERIVE_PARAMS& parameters,
                CK_OBJECT_HANDLE hBaseKey, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount,
                CK_OBJECT_HANDLE_PTR phKey) {
    const CK_ULONG id = hBaseKey - privateKeyBase;
    logDebug("key id :: ", id);
    const ZentakKeyPair* keyPair = findKeyPair(state, session.deviceId(), id);
    if (keyPair == nullptr) {
        return CKR_KEY_HANDLE_INVALID;
    }
    const ByteView publicData(parameters.pPublicData, parameters.ulPublicDataLen);
    logDebug("base key id :: ", Hexadecimal{keyPair->keyId});
    if (publicData.size() > longestArgument) {
        return refuse(CKR_DATA_LEN_RANGE,
                      "C_DeriveKey: public data too long for the device library, ulPublicDataLen=", publicData.size());
    }
    logDebug("public key :: ", Hexadecimal{publicData});

    LibraryBuffer shared;
    int length = 0;
    const int result =
        zentak_ecdhDerive(session.deviceId(), keyPair->keyId, state.cachedUserPassword.c_str(), publicData.data(),
                          static_cast<int>(publicData.size()), shared.address(), &length, state.instance);
    if (result != 0 || shared.isNull() || length < 1) {
        return refuse(CKR_FUNCTION_FAILED, "C_DeriveKey: zentak_ecdhDerive failed: ", result);
    }
    std::vector<unsigned char> secret = shared.copy(length);
    const WipedAtEnd wipeSecret(secret);
    applyKeyDerivationFunction(state, session, parameters.kdf, secret);
    const CK_ULONG wanted = requestedLength(pTemplate, ulAttributeCount);
    if (wanted > 0 && wanted < secret.size()) {
        wipe(secret.data() + wanted, secret.size() - wanted);
        secret.resize(wanted);
    }

    const auto secretLength = secret.size();
    const CK_OBJECT_HANDLE handle = state.nextDerivedSecret;
    state.derivedSecrets.insert_or_assign(handle, std::move(secret));
    ++state.nextDerivedSecret;
    *phKey = handle;
    logDebug("C_DeriveKey: done, handle=", handle, " len=", secretLength);
    return CKR_OK;
}

}  // namespace

CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey,
                  CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey) {
    constexpr auto name = "C_DeriveKey";
    logDebug(name);
    return withoutExceptions(name, [&]() -> CK_RV {
        Module& module = theModule();
        const MutexLock lock(module.mutex);
        ModuleState& state = module.state;
        if (state.instance == nullptr) {
            return CKR_CRYPTOKI_NOT_INITIALIZED;
        }
        const auto session = state.sessionTable.find(hSession);
        if (session == state.sessionTable.end()) {
            return CKR_SESSION_HANDLE_INVALID;
        }
        if (pMechanism == nullptr || phKey == nullptr) {
            return CKR_ARGUMENTS_BAD;
        }
        if (pMechanism->mechanism != CKM_ECDH1_DERIVE) {
            return CKR_MECHANISM_INVALID;
        }
        const std::optional<CK_ECDH1_DERIVE_PARAMS> parameters = readParameters(*pMechanism);
        if (!parameters.has_value()) {
            return CKR_MECHANISM_PARAM_INVALID;
        }
        if (!isPrivateKeyHandle(hBaseKey)) {
            return CKR_KEY_HANDLE_INVALID;
        }
        return deriveKey(state, session->second, *parameters, hBaseKey, pTemplate, ulAttributeCount, phKey);
    });
}

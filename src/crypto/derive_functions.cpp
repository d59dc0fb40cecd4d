/// C_DeriveKey. Its early refusals say nothing in the log beyond the function's name.

#include <cstring>
#include <optional>

#include "base/secrets.h"
#include "device/codes.h"
#include "module/byte_trace.h"
#include "module/entry_frame.h"
#include "module/lookup.h"
#include "module/object_handles.h"
#include "module/template_reader.h"

using namespace zentak;

namespace {

constexpr CK_EC_KDF_TYPE kdfSha1 = CKD_SHA1_KDF;
constexpr CK_EC_KDF_TYPE kdfSha256 = 6;  ///< of later versions of the standard

/// The parameters, which may be at any address; nothing if they are unusable.
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

/// Replaces `secret` by its hash, with the area that devices know for this purpose. A step that fails is passed over, a
/// refusal in silence, an exception with a line in the log; after a failed last step the whole area becomes the secret,
/// with what it then holds.
void hashSecret(const device::Token& token, int hashCode, std::size_t areaLength, std::vector<unsigned char>& secret) {
    void* context = nullptr;
    withoutExceptions("C_DeriveKey: zentak_initHash", [&]() -> CK_RV {
        static_cast<void>(token.initHash(hashCode, context));
        return CKR_OK;
    });
    withoutExceptions("C_DeriveKey: zentak_updateHash", [&]() -> CK_RV {
        static_cast<void>(token.updateHash(context, secret));
        return CKR_OK;
    });
    device::OutputArea area(areaLength);
    bool finished = false;
    withoutExceptions("C_DeriveKey: zentak_finalHash", [&]() -> CK_RV {
        finished = static_cast<bool>(token.finalHash(context, area));
        return CKR_OK;
    });
    std::vector<unsigned char> digest = finished ? area.takeFilled() : area.takeWhole();
    const WipedAtEnd wipeAgreedSecret(digest);
    secret.swap(digest);
}

void applyKeyDerivationFunction(const device::Token& token, CK_EC_KDF_TYPE kdf, std::vector<unsigned char>& secret) {
    if (kdf == kdfSha1) {
        hashSecret(token, derivationHashSha1, 20, secret);
    } else if (kdf == kdfSha256) {
        hashSecret(token, derivationHashSha256, 32, secret);
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
    const ZentakKeyPair* keyPair = findKeyPair(state, session, id);
    if (keyPair == nullptr) {
        return CKR_KEY_HANDLE_INVALID;
    }
    const ByteView publicData(parameters.pPublicData, parameters.ulPublicDataLen);
    traceBytes("base key id :: ", keyPair->keyId);
    traceBytes("public key :: ", publicData);

    const device::Token token = tokenOf(state, session);
    std::vector<unsigned char> secret;
    const WipedAtEnd wipeSecret(secret);
    const device::Result agreed = token.agreeSecret(*keyPair, publicData, secret);
    if (agreed.isInputTooLong()) {
        return refuse(CKR_DATA_LEN_RANGE,
                      "C_DeriveKey: public data too long for the device library, ulPublicDataLen=", publicData.size());
    }
    if (!agreed) {
        return refuse(CKR_FUNCTION_FAILED, "C_DeriveKey: zentak_ecdhDerive failed: ", agreed.number());
    }
    applyKeyDerivationFunction(token, parameters.kdf, secret);
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

/// C_GenerateKeyPair.

#include <array>
#include <optional>

#include "device/codes.h"
#include "device/record_views.h"
#include "module/entry_frame.h"
#include "module/key_types.h"
#include "module/object_handles.h"
#include "module/template_reader.h"

using namespace zentak;

namespace {

constexpr auto name = "C_GenerateKeyPair";
constexpr std::size_t longestText = 128;  ///< what a record takes of a label or an identifier

/// Fills what the private template says of the pair, and the key type that it asks for. Of several entries with one
/// type the last counts.
CK_RV readPrivateTemplate(CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, CK_KEY_TYPE& keyType, ZentakKeyPair& keyPair) {
    ByteView label;
    ByteView id;
    forEachValue(pTemplate, ulCount, [&](CK_ATTRIBUTE_TYPE type, ByteView value) {
        switch (type) {
            case CKA_LABEL:
                label = value;
                break;
            case CKA_KEY_TYPE:
                keyType = numberIn(value);
                break;
            case CKA_ID:
                id = value;
                break;
            case CKA_DECRYPT:
                setUsage(keyPair.keyUsage, keyUsageEncrypt, value);
                break;
            case CKA_SIGN:
                setUsage(keyPair.keyUsage, keyUsageSign, value);
                break;
            default:
                break;
        }
    });
    if (const CK_RV readable = requireReadable(name, {{"CKA_LABEL", label}, {"CKA_ID", id}}); readable != CKR_OK) {
        return readable;
    }
    replaceField(keyPair.alias, textIn(label), longestText);
    keyPair.objectIdLength = replaceField(keyPair.objectId, textIn(id), longestText);
    if (keyPair.keyUsage == 0) {
        keyPair.keyUsage = keyUsageSign | keyUsageEncrypt;
    }
    return CKR_OK;
}

CK_RV setRsaSize(CK_ULONG bits, std::int32_t& keyTypeCode) {
    logDebug("C_GenerateKeyPair - modulusBits : ", bits);
    switch (bits) {
        case 1024:
            return refuse(CKR_KEY_SIZE_RANGE,
                          "C_GenerateKeyPair: RSA-1024 key generation not allowed \u2014 key size below 112-bit "
                          "security strength");
        case 2048:
            keyTypeCode = keyTypeRsa2048;
            return CKR_OK;
        case 3072:
            keyTypeCode = keyTypeRsa3072;
            return CKR_OK;
        case 4096:
            keyTypeCode = keyTypeRsa4096;
            return CKR_OK;
        default:
            return refuse(CKR_MECHANISM_INVALID, "C_GenerateKeyPair: unsupported RSA modulusBits=", bits);
    }
}

CK_RV setCurve(ByteView parameters, std::int32_t& keyTypeCode) {
    for (const std::int32_t code : {keyTypeP256, keyTypeP384, keyTypeP521}) {
        if (sameBytes(parameters, keyTypeProperties(code).ecParameters)) {
            keyTypeCode = code;
            return CKR_OK;
        }
    }
    return refuse(CKR_MECHANISM_INVALID, "C_GenerateKeyPair: unknown EC param (len=", parameters.size(), ")");
}

/// Fills the key type code from the size or curve in the public template.
CK_RV readPublicTemplate(CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, CK_KEY_TYPE keyType, std::int32_t& keyTypeCode) {
    // Every key type that isn't known ends as RSA 2048.
    keyTypeCode = keyTypeRsa2048;
    CK_RV result = CKR_OK;
    forEachValue(pTemplate, ulCount, [&](CK_ATTRIBUTE_TYPE type, ByteView value) {
        if (result != CKR_OK) {
            return;
        }
        if (keyType == CKK_RSA && type == CKA_MODULUS_BITS) {
            result = setRsaSize(numberIn(value), keyTypeCode);
        } else if (keyType == CKK_EC && type == CKA_EC_PARAMS) {
            result = setCurve(value, keyTypeCode);
        }
    });
    if (keyType == CKK_EC && !isEcKeyType(keyTypeCode)) {
        keyTypeCode = keyTypeP256;
    }
    return result;
}

/// Lets the token make the pair and complete its record.
CK_RV generateOnToken(const ModuleState& state, const SessionRecord& session, ZentakKeyPair& keyPair) {
    const device::Result generated = tokenOf(state, session).generateKeyPair(keyPair);
    if (generated) {
        return CKR_OK;
    }
    return refuse(generated.isDeviceFull() ? CKR_DEVICE_MEMORY : CKR_FUNCTION_FAILED,
                  "Generate key pair failed : ", generated.number());
}

}  // namespace

CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_ATTRIBUTE_PTR pPublicKeyTemplate,
                        CK_ULONG ulPublicKeyAttributeCount, CK_ATTRIBUTE_PTR pPrivateKeyTemplate,
                        CK_ULONG ulPrivateKeyAttributeCount, CK_OBJECT_HANDLE_PTR phPublicKey,
                        CK_OBJECT_HANDLE_PTR phPrivateKey) {
    return sessionEntryPoint(name, hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (!session.isReadWrite()) {
            return refuse(CKR_SESSION_HANDLE_INVALID, "C_GenerateKeyPair: invalid session state=", session.state);
        }
        if (pMechanism == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: pMechanism is NULL");
        }
        // The mechanism's type isn't looked at: the private template names the key type.
        if (pMechanism->pParameter != nullptr || pMechanism->ulParameterLen != 0) {
            return refuse(CKR_MECHANISM_PARAM_INVALID,
                          "C_GenerateKeyPair: mechanism param invalid for mechanism=", pMechanism->mechanism);
        }
        if (pPublicKeyTemplate == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: pPublicKeyTemplate is NULL");
        }
        if (ulPublicKeyAttributeCount == 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: ulPublicKeyAttributeCount<=0");
        }
        if (pPrivateKeyTemplate == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: pPrivateKeyTemplate is NULL");
        }
        if (ulPrivateKeyAttributeCount == 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: ulPrivateKeyAttributeCount<=0");
        }
        if (phPublicKey == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: phPublicKey is NULL");
        }
        if (phPrivateKey == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: phPrivateKey is NULL");
        }

        ZentakKeyPair keyPair = {};
        CK_KEY_TYPE keyType = CKK_RSA;
        const CK_RV privateRead =
            readPrivateTemplate(pPrivateKeyTemplate, ulPrivateKeyAttributeCount, keyType, keyPair);
        if (privateRead != CKR_OK) {
            return privateRead;
        }
        logDebug("C_GenerateKeyPair - keytype : ", keyType);
        const CK_RV publicRead =
            readPublicTemplate(pPublicKeyTemplate, ulPublicKeyAttributeCount, keyType, keyPair.keyType);
        if (publicRead != CKR_OK) {
            return publicRead;
        }
        const CK_RV generated = generateOnToken(state, session, keyPair);
        if (generated != CKR_OK) {
            return generated;
        }
        *phPublicKey = publicKeyBase + keyPair.id;
        *phPrivateKey = privateKeyBase + keyPair.id;
        logDebug("C_GenerateKeyPair - exit");
        return CKR_OK;
    });
}

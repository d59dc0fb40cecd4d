/// C_CreateObject: the import of certificates, with the authorities that issued them, and of RSA private keys.

#include <algorithm>
#include <optional>
#include <string>

#include "base/secrets.h"
#include "device/library_results.h"
#include "module/entry_frame.h"
#include "module/object_handles.h"
#include "objects/creation_template.h"
#include "objects/default_label.h"
#include "objects/issuer_chain.h"
#include "platform/platform.h"

using namespace zentak;

namespace {

/// Whether the authorities of an imported certificate are imported with it.
constexpr bool chainImport = true;

CK_RV storageFailure(int result) {
    return isDeviceFull(result) ? CKR_DEVICE_MEMORY : CKR_FUNCTION_FAILED;
}

/// Where the Zentak software is installed: the environment's word, a usual folder, or the host program's own.
std::string installationFolder() {
    const std::optional<std::string> configured = platform::environmentVariable("ZENTAK_HOME");
    if (configured.has_value() && !configured->empty()) {
        return *configured;
    }
    logDebug("ZENTAK_HOME not set \u2014 Using Windows defaults");
    for (const char* folder :
         {"C:/Program Files (x86)/Dravenko Sentronics/Zentak", "C:/Program Files/Dravenko Sentronics/Zentak"}) {
        if (platform::pathExists(folder)) {
            return folder;
        }
    }
    const std::string executable = platform::executablePath();
    const std::size_t separator = executable.find_last_of("\\/");
    return separator == std::string::npos ? executable : executable.substr(0, separator);
}

/// The certificate with its authorities, root first; empty when there are none to be imported.
std::vector<ZentakCertificate> issuingChain(const ZentakCertificate& leaf, const CertificateDetails& details) {
    const std::string folder = installationFolder() + "\\ZentakDSC" + "\\Certificates";
    logDebug("CA Folder: ", std::string_view(folder));
    const auto files =
        zentak_getFilesWithExtensionsAndConvertDER(folder.c_str(), {".cer", ".der", ".pem", ".crt"}, nullptr);
    if (files.empty()) {
        return {};
    }
    return IssuerTable(files).chainOf(leaf, details.text3);
}

/// Stores one certificate and fills its `certId`.
CK_RV importOne(const ModuleState& state, const SessionRecord& session, ZentakCertificate& certificate) {
    const int result =
        zentak_importCertificate(session.deviceId(), state.cachedUserPassword.c_str(), &certificate, state.instance);
    return result == 0 ? CKR_OK : refuse(storageFailure(result), "Leaf import failed: ", result);
}

/// Stores the chain as far as it goes: what is on the token stays there when a later certificate fails.
CK_RV importChain(const ModuleState& state, const SessionRecord& session, std::vector<ZentakCertificate>& chain) {
    for (ZentakCertificate& certificate : chain) {
        const CK_RV imported = importOne(state, session, certificate);
        if (imported != CKR_OK) {
            return imported;
        }
        logDebug("Certificate imported successfully");
    }
    return CKR_OK;
}

/// Stores the certificate alone and tells the host its handle, where the token lists it.
CK_RV importLeaf(const ModuleState& state, const SessionRecord& session, ZentakCertificate& leaf,
                 CK_OBJECT_HANDLE_PTR phObject) {
    logDebug("Chain import skipped or failed \u2014 Performing normal leaf import");
    const CK_RV imported = importOne(state, session, leaf);
    if (imported != CKR_OK) {
        return imported;
    }
    const std::vector<ZentakCertificate>& certificates = zentak_getCertificateList(session.deviceId(), state.instance);
    const auto found = std::find_if(certificates.begin(), certificates.end(), [&](const ZentakCertificate& entry) {
        return sameBytes(entry.certId, leaf.certId);
    });
    if (found != certificates.end()) {
        *phObject = certificateBase + found->id;
    }
    return CKR_OK;
}

/// Gives the certificate's key pair its label, unless it has one.
void nameKeyPair(const ModuleState& state, const SessionRecord& session, ByteView publicKey, const std::string& label) {
    const std::vector<ZentakKeyPair> keyPairs = zentak_getKeyPairList(session.deviceId(), state.instance);
    const auto found = std::find_if(keyPairs.begin(), keyPairs.end(), [&](const ZentakKeyPair& keyPair) {
        return sameBytes(publicKeyOf(keyPair), publicKey);
    });
    if (found == keyPairs.end() || !storedLabel(*found).empty()) {
        return;
    }
    logDebug("Updating empty key pair alias to: ", std::string_view(label));
    if (!state.cachedUserPassword.empty()) {
        // The certificate is stored; a label that the token refuses is no reason to call the import failed.
        withoutExceptions("C_CreateObject: zentak_updateKeyPairDetails", [&]() -> CK_RV {
            zentak_updateKeyPairDetails(session.deviceId(), found->keyId, state.cachedUserPassword.c_str(),
                                        label.c_str(), nullptr, 0, state.instance);
            return CKR_OK;
        });
    }
}

CK_RV importCertificate(const ModuleState& state, const SessionRecord& session, const CreationTemplate& wanted,
                        CK_OBJECT_HANDLE_PTR phObject) {
    if (wanted.value.empty()) {
        return refuse(CKR_FUNCTION_FAILED, "Certificate data not available in create object");
    }
    if (wanted.value.size() > sizeof(ZentakCertificate::der)) {
        return refuse(CKR_DATA_LEN_RANGE, "C_CreateObject: certificate too long, length=", wanted.value.size());
    }
    if (const CK_RV readable = requireReadable("C_CreateObject", {{"CKA_LABEL", wanted.label}, {"CKA_ID", wanted.id}});
        readable != CKR_OK) {
        return readable;
    }
    ZentakCertificate leaf = certificateRecord(wanted.value, {});
    leaf.objectIdLength = replaceField(leaf.objectId, textIn(wanted.id), sizeof(leaf.objectId));
    const std::optional<CertificateDetails> details = detailsOf(leaf);
    if (!details.has_value()) {
        logDebug("certificate parsing failed");
        return CKR_DATA_INVALID;
    }
    std::string label(trimmed(textIn(wanted.label)));
    if (label.empty()) {
        label = defaultLabel(*details);
        logDebug("Label not provided, using: ", std::string_view(label));
    }
    replaceField(leaf.label, label, longestCertificateLabel);

    std::vector<ZentakCertificate> chain;
    if (chainImport) {
        chain = issuingChain(leaf, *details);
    }
    const CK_RV imported =
        chain.empty() ? importLeaf(state, session, leaf, phObject) : importChain(state, session, chain);
    if (imported != CKR_OK) {
        return imported;
    }
    nameKeyPair(state, session, details->publicKey, label);
    return CKR_OK;
}

CK_RV importPrivateKey(const ModuleState& state, const SessionRecord& session, const CreationTemplate& wanted,
                       CK_OBJECT_HANDLE_PTR phObject) {
    constexpr std::size_t rsa1024ModulusLength = 128;
    if (wanted.keyType == CKK_EC) {
        return refuse(CKR_FUNCTION_FAILED, "ECC keypair not supported for import");
    }
    if (wanted.modulus.empty() || wanted.privateExponent.empty() || wanted.prime1.empty()) {
        return refuse(CKR_FUNCTION_FAILED, "Invalid input parameters for import RSA key");
    }
    if (wanted.modulus.size() <= rsa1024ModulusLength) {
        return refuse(
            CKR_KEY_SIZE_RANGE,
            "C_CreateObject: RSA-1024 key import not allowed \u2014 key size below 112-bit security strength");
    }
    if (const CK_RV readable = requireReadable("C_CreateObject", {{"CKA_MODULUS", wanted.modulus},
                                                                  {"CKA_PRIVATE_EXPONENT", wanted.privateExponent},
                                                                  {"CKA_PRIME_1", wanted.prime1},
                                                                  {"CKA_LABEL", wanted.label},
                                                                  {"CKA_ID", wanted.id}});
        readable != CKR_OK) {
        return readable;
    }
    ImportPFXDetails details;
    const WipedAtEnd wipePrivateExponent(details.components[2]);
    const WipedAtEnd wipePrime1(details.components[3]);
    details.components[0].assign(wanted.modulus.begin(), wanted.modulus.end());
    details.components[2].assign(wanted.privateExponent.begin(), wanted.privateExponent.end());
    details.components[3].assign(wanted.prime1.begin(), wanted.prime1.end());
    details.keyUsage = wanted.usage;
    details.label = textIn(wanted.label);
    details.objectId.assign(wanted.id.begin(), wanted.id.end());
    const int result = zentak_importPfx(session.deviceId(), state.cachedUserPassword.c_str(), &details, state.instance);
    if (result != 0) {
        return refuse(storageFailure(result), "Import private key into device failed : ", result);
    }
    const std::vector<ZentakKeyPair>& keyPairs = zentak_getKeyPairList(session.deviceId(), state.instance);
    const auto found = std::find_if(keyPairs.begin(), keyPairs.end(), [&](const ZentakKeyPair& keyPair) {
        return sameBytes(keyPair.keyId, details.keyId);
    });
    if (found != keyPairs.end()) {
        *phObject = privateKeyBase + found->id;
    }
    return CKR_OK;
}

}  // namespace

CK_RV C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                     CK_OBJECT_HANDLE_PTR phObject) {
    return sessionEntryPoint("C_CreateObject", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (pTemplate == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_CreateObject: pTemplate is NULL");
        }
        if (ulCount == 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_CreateObject: ulCount<=0");
        }
        if (phObject == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_CreateObject: phObject is NULL");
        }
        const CreationTemplate wanted = readCreationTemplate(pTemplate, ulCount);
        switch (wanted.objectClass) {
            case CKO_CERTIFICATE:
                return importCertificate(state, session, wanted, phObject);
            case CKO_PRIVATE_KEY:
                return importPrivateKey(state, session, wanted, phObject);
            case CKO_PUBLIC_KEY:
                // The token has the public key of every pair; hosts that store one more are told that all is well.
                return CKR_OK;
            default:
                return refuse(CKR_FUNCTION_NOT_SUPPORTED, "Provided object class not supported : ", wanted.objectClass);
        }
    });
}

/// C_CreateObject: the import of certificates, with the authorities that issued them, and of RSA private keys.

#include <algorithm>
#include <optional>
#include <string>

#include "base/secrets.h"
#include "device/library.h"
#include "device/record_views.h"
#include "module/entry_frame.h"
#include "module/object_handles.h"
#include "objects/creation_template.h"
#include "objects/default_label.h"
#include "objects/issuer_chain.h"
#include "platform/operating_system.h"

using namespace zentak;

namespace {

/// Whether the authorities of an imported certificate are imported with it.
constexpr bool chainImport = true;

CK_RV storageFailure(const device::Result& result) {
    return result.isDeviceFull() ? CKR_DEVICE_MEMORY : CKR_FUNCTION_FAILED;
}

/// Where the Zentak software is installed: the environment's word, a usual folder, or the application's own.
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
    const std::vector<device::CertificateFile> files = device::certificateFiles(folder);
    if (files.empty()) {
        return {};
    }
    return IssuerTable(files).chainOf(leaf, details.issuer);
}

/// Stores one certificate and fills its `certId`.
CK_RV importOne(const device::Token& token, ZentakCertificate& certificate) {
    const device::Result imported = token.importCertificate(certificate);
    return imported ? CKR_OK : refuse(storageFailure(imported), "Leaf import failed: ", imported.number());
}

/// Stores the chain as far as it goes: what is on the token stays there when a later certificate fails.
CK_RV importChain(const device::Token& token, std::vector<ZentakCertificate>& chain) {
    for (ZentakCertificate& certificate : chain) {
        const CK_RV imported = importOne(token, certificate);
        if (imported != CKR_OK) {
            return imported;
        }
        logDebug("Certificate imported successfully");
    }
    return CKR_OK;
}

/// Stores only the certificate and tells the application its handle, if the token lists it.
CK_RV importLeaf(const device::Token& token, ZentakCertificate& leaf, CK_OBJECT_HANDLE_PTR phObject) {
    logDebug("Chain import skipped or failed \u2014 Performing normal leaf import");
    const CK_RV imported = importOne(token, leaf);
    if (imported != CKR_OK) {
        return imported;
    }
    const std::vector<ZentakCertificate>& certificates = token.certificates();
    const auto found = std::find_if(certificates.begin(), certificates.end(), [&](const ZentakCertificate& entry) {
        return sameBytes(entry.certId, leaf.certId);
    });
    if (found != certificates.end()) {
        *phObject = certificateBase + found->id;
    }
    return CKR_OK;
}

/// Gives the certificate's key pair its label, unless it has one.
void nameKeyPair(const ModuleState& state, const device::Token& token, ByteView publicKey, const std::string& label) {
    const std::vector<ZentakKeyPair> keyPairs = token.keyPairs();
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
            static_cast<void>(token.updateKeyPair(*found, label, {}));
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
    const device::Token token = tokenOf(state, session);
    const CK_RV imported = chain.empty() ? importLeaf(token, leaf, phObject) : importChain(token, chain);
    if (imported != CKR_OK) {
        return imported;
    }
    nameKeyPair(state, token, details->publicKey, label);
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
    const device::Token token = tokenOf(state, session);
    const device::Result stored = token.importPrivateKey(details);
    if (!stored) {
        return refuse(storageFailure(stored), "Import private key into device failed : ", stored.number());
    }
    const std::vector<ZentakKeyPair>& keyPairs = token.keyPairs();
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
                // The token has the public key of every pair; applications that store one more are told that all is
                // well.
                return CKR_OK;
            default:
                return refuse(CKR_FUNCTION_NOT_SUPPORTED, "Provided object class not supported : ", wanted.objectClass);
        }
    });
}

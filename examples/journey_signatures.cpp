/// Signatures made and verified by the module, in one part and in several.

#include <algorithm>
#include <utility>

#include "journey_stages.h"

namespace {

/// Calls `feed` with one piece of the data after the other, as a host does that reads a file bit by bit.
template <typename Feed>
void inParts(Bytes& data, const Feed& feed) {
    constexpr std::size_t partLength = 20;
    for (std::size_t start = 0; start < data.size(); start += partLength) {
        feed(data.data() + start, static_cast<CK_ULONG>(std::min(partLength, data.size() - start)));
    }
}

struct Signer {
    CK_SESSION_HANDLE session;
    CK_OBJECT_HANDLE privateKey;
    CK_OBJECT_HANDLE publicKey;
    CK_MECHANISM_TYPE mechanismType;

    void begin() const {
        CK_MECHANISM mechanism = {mechanismType, nullptr, 0};
        check("C_SignInit", cryptoki->C_SignInit(session, &mechanism, privateKey));
    }

    Bytes sign(Bytes data) const {
        begin();
        CK_ULONG length = 0;
        check("C_Sign (how long?)", cryptoki->C_Sign(session, data.data(), lengthOf(data), nullptr, &length));
        Bytes signature(length);
        check("C_Sign", cryptoki->C_Sign(session, data.data(), lengthOf(data), signature.data(), &length));
        signature.resize(length);
        show("signature bytes", length);
        return signature;
    }

    Bytes signInParts(Bytes data) const {
        begin();
        inParts(data, [&](CK_BYTE* part, CK_ULONG length) {
            check("C_SignUpdate", cryptoki->C_SignUpdate(session, part, length));
        });
        CK_ULONG length = 0;
        check("C_SignFinal (how long?)", cryptoki->C_SignFinal(session, nullptr, &length));
        Bytes signature(length);
        check("C_SignFinal", cryptoki->C_SignFinal(session, signature.data(), &length));
        signature.resize(length);
        show("signature bytes", length);
        return signature;
    }

    void verify(Bytes data, Bytes signature, CK_RV expected) const {
        CK_MECHANISM mechanism = {mechanismType, nullptr, 0};
        check("C_VerifyInit", cryptoki->C_VerifyInit(session, &mechanism, publicKey));
        check("C_Verify",
              cryptoki->C_Verify(session, data.data(), lengthOf(data), signature.data(), lengthOf(signature)),
              expected);
    }

    void verifyInParts(Bytes data, Bytes signature, CK_RV expected) const {
        CK_MECHANISM mechanism = {mechanismType, nullptr, 0};
        check("C_VerifyInit", cryptoki->C_VerifyInit(session, &mechanism, publicKey));
        inParts(data, [&](CK_BYTE* part, CK_ULONG length) {
            check("C_VerifyUpdate", cryptoki->C_VerifyUpdate(session, part, length));
        });
        check("C_VerifyFinal", cryptoki->C_VerifyFinal(session, signature.data(), lengthOf(signature)), expected);
    }
};

Signer signerWith(const Token& token, const Bytes& id, CK_MECHANISM_TYPE mechanismType) {
    return {token.session, findObject(token.session, CKO_PRIVATE_KEY, id),
            findObject(token.session, CKO_PUBLIC_KEY, id), mechanismType};
}

/// A signature of the same length that is good for nothing.
Bytes spoiled(Bytes signature) {
    signature.back() ^= 1;
    return signature;
}

void signAndVerifyWith(const Signer& signer, const std::string& name, const Bytes& document,
                       const std::string& pathWithoutExtension) {
    step("Signing with " + name);
    const Bytes signature = signer.sign(document);
    writeFile(pathWithoutExtension + ".sig", signature);
    step("Verifying it: once as it is, once spoiled");
    signer.verify(document, signature, CKR_OK);
    signer.verify(document, spoiled(signature), CKR_SIGNATURE_INVALID);

    step("Signing with " + name + ", the document in parts");
    const Bytes fromParts = signer.signInParts(document);
    writeFile(pathWithoutExtension + "-parts.sig", fromParts);
    step("Verifying it in parts: once as it is, once spoiled");
    signer.verifyInParts(document, fromParts, CKR_OK);
    signer.verifyInParts(document, spoiled(fromParts), CKR_SIGNATURE_INVALID);
}

}  // namespace

void signAndVerify(const Token& token, const std::string& folder) {
    const Bytes document = readFile(folder + "/document.txt");
    step("The keys to sign with");
    const Signer rsa = signerWith(token, rsaKeyId, CKM_SHA256_RSA_PKCS);
    const Signer ec = signerWith(token, ecKeyId, CKM_ECDSA_SHA256);
    signAndVerifyWith(rsa, "RSA, CKM_SHA256_RSA_PKCS", document, folder + "/rsa");
    signAndVerifyWith(ec, "EC, CKM_ECDSA_SHA256", document, folder + "/ec");
}

Bytes signWithRsa(const Token& token, Bytes data) {
    return signerWith(token, rsaKeyId, CKM_SHA256_RSA_PKCS).sign(std::move(data));
}

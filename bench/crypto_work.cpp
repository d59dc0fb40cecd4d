#include "crypto_work.h"

#include <algorithm>
#include <cstdlib>
#include <dlfcn.h>
#include <openssl/rsa.h>
#include <stdexcept>

#include "device/zentak_dsc_library.h"
#include "keys/key_operations.h"
#include "module.h"
#include "module/object_handles.h"

namespace bench {

namespace {

using softtoken::ByteView;
using softtoken::Key;
using softtoken::KeyContext;

constexpr std::size_t hashLength = 32;

/// What stands before a SHA-256 hash in its DigestInfo.
constexpr std::array<unsigned char, 19> sha256Prefix = {0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                                        0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};

void expect(bool holds, const char* what) {
    if (!holds) throw std::runtime_error(std::string(what) + " failed");
}

/// The same key as a program would have it that loads it from a file.
Key loaded(const Key& key) {
    return softtoken::ownKey([&] {
        const softtoken::SecretBytes der = softtoken::encodePrivateKey(key.get());
        const unsigned char* position = der.data();
        return d2i_AutoPrivateKey(nullptr, &position, static_cast<long>(der.size()));
    }());
}

KeyContext contextFor(const Key& key) {
    return KeyContext(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
}

Bytes signDirectly(const Key& key, const Bytes& hash) {
    const KeyContext context = contextFor(key);
    Bytes signature(512);
    std::size_t length = signature.size();
    const bool rsa = EVP_PKEY_get_base_id(key.get()) == EVP_PKEY_RSA;
    expect(EVP_PKEY_sign_init(context.get()) == 1 &&
               (!rsa || (EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
                         EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) == 1)) &&
               EVP_PKEY_sign(context.get(), signature.data(), &length, hash.data(), hash.size()) == 1,
           "signing directly");
    signature.resize(length);
    return signature;
}

Bytes verifyDirectly(const Key& key, const Bytes& hash, const Bytes& signature) {
    const KeyContext context = contextFor(key);
    const bool rsa = EVP_PKEY_get_base_id(key.get()) == EVP_PKEY_RSA;
    expect(EVP_PKEY_verify_init(context.get()) == 1 &&
               (!rsa || (EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
                         EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) == 1)) &&
               EVP_PKEY_verify(context.get(), signature.data(), signature.size(), hash.data(), hash.size()) == 1,
           "verifying directly");
    return {1};
}

Bytes decryptDirectly(const Key& key, const Bytes& ciphertext, int padding) {
    const KeyContext context = contextFor(key);
    Bytes plaintext(ciphertext.size());
    std::size_t length = plaintext.size();
    expect(EVP_PKEY_decrypt_init(context.get()) == 1 && EVP_PKEY_CTX_set_rsa_padding(context.get(), padding) == 1 &&
               EVP_PKEY_decrypt(context.get(), plaintext.data(), &length, ciphertext.data(), ciphertext.size()) == 1,
           "decrypting directly");
    plaintext.resize(length);
    return plaintext;
}

/// From the peer's point as it comes from a peer.
Bytes deriveDirectly(const Key& key, const Bytes& point) {
    const Key peer = softtoken::ownKey(EVP_PKEY_new());
    expect(EVP_PKEY_copy_parameters(peer.get(), key.get()) == 1 &&
               EVP_PKEY_set1_encoded_public_key(peer.get(), point.data(), point.size()) == 1,
           "taking the peer's point directly");
    const KeyContext context = contextFor(key);
    Bytes secret(66);
    std::size_t length = secret.size();
    expect(EVP_PKEY_derive_init(context.get()) == 1 && EVP_PKEY_derive_set_peer(context.get(), peer.get()) == 1 &&
               EVP_PKEY_derive(context.get(), secret.data(), &length) == 1,
           "deriving directly");
    secret.resize(length);
    return secret;
}

void* librarySymbol(const char* name) {
    void* const library = dlopen((support::moduleFile().parent_path() / "libZentakDSCLibrary.so").c_str(), RTLD_NOW);
    void* const symbol = library == nullptr ? nullptr : dlsym(library, name);
    if (symbol == nullptr) throw std::runtime_error(dlerror());
    return symbol;
}

/// The device library's operations, found in its file so that this program starts without it.
#define BOUNDARY(operation) reinterpret_cast<decltype(&(operation))>(librarySymbol(#operation))

Bytes taken(unsigned char* allocated, int length) {
    Bytes bytes(allocated, allocated + length);
    std::free(allocated);
    return bytes;
}

}  // namespace

Subject::Subject(const Keys& keys, const TokenStore& tokenStore, std::size_t count)
    : store(tokenStore),
      rsaNumber(count % 2 == 0 ? count - 1 : count),
      ecNumber(count % 2 == 0 ? count : count - 1),
      ecOnToken(keys.at(ecNumber - 1)),
      rsa(loaded(keys.at(rsaNumber - 1))),
      ec(loaded(keys.at(ecNumber - 1))),
      hash(hashLength, 0x5A) {
    rsaInput.resize(sha256Prefix.size() + hash.size());
    std::copy(hash.begin(), hash.end(), std::copy(sha256Prefix.begin(), sha256Prefix.end(), rsaInput.begin()));
    softtoken::PrivateKey rsaOnToken(keys.at(rsaNumber - 1));
    softtoken::PrivateKey ecKey(ecOnToken);
    rsaSignature = softtoken::signHash(rsaOnToken, hash, false);
    ecSignature = softtoken::signHash(ecKey, hash, false);
    ecSignatureDer = signDirectly(ec, hash);
    ciphertext = softtoken::encryptRsa(keys.at(rsaNumber - 1).get(), hash, softtoken::Padding::pkcs1);
    ciphertextOaep = softtoken::encryptRsa(keys.at(rsaNumber - 1).get(), hash, softtoken::Padding::oaepSha1);
    peerPoint = softtoken::publicKeyBytes(softtoken::generateKey(*softtoken::keyTypeOfCode(5)).get());
}

Work openSslWork(const Subject& subject) {
    return {
        [&] { return signDirectly(subject.rsa, subject.hash); },
        [&] { return verifyDirectly(subject.rsa, subject.hash, subject.rsaSignature); },
        [&] { return decryptDirectly(subject.rsa, subject.ciphertext, RSA_PKCS1_PADDING); },
        [&] { return decryptDirectly(subject.rsa, subject.ciphertextOaep, RSA_PKCS1_OAEP_PADDING); },
        [&] { return signDirectly(subject.ec, subject.hash); },
        [&] { return verifyDirectly(subject.ec, subject.hash, subject.ecSignatureDer); },
        [&] { return deriveDirectly(subject.ec, subject.peerPoint); },
    };
}

Work moduleWork(const Subject& subject, const UserSession& userSession) {
    const CK_SESSION_HANDLE session = userSession.handle();
    const CK_OBJECT_HANDLE rsa = zentak::privateKeyBase + subject.rsaNumber;
    const CK_OBJECT_HANDLE ec = zentak::privateKeyBase + subject.ecNumber;
    const auto pointer = [](const Bytes& bytes) { return const_cast<CK_BYTE_PTR>(bytes.data()); };
    const auto sign = [=](CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Bytes& input) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        Bytes signature(512);
        CK_ULONG length = signature.size();
        require(cryptoki().C_SignInit(session, &mechanism, key), "C_SignInit");
        require(cryptoki().C_Sign(session, pointer(input), input.size(), signature.data(), &length), "C_Sign");
        signature.resize(length);
        return signature;
    };
    const auto verify = [=](CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Bytes& input, const Bytes& signature) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        require(cryptoki().C_VerifyInit(session, &mechanism, key), "C_VerifyInit");
        require(cryptoki().C_Verify(session, pointer(input), input.size(), pointer(signature), signature.size()),
                "C_Verify");
        return Bytes{1};
    };
    const auto decrypt = [=](CK_MECHANISM_TYPE type, const Bytes& ciphertext) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        Bytes plaintext(512);
        CK_ULONG length = plaintext.size();
        require(cryptoki().C_DecryptInit(session, &mechanism, rsa), "C_DecryptInit");
        require(cryptoki().C_Decrypt(session, pointer(ciphertext), ciphertext.size(), plaintext.data(), &length),
                "C_Decrypt");
        plaintext.resize(length);
        return plaintext;
    };
    const auto derive = [=](const Bytes& point) {
        CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, point.size(), pointer(point)};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
        CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
        require(cryptoki().C_DeriveKey(session, &mechanism, ec, nullptr, 0, &secret), "C_DeriveKey");
        const auto* const bytes = reinterpret_cast<const unsigned char*>(&secret);
        return Bytes(bytes, bytes + sizeof secret);
    };
    return {
        [=, &subject] { return sign(CKM_RSA_PKCS, rsa, subject.rsaInput); },
        [=, &subject] { return verify(CKM_RSA_PKCS, rsa, subject.rsaInput, subject.rsaSignature); },
        [=, &subject] { return decrypt(CKM_RSA_PKCS, subject.ciphertext); },
        [=, &subject] { return decrypt(CKM_RSA_PKCS_OAEP, subject.ciphertextOaep); },
        [=, &subject] { return sign(CKM_ECDSA, ec, subject.hash); },
        [=, &subject] { return verify(CKM_ECDSA, ec, subject.hash, subject.ecSignature); },
        [=, &subject] { return derive(subject.peerPoint); },
    };
}

Work boundaryWork(const Subject& subject) {
    static const auto signHash = BOUNDARY(zentak_signHash);
    static const auto verifyHash = BOUNDARY(zentak_verifySignatureHash);
    static const auto decrypt = BOUNDARY(zentak_decrypt);
    static const auto derive = BOUNDARY(zentak_ecdhDerive);
    void* instance = nullptr;
    BOUNDARY(zentak_createInstance)(&instance);
    const char* const device = subject.store.serialNumber.c_str();
    const std::vector<ZentakKeyPair> pairs = BOUNDARY(zentak_getKeyPairList)(device, instance);
    const ZentakKeyPair rsa = pairs.at(subject.rsaNumber - 1);
    const ZentakKeyPair ec = pairs.at(subject.ecNumber - 1);
    unsigned char* encoded = nullptr;
    const int encodedLength = i2d_PUBKEY(subject.rsa.get(), &encoded);
    const Bytes rsaPublicKey(encoded, encoded + encodedLength);
    OPENSSL_free(encoded);

    const auto sign = [=](const ZentakKeyPair& pair, const Bytes& input) {
        Bytes signature(1024);
        int length = 1024;
        expect(signHash(device, pair.keyId, userPin, input.data(), static_cast<int>(input.size()), signature.data(),
                        &length, false, instance, false) == 0,
               "signing at the boundary");
        signature.resize(static_cast<std::size_t>(length));
        return signature;
    };
    const auto verify = [=](const ZentakKeyPair& pair, const Bytes& input, ByteView publicKey, const Bytes& signature) {
        expect(verifyHash(static_cast<unsigned int>(pair.keyType), device, input.data(), static_cast<int>(input.size()),
                          publicKey.data(), static_cast<int>(publicKey.size()), signature.data(),
                          static_cast<int>(signature.size()), instance, false) == 0,
               "verifying at the boundary");
        return Bytes{1};
    };
    const auto decipher = [=](const Bytes& ciphertext) {
        unsigned char* plaintext = nullptr;
        int length = 0;
        expect(decrypt(device, rsa.keyId, userPin, ciphertext.data(), static_cast<int>(ciphertext.size()), &plaintext,
                       &length, rsa.keyFlag, instance) == 0,
               "decrypting at the boundary");
        return taken(plaintext, length);
    };
    const auto agree = [=](const Bytes& point) {
        unsigned char* secret = nullptr;
        int length = 0;
        expect(derive(device, ec.keyId, userPin, point.data(), static_cast<int>(point.size()), &secret, &length,
                      instance) == 0,
               "deriving at the boundary");
        return taken(secret, length);
    };
    return {
        [=, &subject] { return sign(rsa, subject.rsaInput); },
        [=, &subject] { return verify(rsa, subject.hash, rsaPublicKey, subject.rsaSignature); },
        [=, &subject] { return decipher(subject.ciphertext); },
        [=, &subject] { return decipher(subject.ciphertextOaep); },
        [=, &subject] { return sign(ec, subject.hash); },
        [=, &subject] {
            return verify(ec, subject.hash, {ec.publicKey, 65}, subject.ecSignature);
        },
        [=, &subject] { return agree(subject.peerPoint); },
    };
}

void requireSameResults(const Subject& subject, const Work& direct, const Work& module, const Work& boundary,
                        const UserSession& session) {
    expect(module.rsaSign() == direct.rsaSign() && boundary.rsaSign() == direct.rsaSign(), "the same RSA signature");
    expect(module.rsaDecrypt() == subject.hash && boundary.rsaDecrypt() == subject.hash, "decryption");
    expect(module.rsaDecryptOaep() == subject.hash && boundary.rsaDecryptOaep() == subject.hash, "decryption (OAEP)");
    for (const Work* work : {&module, &boundary}) {
        expect(softtoken::verifyHash(subject.ecOnToken.get(), subject.hash, work->ecSign(), false),
               "the ECDSA signature");
    }
    const Bytes handle = module.derive();
    Bytes secret(32);
    CK_ATTRIBUTE wanted = {CKA_VALUE, secret.data(), secret.size()};
    require(cryptoki().C_GetAttributeValue(session.handle(), *reinterpret_cast<const CK_OBJECT_HANDLE*>(handle.data()),
                                           &wanted, 1),
            "C_GetAttributeValue");
    expect(secret == direct.derive() && secret == boundary.derive(), "the same shared secret");
    for (const Work* work : {&direct, &module, &boundary}) {
        work->rsaVerify();
        work->ecVerify();
    }
}

}  // namespace bench

#include "keys/key_operations.h"

#include <algorithm>
#include <initializer_list>
#include <openssl/rsa.h>

#include "keys/rsa_padding.h"
#include "platform/errors.h"

namespace softtoken {

namespace {

const EVP_MD* md5() {
    static const EVP_MD* const digest = EVP_MD_fetch(cryptoContext(), "MD5", nullptr);
    return digest;
}

bool isRsa(const EVP_PKEY* key) {
    return EVP_PKEY_is_a(key, "RSA") == 1;
}

std::size_t fieldLengthOf(const EVP_PKEY* key) {
    return (static_cast<std::size_t>(EVP_PKEY_get_bits(key)) + 7) / 8;
}

KeyContext contextFor(EVP_PKEY* key) {
    KeyContext context(EVP_PKEY_CTX_new_from_pkey(cryptoContext(), key, nullptr));
    requireCrypto(context != nullptr, "setting up an operation");
    return context;
}

void setPss(EVP_PKEY_CTX* context, const EVP_MD* digest, int saltLength) {
    requireCrypto(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
                      EVP_PKEY_CTX_set_signature_md(context, digest) == 1 &&
                      EVP_PKEY_CTX_set_rsa_mgf1_md(context, digest) == 1 &&
                      EVP_PKEY_CTX_set_rsa_pss_saltlen(context, saltLength) == 1,
                  "setting up PSS");
}

/// With a digest OpenSSL puts the hash into the digest's DigestInfo; without one it pads the bytes as they are.
bool setPkcs1(EVP_PKEY_CTX* context, const EVP_MD* digest) {
    return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1 &&
           (digest == nullptr || EVP_PKEY_CTX_set_signature_md(context, digest) == 1);
}

Bytes signRsa(EVP_PKEY* key, ByteView hash, bool pss) {
    const auto modulusLength = static_cast<std::size_t>(EVP_PKEY_get_size(key));
    const EVP_MD* const digest = digestOfLength(hash.size());
    // Every DigestInfo fits into the shortest modulus.
    if (digest == nullptr && (pss || hash.size() + 11 > modulusLength)) {
        throw Failure(Error::dataLength, "data of this length can't be signed");
    }
    const KeyContext context = contextFor(key);
    requireCrypto(EVP_PKEY_sign_init(context.get()) == 1, "signing");
    if (pss) {
        setPss(context.get(), digest, RSA_PSS_SALTLEN_DIGEST);
    } else {
        requireCrypto(setPkcs1(context.get(), digest), "setting up v1.5");
    }
    Bytes signature(modulusLength);
    std::size_t length = signature.size();
    requireCrypto(EVP_PKEY_sign(context.get(), signature.data(), &length, hash.data(), hash.size()) == 1, "signing");
    signature.resize(length);
    return signature;
}

KeyContext ecdsaContextFor(EVP_PKEY* key) {
    KeyContext context = contextFor(key);
    requireCrypto(EVP_PKEY_sign_init(context.get()) == 1, "signing");
    return context;
}

/// The signature in DER. One that failed leaves its context in no known state.
Bytes signEcdsaInDer(PrivateKey& key, ByteView hash) {
    const std::unique_lock turn(key.preparedMutex, std::try_to_lock);
    KeyContext context = turn.owns_lock() && key.prepared ? std::move(key.prepared) : ecdsaContextFor(key.key.get());
    Bytes der(static_cast<std::size_t>(EVP_PKEY_get_size(key.key.get())));
    std::size_t length = der.size();
    requireCrypto(EVP_PKEY_sign(context.get(), der.data(), &length, hash.data(), hash.size()) == 1, "signing");
    der.resize(length);
    if (turn.owns_lock()) {
        key.prepared = std::move(context);
    }
    return der;
}

Bytes signEcdsa(PrivateKey& key, ByteView hash) {
    const Bytes der = signEcdsaInDer(key, hash);
    const unsigned char* position = der.data();
    const EcdsaSignature parsed(d2i_ECDSA_SIG(nullptr, &position, static_cast<long>(der.size())));
    requireCrypto(parsed != nullptr, "reading a signature");
    const std::size_t half = fieldLengthOf(key.key.get());
    Bytes signature(2 * half);
    const int halfLength = static_cast<int>(half);
    requireCrypto(BN_bn2binpad(ECDSA_SIG_get0_r(parsed.get()), signature.data(), halfLength) == halfLength &&
                      BN_bn2binpad(ECDSA_SIG_get0_s(parsed.get()), signature.data() + half, halfLength) == halfLength,
                  "writing a signature");
    return signature;
}

bool verifyRsaPkcs1With(const EVP_MD* digest, EVP_PKEY* key, ByteView hash, ByteView signature) {
    const KeyContext context = contextFor(key);
    return EVP_PKEY_verify_init(context.get()) == 1 && setPkcs1(context.get(), digest) &&
           EVP_PKEY_verify(context.get(), signature.data(), signature.size(), hash.data(), hash.size()) == 1;
}

bool verifyRsaPkcs1(EVP_PKEY* key, ByteView hash, ByteView signature) {
    // Only for verifying: nothing here signs with MD5.
    constexpr std::size_t md5Length = 16;
    return verifyRsaPkcs1With(digestOfLength(hash.size()), key, hash, signature) ||
           (hash.size() == md5Length && verifyRsaPkcs1With(md5(), key, hash, signature));
}

bool verifyRsaPss(EVP_PKEY* key, ByteView hash, ByteView signature) {
    const EVP_MD* const digest = digestOfLength(hash.size());
    if (digest == nullptr) {
        return false;
    }
    const KeyContext context = contextFor(key);
    requireCrypto(EVP_PKEY_verify_init(context.get()) == 1, "verifying");
    setPss(context.get(), digest, RSA_PSS_SALTLEN_AUTO);
    return EVP_PKEY_verify(context.get(), signature.data(), signature.size(), hash.data(), hash.size()) == 1;
}

bool verifyEcdsa(EVP_PKEY* key, ByteView hash, ByteView signature) {
    const std::size_t half = fieldLengthOf(key);
    if (signature.size() != 2 * half) {
        return false;
    }
    const EcdsaSignature parsed(ECDSA_SIG_new());
    BigNumber r(BN_bin2bn(signature.data(), static_cast<int>(half), nullptr));
    BigNumber s(BN_bin2bn(signature.data() + half, static_cast<int>(half), nullptr));
    requireCrypto(parsed && r && s, "reading a signature");
    requireCrypto(ECDSA_SIG_set0(parsed.get(), r.release(), s.release()) == 1, "reading a signature");
    Bytes der(static_cast<std::size_t>(i2d_ECDSA_SIG(parsed.get(), nullptr)));
    unsigned char* position = der.data();
    i2d_ECDSA_SIG(parsed.get(), &position);
    const KeyContext context = contextFor(key);
    return EVP_PKEY_verify_init(context.get()) == 1 &&
           EVP_PKEY_verify(context.get(), der.data(), der.size(), hash.data(), hash.size()) == 1;
}

/// The point inside a DER OCTET STRING of fitting length, or the bytes as they are.
ByteView unwrapPoint(ByteView peer, const KeyType& type) {
    for (const std::size_t pointLength : {1 + 2 * type.fieldLength, 1 + type.fieldLength}) {
        const std::size_t header = pointLength < 0x80 ? 2 : 3;
        const bool wrapped = peer.size() == header + pointLength && peer[0] == 0x04 &&
                             peer[header - 1] == pointLength && (header == 2 || peer[1] == 0x81);
        if (wrapped) {
            return peer.subspan(header);
        }
    }
    return peer;
}

}  // namespace

Bytes signHash(PrivateKey& key, ByteView hash, bool pss) {
    if (hash.empty()) {
        throw Failure(Error::dataLength, "there is nothing to sign");
    }
    if (isRsa(key.key.get())) {
        return signRsa(key.key.get(), hash, pss);
    }
    if (pss) {
        throw Failure(Error::keyTypeMismatch, "PSS needs an RSA key");
    }
    return signEcdsa(key, hash);
}

bool verifyHash(EVP_PKEY* key, ByteView hash, ByteView signature, bool pss) {
    if (hash.empty() || signature.empty()) {
        return false;
    }
    if (isRsa(key)) {
        return pss ? verifyRsaPss(key, hash, signature) : verifyRsaPkcs1(key, hash, signature);
    }
    return EVP_PKEY_is_a(key, "EC") == 1 && !pss && verifyEcdsa(key, hash, signature);
}

Bytes encryptRsa(EVP_PKEY* key, ByteView data, Padding padding) {
    if (!isRsa(key)) {
        throw Failure(Error::keyTypeMismatch, "encryption needs an RSA key");
    }
    const auto modulusLength = static_cast<std::size_t>(EVP_PKEY_get_size(key));
    const std::size_t overhead = padding == Padding::pkcs1 ? 11 : 42;
    if (data.size() + overhead > modulusLength) {
        throw Failure(Error::dataLength, "the data is too long to encrypt");
    }
    const KeyContext context = contextFor(key);
    requireCrypto(EVP_PKEY_encrypt_init(context.get()) == 1, "encrypting");
    if (padding == Padding::pkcs1) {
        requireCrypto(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1, "setting up v1.5");
    } else {
        requireCrypto(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) == 1 &&
                          EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), digestOfLength(20)) == 1 &&
                          EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), digestOfLength(20)) == 1,
                      "setting up OAEP");
    }
    Bytes output(modulusLength);
    std::size_t length = output.size();
    requireCrypto(EVP_PKEY_encrypt(context.get(), output.data(), &length, data.data(), data.size()) == 1, "encrypting");
    output.resize(length);
    return output;
}

SecretBytes decryptRsa(EVP_PKEY* key, ByteView data) {
    if (!isRsa(key)) {
        throw Failure(Error::keyTypeMismatch, "decryption needs an RSA key");
    }
    if (data.size() != static_cast<std::size_t>(EVP_PKEY_get_size(key))) {
        throw Failure(Error::dataLength, "the data isn't as long as the key's modulus");
    }
    const KeyContext context = contextFor(key);
    SecretBytes padded(data.size());
    std::size_t length = padded.size();
    requireCrypto(EVP_PKEY_decrypt_init(context.get()) == 1 &&
                      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) == 1 &&
                      EVP_PKEY_decrypt(context.get(), padded.data(), &length, data.data(), data.size()) == 1,
                  "decrypting");
    auto plaintext = removePadding(padded);
    requireCrypto(plaintext.has_value(), "decrypting");
    return *std::move(plaintext);
}

SecretBytes deriveEcdh(EVP_PKEY* key, ByteView peer) {
    const KeyType* const type = keyTypeOf(key);
    if (type == nullptr || type->curve == nullptr) {
        throw Failure(Error::keyTypeMismatch, "key agreement needs an EC key");
    }
    const Key peerKey = publicKeyFromPoint(*type, unwrapPoint(peer, *type));
    if (!peerKey) {
        throw Failure(Error::invalidArgument, "the peer's public key is no point of the curve");
    }
    const KeyContext context = contextFor(key);
    SecretBytes secret(type->fieldLength);
    std::size_t length = secret.size();
    // The peer isn't validated again, which would cost a multiplication of its own: a point other than infinity that
    // is on one of these curves, whose cofactor is 1, is a valid public key.
    requireCrypto(EVP_PKEY_derive_init(context.get()) == 1 &&
                      EVP_PKEY_derive_set_peer_ex(context.get(), peerKey.get(), 0) == 1 &&
                      EVP_PKEY_derive(context.get(), secret.data(), &length) == 1,
                  "key agreement");
    secret.resize(length);
    return secret;
}

}  // namespace softtoken

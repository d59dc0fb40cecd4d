#include "keys/keys.h"

#include <algorithm>
#include <openssl/core_names.h>
#include <openssl/pem.h>
#include <string_view>

#include "keys/key_numbers.h"
#include "platform/errors.h"

namespace softtoken {

namespace {

constexpr std::array<KeyType, 7> keyTypes = {{
    {1, 1024, nullptr, 0},
    {2, 2048, nullptr, 0},
    {3, 3072, nullptr, 0},
    {4, 4096, nullptr, 0},
    {5, 0, "P-256", 32},
    {6, 0, "P-384", 48},
    {7, 0, "P-521", 66},
}};

[[noreturn]] void noRsaKey() {
    throw Failure(Error::unsupportedKey, "the numbers are no RSA key with the public exponent 65537");
}

BigNumber parameterOf(const EVP_PKEY* key, const char* name) {
    BIGNUM* number = nullptr;
    EVP_PKEY_get_bn_param(key, name, &number);
    return BigNumber(number);
}

bool isCurve(const EVP_PKEY* key, const KeyType& type) {
    std::array<char, 80> name{};
    if (EVP_PKEY_get_group_name(key, name.data(), name.size(), nullptr) != 1) {
        return false;
    }
    return OBJ_txt2nid(name.data()) == EC_curve_nist2nid(type.curve);
}

}  // namespace

const KeyType* keyTypeOfCode(int code) {
    for (const KeyType& type : keyTypes) {
        if (type.code == code) {
            return &type;
        }
    }
    return nullptr;
}

const KeyType* keyTypeOf(const EVP_PKEY* key) {
    const bool rsa = EVP_PKEY_is_a(key, "RSA") == 1;
    if (rsa) {
        const BigNumber exponent = parameterOf(key, OSSL_PKEY_PARAM_RSA_E);
        if (!exponent || BN_is_word(exponent.get(), publicExponent) != 1) {
            return nullptr;
        }
    } else if (EVP_PKEY_is_a(key, "EC") != 1) {
        return nullptr;
    }
    for (const KeyType& type : keyTypes) {
        if (rsa ? type.rsaBits == EVP_PKEY_get_bits(key) : type.curve != nullptr && isCurve(key, type)) {
            return &type;
        }
    }
    return nullptr;
}

Key generateKey(const KeyType& type) {
    const bool elliptic = type.curve != nullptr;
    if (!elliptic && type.rsaBits < 2048) {
        throw Failure(Error::unsupportedKey, "RSA keys of this size are not generated");
    }
    const KeyContext context(
        EVP_PKEY_CTX_new_from_name(cryptoContext(), elliptic ? ecAlgorithm : rsaAlgorithm, nullptr));
    EVP_PKEY* key = nullptr;
    requireCrypto(context && EVP_PKEY_keygen_init(context.get()) == 1 &&
                      (elliptic ? EVP_PKEY_CTX_set_group_name(context.get(), type.curve)
                                : EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), type.rsaBits)) == 1 &&
                      EVP_PKEY_generate(context.get(), &key) == 1,
                  "generating a key pair");
    return ownKey(key);
}

Key composeRsaKey(ByteView modulus, ByteView privateExponent, ByteView prime1) {
    constexpr std::size_t largest = 1024;
    if (modulus.empty() || modulus.size() > largest || privateExponent.size() > largest || prime1.size() > largest) {
        noRsaKey();
    }
    const BigNumberContext context(BN_CTX_secure_new_ex(cryptoContext()));
    requireCrypto(context != nullptr, "memory for numbers");
    const BigNumber n = numberFrom(modulus);
    const BigNumber d = numberFrom(privateExponent);
    const BigNumber p = numberFrom(prime1);
    const BigNumber e = newNumber();
    const BigNumber one = newNumber();
    const BigNumber q = newNumber();
    const BigNumber remainder = newNumber();
    const BigNumber pLess1 = newNumber();
    const BigNumber qLess1 = newNumber();
    const BigNumber exponent1 = newNumber();
    const BigNumber exponent2 = newNumber();
    const BigNumber product = newNumber();
    requireCrypto(BN_set_word(e.get(), publicExponent) == 1 && BN_one(one.get()) == 1, "setting a number");
    if (BN_num_bits(p.get()) < 2 || BN_div(q.get(), remainder.get(), n.get(), p.get(), context.get()) != 1 ||
        BN_is_zero(remainder.get()) != 1 || BN_num_bits(q.get()) < 2 || BN_cmp(p.get(), q.get()) == 0 ||
        BN_check_prime(p.get(), context.get(), nullptr) != 1 || BN_check_prime(q.get(), context.get(), nullptr) != 1) {
        noRsaKey();
    }
    requireCrypto(BN_sub(pLess1.get(), p.get(), one.get()) == 1 && BN_sub(qLess1.get(), q.get(), one.get()) == 1 &&
                      BN_nnmod(exponent1.get(), d.get(), pLess1.get(), context.get()) == 1 &&
                      BN_nnmod(exponent2.get(), d.get(), qLess1.get(), context.get()) == 1,
                  "computing with the key's numbers");
    // d belongs to e when their product is 1 modulo both p - 1 and q - 1, however d was chosen among the possible ones.
    for (const auto& [exponent, order] : {std::pair{exponent1.get(), pLess1.get()}, {exponent2.get(), qLess1.get()}}) {
        if (BN_mod_mul(product.get(), exponent, e.get(), order, context.get()) != 1 || BN_is_one(product.get()) != 1) {
            noRsaKey();
        }
    }
    const BigNumber coefficient(BN_mod_inverse(nullptr, q.get(), p.get(), context.get()));
    requireCrypto(coefficient != nullptr, "computing with the key's numbers");
    Key key = rsaPrivateKey(
        {n.get(), e.get(), d.get(), p.get(), q.get(), exponent1.get(), exponent2.get(), coefficient.get()});
    if (!key) {
        noRsaKey();
    }
    return key;
}

SecretBytes encodePrivateKey(const EVP_PKEY* key) {
    const std::unique_ptr<PKCS8_PRIV_KEY_INFO, Releaser<&PKCS8_PRIV_KEY_INFO_free>> info(EVP_PKEY2PKCS8(key));
    const int length = info ? i2d_PKCS8_PRIV_KEY_INFO(info.get(), nullptr) : 0;
    requireCrypto(length > 0, "encoding a private key");
    SecretBytes der(static_cast<std::size_t>(length));
    unsigned char* position = der.data();
    requireCrypto(i2d_PKCS8_PRIV_KEY_INFO(info.get(), &position) == length, "encoding a private key");
    return der;
}

Bytes publicKeyBytes(const EVP_PKEY* key) {
    if (EVP_PKEY_is_a(key, "RSA") == 1) {
        const BigNumber modulus = parameterOf(key, OSSL_PKEY_PARAM_RSA_N);
        if (!modulus) {
            return {};
        }
        Bytes bytes(static_cast<std::size_t>(BN_num_bytes(modulus.get())));
        BN_bn2bin(modulus.get(), bytes.data());
        return bytes;
    }
    if (EVP_PKEY_is_a(key, "EC") == 1) {
        // From the coordinates, because the encoded point of a certificate may be compressed.
        const BigNumber x = parameterOf(key, OSSL_PKEY_PARAM_EC_PUB_X);
        const BigNumber y = parameterOf(key, OSSL_PKEY_PARAM_EC_PUB_Y);
        const int length = (EVP_PKEY_get_bits(key) + 7) / 8;
        Bytes point(1 + 2 * static_cast<std::size_t>(length));
        point[0] = 0x04;
        if (!x || !y || BN_bn2binpad(x.get(), point.data() + 1, length) != length ||
            BN_bn2binpad(y.get(), point.data() + 1 + length, length) != length) {
            return {};
        }
        return point;
    }
    return {};
}

}  // namespace softtoken

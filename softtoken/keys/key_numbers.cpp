#include "keys/key_numbers.h"

#include <initializer_list>
#include <openssl/core_names.h>
#include <utility>

namespace softtoken {

namespace {

using NamedNumbers = std::initializer_list<std::pair<const char*, const BIGNUM*>>;

ParameterBuilder builderWith(NamedNumbers numbers) {
    ParameterBuilder builder(OSSL_PARAM_BLD_new());
    requireCrypto(builder != nullptr, "composing a key");
    for (const auto& [name, number] : numbers) {
        requireCrypto(OSSL_PARAM_BLD_push_BN(builder.get(), name, number) == 1, "composing a key");
    }
    return builder;
}

Key keyFromParameters(const char* algorithm, int selection, OSSL_PARAM_BLD* builder) {
    const Parameters parameters(OSSL_PARAM_BLD_to_param(builder));
    const KeyContext context(EVP_PKEY_CTX_new_from_name(cryptoContext(), algorithm, nullptr));
    requireCrypto(parameters && context && EVP_PKEY_fromdata_init(context.get()) == 1, "composing a key");
    EVP_PKEY* key = nullptr;
    if (EVP_PKEY_fromdata(context.get(), &key, selection, parameters.get()) != 1) {
        return nullptr;
    }
    return ownKey(key);
}

Key ecKey(int selection, const char* curve, ByteView point, NamedNumbers numbers) {
    const ParameterBuilder builder = builderWith(numbers);
    requireCrypto(
        OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve, 0) == 1 &&
            OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()) == 1,
        "composing a key");
    return keyFromParameters(ecAlgorithm, selection, builder.get());
}

}  // namespace

BigNumber newNumber() {
    BigNumber number(BN_secure_new());
    requireCrypto(number != nullptr, "memory for a number");
    return number;
}

BigNumber numberFrom(ByteView bytes) {
    BigNumber number = newNumber();
    requireCrypto(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), number.get()) != nullptr, "reading a number");
    BN_set_flags(number.get(), BN_FLG_CONSTTIME);
    return number;
}

Key rsaPrivateKey(const RsaNumbers& numbers) {
    const ParameterBuilder builder = builderWith({
        {OSSL_PKEY_PARAM_RSA_N, numbers.modulus},
        {OSSL_PKEY_PARAM_RSA_E, numbers.publicExponent},
        {OSSL_PKEY_PARAM_RSA_D, numbers.privateExponent},
        {OSSL_PKEY_PARAM_RSA_FACTOR1, numbers.prime1},
        {OSSL_PKEY_PARAM_RSA_FACTOR2, numbers.prime2},
        {OSSL_PKEY_PARAM_RSA_EXPONENT1, numbers.exponent1},
        {OSSL_PKEY_PARAM_RSA_EXPONENT2, numbers.exponent2},
        {OSSL_PKEY_PARAM_RSA_COEFFICIENT1, numbers.coefficient},
    });
    return keyFromParameters(rsaAlgorithm, EVP_PKEY_KEYPAIR, builder.get());
}

Key rsaPublicKey(const BIGNUM* modulus, const BIGNUM* exponent) {
    const ParameterBuilder builder = builderWith({{OSSL_PKEY_PARAM_RSA_N, modulus}, {OSSL_PKEY_PARAM_RSA_E, exponent}});
    return keyFromParameters(rsaAlgorithm, EVP_PKEY_PUBLIC_KEY, builder.get());
}

Key ecPublicKey(const char* curve, ByteView point) {
    return ecKey(EVP_PKEY_PUBLIC_KEY, curve, point, {});
}

Key ecPrivateKey(const char* curve, ByteView point, const BIGNUM* privateNumber) {
    return ecKey(EVP_PKEY_KEYPAIR, curve, point, {{OSSL_PKEY_PARAM_PRIV_KEY, privateNumber}});
}

}  // namespace softtoken

#include "openssl_rsa.h"

#include <gtest/gtest.h>
#include <openssl/rsa.h>

namespace softtoken {

Bytes opensslCrypts(const Key& key, ByteView data, bool encrypting, int padding, const OaepKind* kind,
                    std::string_view label) {
    const KeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr));
    EXPECT_EQ(encrypting ? EVP_PKEY_encrypt_init(context.get()) : EVP_PKEY_decrypt_init(context.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(context.get(), padding), 1);
    if (kind != nullptr) {
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_oaep_md_name(context.get(), kind->hash, nullptr), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_mgf1_md_name(context.get(), kind->maskHash, nullptr), 1);
    }
    if (!label.empty()) {
        auto* const copy = static_cast<char*>(OPENSSL_memdup(label.data(), label.size()));
        EXPECT_EQ(EVP_PKEY_CTX_set0_rsa_oaep_label(context.get(), copy, static_cast<int>(label.size())), 1);
    }
    Bytes output(static_cast<std::size_t>(EVP_PKEY_get_size(key.get())));
    std::size_t length = output.size();
    EXPECT_EQ((encrypting ? EVP_PKEY_encrypt : EVP_PKEY_decrypt)(context.get(), output.data(), &length, data.data(),
                                                                 data.size()),
              1);
    output.resize(length);
    return output;
}

}  // namespace softtoken

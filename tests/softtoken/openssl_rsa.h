/// RSA by OpenSSL directly, to hold the library's operations against.

#ifndef ZENTAK_TESTS_SOFTTOKEN_OPENSSL_RSA_H
#define ZENTAK_TESTS_SOFTTOKEN_OPENSSL_RSA_H

#include <string_view>

#include "platform/openssl_support.h"

namespace softtoken {

/// The hashes of OAEP and of its masks, by their OpenSSL names.
struct OaepKind {
    const char* hash;
    const char* maskHash;
    std::size_t hashLength;
};

/// One operation with the public or private half of a key.
Bytes opensslCrypts(const Key& key, ByteView data, bool encrypting, int padding, const OaepKind* kind = nullptr,
                    std::string_view label = {});

}  // namespace softtoken

#endif

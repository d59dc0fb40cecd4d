/// The operations that the benchmark of the software token compares, each in three ways: by OpenSSL directly, through
/// the module, and at the boundary of the device library.

#ifndef ZENTAK_BENCH_CRYPTO_WORK_H
#define ZENTAK_BENCH_CRYPTO_WORK_H

#include <functional>

#include "module_client.h"
#include "token_stores.h"

namespace bench {

using softtoken::Bytes;

/// Keys and inputs.
struct Subject {
    /// Takes the last RSA key and the last P-256 key of the store.
    Subject(const Keys& keys, const TokenStore& tokenStore, std::size_t count);

    const TokenStore& store;
    std::size_t rsaNumber;  ///< of the key pair on the token
    std::size_t ecNumber;
    softtoken::Key ecOnToken;
    softtoken::Key rsa;  ///< loaded anew, in OpenSSL's default library context
    softtoken::Key ec;
    Bytes hash;
    Bytes rsaInput;      ///< the hash in its DigestInfo
    Bytes rsaSignature;  ///< v1.5, over rsaInput
    Bytes ecSignature;   ///< over the hash, r and s
    Bytes ecSignatureDer;
    Bytes ciphertext;  ///< v1.5
    Bytes ciphertextOaep;
    Bytes peerPoint;  ///< uncompressed
};

/// Each function answers its result, a verification a byte 1, and throws when it fails.
struct Work {
    std::function<Bytes()> rsaSign;
    std::function<Bytes()> rsaVerify;
    std::function<Bytes()> rsaDecrypt;
    std::function<Bytes()> rsaDecryptOaep;
    std::function<Bytes()> ecSign;
    std::function<Bytes()> ecVerify;
    std::function<Bytes()> derive;
};

// The subject and the session outlive the work.
Work openSslWork(const Subject& subject);
Work moduleWork(const Subject& subject, const UserSession& session);
Work boundaryWork(const Subject& subject);

/// Throws unless all three ways come to the same.
void requireSameResults(const Subject& subject, const Work& direct, const Work& module, const Work& boundary,
                        const UserSession& session);

}  // namespace bench

#endif

/// Operations in three ways: by OpenSSL directly with a loaded key, through the module, and at the boundary of the
/// device library.

#ifndef ZENTAK_BENCH_CRYPTO_WORK_H
#define ZENTAK_BENCH_CRYPTO_WORK_H

#include "token_stores.h"

namespace bench {

/// Each way answers its result, a verification a byte 1, and throws when it fails.
struct CryptoWork {
    const char* name;
    std::function<Bytes()> direct;
    std::function<Bytes(const Subjects& subjects)> module;
    std::function<Bytes()> boundary;
};

/// On the last RSA key and the last P-256 key of the software token of that size, which `subjects` are of. Throws
/// unless all ways come to the same.
std::vector<CryptoWork> cryptoWork(const TokenSize& size, const Subjects& subjects);

}  // namespace bench

#endif

/// What the benchmarks of the software token work on: stores with one token and many key pairs.

#ifndef ZENTAK_BENCH_TOKEN_STORES_H
#define ZENTAK_BENCH_TOKEN_STORES_H

#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "keys/keys.h"
#include "measurables.h"

namespace bench {

/// The keys of a token, in their order on it: RSA-2048 and P-256 by turns, the first one RSA. A key pair's number is
/// its place, from 1; its CKA_ID is that number as text, and its label "key " with that number.
using Keys = std::vector<softtoken::Key>;

/// Keys are kept in a file beside the program: to make 250 RSA keys takes a minute.
Keys makeKeys(std::size_t count);

/// A certificate for each key, in DER.
std::vector<softtoken::Bytes> makeCertificates(const Keys& keys);

/// Makes a store in a folder, with one token that holds the first `count` of the keys, and the certificates under the
/// CKA_ID and label of their keys. A PIN's key derivation costs next to nothing.
void makeStore(const std::filesystem::path& folder, const Keys& keys, std::size_t count,
               std::span<const softtoken::Bytes> certificates);

/// The keys of all tokens that `plugInSoftwareToken` makes.
const Keys& allKeys();

/// Makes a token of that size in the program's run folder the one of modules that are initialised from now on. Each is
/// made once, but for the one that is filled.
void plugInSoftwareToken(const TokenSize& size);

/// The file of the token that is plugged in, in bytes.
std::size_t tokenFileSize();

}  // namespace bench

#endif

/// A token of another PKCS #11 module with the same keys and certificates as ours, made through its function list.

#ifndef ZENTAK_BENCH_PEER_TOKEN_H
#define ZENTAK_BENCH_PEER_TOKEN_H

#include <filesystem>

namespace bench {

/// Makes a token in the first slot of the module of `cryptoki`, with the usual PIN, and stores the keys and
/// certificates of a PEM file in it: pairs of a private key and its certificate, numbered as `makeKeys` numbers them.
/// Throws std::runtime_error.
void makePeerToken(const std::filesystem::path& pemFile);

}  // namespace bench

#endif

/// Signing, verifying, encrypting, decrypting and key agreement with key objects, under the rules of the boundary.

#ifndef ZENTAK_SOFTTOKEN_KEYS_KEY_OPERATIONS_H
#define ZENTAK_SOFTTOKEN_KEYS_KEY_OPERATIONS_H

#include <mutex>

#include "keys/keys.h"

namespace softtoken {

/// A private key that has been loaded, for any number of threads.
struct PrivateKey {
    explicit PrivateKey(Key loaded) : key(std::move(loaded)) {}

    const Key key;
    /// An ECDSA operation, set up: doing that for each signature would add a tenth to it. Whoever can't lock it at once
    /// sets up one of their own.
    std::mutex preparedMutex;
    KeyContext prepared;
};

/// RSA v1.5: a bare hash of 20, 28, 32, 48 or 64 bytes gets its DigestInfo, everything else is padded as it is. PSS:
/// hash, MGF1 and salt length follow from the hash's length. ECDSA: r and s, each as long as the curve's field; a hash
/// longer than the order is cut. Throws Error::dataLength and Error::keyTypeMismatch.
Bytes signHash(PrivateKey& key, ByteView hash, bool pss);

/// Whether the signature is one that signHash makes; with PSS any salt length counts. A bare hash of 16 bytes also
/// matches a signature with an MD5 DigestInfo.
bool verifyHash(EVP_PKEY* key, ByteView hash, ByteView signature, bool pss);

enum class Padding { pkcs1, oaepSha1 };

/// Throws Error::dataLength when the data is too long for the padding.
Bytes encryptRsa(EVP_PKEY* key, ByteView data, Padding padding);

/// Takes OAEP with one of five hashes and v1.5 alike: see removePadding. Whatever is wrong with the padding, it throws
/// the same Error::cryptoFailed after the same work.
SecretBytes decryptRsa(EVP_PKEY* key, ByteView data);

/// The x-coordinate of the shared point. The peer is a point, uncompressed or compressed, bare or in a DER OCTET
/// STRING.
SecretBytes deriveEcdh(EVP_PKEY* key, ByteView peer);

}  // namespace softtoken

#endif

/// The device library's codes: key types, usage bits, hash algorithms.

#ifndef ZENTAK_DEVICE_CODES_H
#define ZENTAK_DEVICE_CODES_H

#include <cstdint>

namespace zentak {

/// Bits of a key pair's usage.
inline constexpr std::uint32_t keyUsageSign = 1;     ///< signing and verification
inline constexpr std::uint32_t keyUsageEncrypt = 2;  ///< encryption and decryption

/// Key types.
inline constexpr std::int32_t keyTypeRsa1024 = 1;
inline constexpr std::int32_t keyTypeRsa2048 = 2;
inline constexpr std::int32_t keyTypeRsa3072 = 3;
inline constexpr std::int32_t keyTypeRsa4096 = 4;
inline constexpr std::int32_t keyTypeP256 = 5;
inline constexpr std::int32_t keyTypeP384 = 6;
inline constexpr std::int32_t keyTypeP521 = 7;

inline bool isEcKeyType(std::int32_t keyType) {
    return keyType >= keyTypeP256 && keyType <= keyTypeP521;
}

/// Hash algorithms of digests and signatures.
inline constexpr int hashSha1 = 2;
inline constexpr int hashSha256 = 3;
inline constexpr int hashSha384 = 4;
inline constexpr int hashSha512 = 5;
inline constexpr int hashSha224 = 6;

/// Hash algorithms of key derivation, which devices know by other numbers.
inline constexpr int derivationHashSha1 = 1;
inline constexpr int derivationHashSha256 = 4;

}  // namespace zentak

#endif

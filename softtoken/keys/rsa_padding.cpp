// OpenSSL's check is for one kind of OAEP at a time; nine of them would make an RSA-2048 decryption about a quarter
// longer. These use the hash functions underneath, which are deprecated for being called by their names, not for what
// they do.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "keys/rsa_padding.h"

#include <algorithm>
#include <openssl/sha.h>

namespace softtoken {

namespace {

/// All bits or none.
using Mask = std::size_t;

constexpr Mask everyBit = ~Mask{0};

/// Hides from the compiler that a mask has two values only: it could make a branch of that.
Mask hidden(Mask mask) {
    const volatile Mask copy = mask;
    return copy;
}

Mask maskOfZero(std::size_t value) {
    constexpr int highestBit = 8 * sizeof value - 1;
    return ((value | (0 - value)) >> highestBit) - 1;
}

/// A plaintext to be, at the end of a block.
struct Finding {
    SecretBytes block;
    std::size_t begin = 0;
    Mask found = 0;

    /// What was found first stays.
    void offer(Mask fits, ByteView other, std::size_t otherBegin) {
        const Mask taken = hidden(fits & ~found);
        const Mask kept = ~taken;
        for (std::size_t i = 0; i < block.size(); ++i) {
            block[i] = static_cast<unsigned char>((block[i] & kept) | (other[i] & taken));
        }
        begin = (begin & kept) | (otherBegin & taken);
        found |= taken;
    }
};

template <typename State, auto init, auto update, auto final, std::size_t digestLength>
struct Hash {
    static constexpr std::size_t length = digestLength;
    using Digest = std::array<unsigned char, length>;

    State state{};

    Hash() { init(&state); }
    Hash(const Hash&) = default;
    Hash& operator=(const Hash&) = delete;
    ~Hash() { OPENSSL_cleanse(&state, sizeof state); }

    void add(ByteView data) { update(&state, data.data(), data.size()); }
    void finish(Digest& digest) { final(digest.data(), &state); }
};

using Sha1 = Hash<SHA_CTX, &SHA1_Init, &SHA1_Update, &SHA1_Final, SHA_DIGEST_LENGTH>;
using Sha224 = Hash<SHA256_CTX, &SHA224_Init, &SHA224_Update, &SHA224_Final, SHA224_DIGEST_LENGTH>;
using Sha256 = Hash<SHA256_CTX, &SHA256_Init, &SHA256_Update, &SHA256_Final, SHA256_DIGEST_LENGTH>;
using Sha384 = Hash<SHA512_CTX, &SHA384_Init, &SHA384_Update, &SHA384_Final, SHA384_DIGEST_LENGTH>;
using Sha512 = Hash<SHA512_CTX, &SHA512_Init, &SHA512_Update, &SHA512_Final, SHA512_DIGEST_LENGTH>;

template <typename DigestHash>
const typename DigestHash::Digest& digestOfNothing() {
    static const auto digest = [] {
        typename DigestHash::Digest empty{};
        DigestHash().finish(empty);
        return empty;
    }();
    return digest;
}

/// Adds what MGF1 makes of the seed to the target.
template <typename MaskHash>
void unmask(ByteView seed, std::span<unsigned char> target) {
    MaskHash seeded;
    seeded.add(seed);
    typename MaskHash::Digest digest{};
    std::array<unsigned char, 4> counter{};
    for (std::size_t done = 0; done < target.size(); done += digest.size()) {
        MaskHash hash = seeded;
        hash.add(counter);
        hash.finish(digest);
        const std::size_t count = std::min(digest.size(), target.size() - done);
        for (std::size_t i = 0; i < count; ++i) {
            target[done + i] ^= digest[i];
        }
        // A block has 512 bytes at most, and 26 digests.
        ++counter.back();
    }
    OPENSSL_cleanse(digest.data(), digest.size());
}

/// Zero, masked seed, masked data: hash of the label, zeros, a one, the plaintext.
template <typename LabelHash, typename MaskHash>
void offerOaep(ByteView block, Finding& finding) {
    constexpr std::size_t hashLength = LabelHash::length;
    if (block.size() < 2 * hashLength + 2) {
        return;
    }
    SecretBytes opened(block.begin(), block.end());
    const std::span<unsigned char> seed = std::span(opened).subspan(1, hashLength);
    const std::span<unsigned char> data = std::span(opened).subspan(1 + hashLength);
    unmask<MaskHash>(data, seed);
    unmask<MaskHash>(seed, data);
    std::size_t differences = opened[0];
    const auto& labelDigest = digestOfNothing<LabelHash>();
    for (std::size_t i = 0; i < hashLength; ++i) {
        differences |= data[i] ^ labelDigest[i];
    }
    Mask inZeros = everyBit;
    std::size_t zeros = 0;
    std::size_t endOfZeros = 0;
    for (const unsigned char byte : data.subspan(hashLength)) {
        endOfZeros |= byte & inZeros;
        inZeros &= maskOfZero(byte);
        zeros += inZeros & 1;
    }
    finding.offer(maskOfZero(differences | (endOfZeros ^ 1)), opened, 1 + 2 * hashLength + zeros + 1);
}

/// Zero, two, at least eight bytes other than zero, zero, the plaintext.
void offerPkcs1(ByteView block, Finding& finding) {
    if (block.size() < 11) {
        return;
    }
    Mask inPadding = everyBit;
    std::size_t padding = 0;
    for (const unsigned char byte : block.subspan(2)) {
        inPadding &= ~maskOfZero(byte);
        padding += inPadding & 1;
    }
    const Mask tooShort = maskOfZero(padding >> 3);
    const std::size_t beginning = static_cast<std::size_t>(block[0]) | (block[1] ^ 2U);
    finding.offer(maskOfZero(beginning | inPadding | tooShort), block, 2 + padding + 1);
}

}  // namespace

std::optional<SecretBytes> removePadding(ByteView block) {
    Finding finding;
    finding.block.resize(block.size());
    offerOaep<Sha1, Sha1>(block, finding);
    offerOaep<Sha224, Sha224>(block, finding);
    offerOaep<Sha224, Sha1>(block, finding);
    offerOaep<Sha256, Sha256>(block, finding);
    offerOaep<Sha256, Sha1>(block, finding);
    offerOaep<Sha384, Sha384>(block, finding);
    offerOaep<Sha384, Sha1>(block, finding);
    offerOaep<Sha512, Sha512>(block, finding);
    offerOaep<Sha512, Sha1>(block, finding);
    offerPkcs1(block, finding);
    // From here on it's what the caller is told: whether there is a plaintext, and its length.
    if (finding.found == 0) {
        return std::nullopt;
    }
    return SecretBytes(finding.block.begin() + static_cast<std::ptrdiff_t>(finding.begin), finding.block.end());
}

}  // namespace softtoken

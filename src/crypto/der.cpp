#include "crypto/der.h"

#include <array>

namespace zentak {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char integerTag = 0x02;
constexpr unsigned char bitStringTag = 0x03;
constexpr unsigned char octetStringTag = 0x04;
constexpr unsigned char sequenceTag = 0x30;

/// AlgorithmIdentifier of rsaEncryption with NULL parameters.
constexpr std::array<unsigned char, 15> rsaEncryption = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                                         0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
constexpr std::array<unsigned char, 3> publicExponent = {0x01, 0x00, 0x01};

void append(Bytes& target, ByteView bytes) {
    target.insert(target.end(), bytes.begin(), bytes.end());
}

Bytes encodeLength(std::size_t length) {
    if (length < 0x80) {
        return {static_cast<unsigned char>(length)};
    }
    Bytes digits;
    for (std::size_t rest = length; rest != 0; rest >>= 8U) {
        digits.insert(digits.begin(), static_cast<unsigned char>(rest & 0xFFU));
    }
    digits.insert(digits.begin(), static_cast<unsigned char>(0x80U + digits.size()));
    return digits;
}

Bytes encode(unsigned char tag, ByteView content) {
    Bytes element = {tag};
    append(element, encodeLength(content.size()));
    append(element, content);
    return element;
}

/// The number isn't negative, so a set top bit needs a zero byte in front.
Bytes encodeInteger(ByteView number) {
    Bytes content;
    if (!number.empty() && (number[0] & 0x80U) != 0) {
        content.push_back(0x00);
    }
    append(content, number);
    return encode(integerTag, content);
}

}  // namespace

std::vector<unsigned char> rsaSubjectPublicKeyInfo(ByteView modulus) {
    Bytes publicKey = encodeInteger(modulus);
    append(publicKey, encodeInteger(publicExponent));

    Bytes bitString = {0x00};  // no unused bits
    append(bitString, encode(sequenceTag, publicKey));

    Bytes content(rsaEncryption.begin(), rsaEncryption.end());
    append(content, encode(bitStringTag, bitString));
    return encode(sequenceTag, content);
}

ByteView hashInDigestInfo(ByteView data) {
    constexpr std::size_t shortestDigestInfo = 12;
    if (data.size() < shortestDigestInfo || data[0] != sequenceTag) {
        return data;
    }
    // Only the long form of one byte is known; another one is read as if it were short.
    std::size_t position = data[1] == 0x81 ? 3 : 2;
    if (data[position] == sequenceTag) {
        position += 2U + data[position + 1];
    }
    // The tag in the last byte has no length behind it.
    if (position + 1 >= data.size() || data[position] != octetStringTag) {
        return data;
    }
    const std::size_t length = data[position + 1];
    return position + 2 + length <= data.size() ? data.subspan(position + 2, length) : data;
}

}  // namespace zentak

// The decoders of keys.h. The usual forms are read here and the key is built from its numbers; anything else goes to
// OpenSSL's decoders, which know every form and take a multiple of the time.

#include <algorithm>
#include <string_view>

#include "keys/key_numbers.h"
#include "keys/keys.h"
#include "platform/errors.h"

using namespace std::string_view_literals;

namespace softtoken {

namespace {

constexpr unsigned char integerTag = 0x02;
constexpr unsigned char bitStringTag = 0x03;
constexpr unsigned char octetStringTag = 0x04;
constexpr unsigned char objectIdentifierTag = 0x06;
constexpr unsigned char sequenceTag = 0x30;
constexpr unsigned char publicKeyTag = 0xA1;

constexpr std::string_view rsaIdentifier = "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x01"sv;
constexpr std::string_view ecIdentifier = "\x2A\x86\x48\xCE\x3D\x02\x01"sv;

struct NamedCurve {
    std::string_view identifier;
    const char* name;
};

constexpr std::array<NamedCurve, 3> curves = {{
    {"\x2A\x86\x48\xCE\x3D\x03\x01\x07"sv, "P-256"},
    {"\x2B\x81\x04\x00\x22"sv, "P-384"},
    {"\x2B\x81\x04\x00\x23"sv, "P-521"},
}};

/// What is in the way of reading a form here. Never seen outside this file.
struct OtherForm {};

/// A key has none; OpenSSL's decoders would take it for the positive number with the same bytes. Never seen outside
/// this file, either.
struct NegativeNumber {};

void expect(bool holds) {
    if (!holds) {
        throw OtherForm();
    }
}

/// Walks over elements of DER, in place: no copy of a secret is left behind.
class DerReader {
public:
    explicit DerReader(ByteView bytes) : rest_(bytes) {}

    [[nodiscard]] bool atEnd() const { return rest_.empty(); }

    /// The next element's content. Throws OtherForm unless it has this tag.
    ByteView element(unsigned char tag) {
        expect(rest_.size() >= 2 && rest_[0] == tag);
        std::size_t length = rest_[1];
        std::size_t header = 2;
        if (length >= 0x80) {
            const std::size_t lengthBytes = length - 0x80;
            expect(lengthBytes >= 1 && lengthBytes <= 2 && rest_.size() >= 2 + lengthBytes);
            length = lengthBytes == 1 ? rest_[2] : static_cast<std::size_t>(rest_[2]) << 8 | rest_[3];
            header += lengthBytes;
        }
        expect(rest_.size() - header >= length);
        const ByteView content = rest_.subspan(header, length);
        rest_ = rest_.subspan(header + length);
        return content;
    }

    DerReader inside(unsigned char tag) { return DerReader(element(tag)); }

    /// Throws NegativeNumber.
    BigNumber positiveInteger() {
        const ByteView bytes = element(integerTag);
        expect(!bytes.empty());
        if (bytes[0] >= 0x80) {
            throw NegativeNumber();
        }
        return numberFrom(bytes);
    }

    /// The bytes of a BIT STRING without unused bits.
    ByteView wholeBitString() {
        const ByteView bits = element(bitStringTag);
        expect(!bits.empty() && bits[0] == 0);
        return bits.subspan(1);
    }

private:
    ByteView rest_;
};

bool same(ByteView bytes, std::string_view text) {
    const ByteView other = viewOf(text);
    return std::equal(bytes.begin(), bytes.end(), other.begin(), other.end());
}

Key rsaKeyFrom(DerReader fields) {
    expect(same(fields.element(integerTag), "\0"sv));
    std::array<BigNumber, 8> numbers;
    for (BigNumber& number : numbers) {
        number = fields.positiveInteger();
    }
    expect(fields.atEnd());
    return rsaPrivateKey({numbers[0].get(), numbers[1].get(), numbers[2].get(), numbers[3].get(), numbers[4].get(),
                          numbers[5].get(), numbers[6].get(), numbers[7].get()});
}

const char* curveWithIdentifier(ByteView identifier) {
    const auto* const found = std::find_if(curves.begin(), curves.end(),
                                           [&](const NamedCurve& curve) { return same(identifier, curve.identifier); });
    expect(found != curves.end());
    return found->name;
}

Key ecKeyFrom(DerReader fields, ByteView curveIdentifier) {
    expect(same(fields.element(integerTag), "\x01"sv));
    const BigNumber privateNumber = numberFrom(fields.element(octetStringTag));
    // Named curves alone: the parameters stand with the algorithm.
    const ByteView point = fields.inside(publicKeyTag).wholeBitString();
    expect(fields.atEnd());
    return ecPrivateKey(curveWithIdentifier(curveIdentifier), point, privateNumber.get());
}

/// A PrivateKeyInfo of an RSA key, or of an EC key with its point.
Key usualPrivateKey(ByteView pkcs8) {
    DerReader document(pkcs8);
    DerReader fields = document.inside(sequenceTag);
    expect(document.atEnd() && same(fields.element(integerTag), "\0"sv));
    DerReader algorithm = fields.inside(sequenceTag);
    const ByteView identifier = algorithm.element(objectIdentifierTag);
    DerReader octets = fields.inside(octetStringTag);
    expect(fields.atEnd());
    const DerReader key = octets.inside(sequenceTag);
    expect(octets.atEnd());
    if (same(identifier, rsaIdentifier)) {
        return rsaKeyFrom(key);
    }
    expect(same(identifier, ecIdentifier));
    return ecKeyFrom(key, algorithm.element(objectIdentifierTag));
}

/// A SubjectPublicKeyInfo of an RSA key.
Key usualPublicKey(ByteView der) {
    DerReader document(der);
    DerReader fields = document.inside(sequenceTag);
    expect(document.atEnd());
    expect(same(fields.inside(sequenceTag).element(objectIdentifierTag), rsaIdentifier));
    DerReader bits(fields.wholeBitString());
    expect(fields.atEnd());
    DerReader key = bits.inside(sequenceTag);
    expect(bits.atEnd());
    const BigNumber modulus = key.positiveInteger();
    const BigNumber exponent = key.positiveInteger();
    expect(key.atEnd());
    return rsaPublicKey(modulus.get(), exponent.get());
}

template <typename Decode>
Key orNull(Decode&& decode) {
    try {
        return decode();
    } catch (const OtherForm&) {
        return nullptr;
    }
}

}  // namespace

Key decodePrivateKey(ByteView pkcs8) {
    try {
        if (Key key = orNull([&] { return usualPrivateKey(pkcs8); })) {
            return key;
        }
        const unsigned char* position = pkcs8.data();
        const auto length = static_cast<long>(pkcs8.size());
        if (Key key = ownKey(d2i_AutoPrivateKey_ex(nullptr, &position, length, cryptoContext(), nullptr))) {
            return key;
        }
    } catch (const NegativeNumber&) {
        // Refused like everything else that is none.
    }
    throw Failure(Error::tokenDamaged, "a private key of the token can't be read");
}

Key decodeSubjectPublicKeyInfo(ByteView der) {
    try {
        if (Key key = orNull([&] { return usualPublicKey(der); })) {
            return key;
        }
    } catch (const NegativeNumber&) {
        return nullptr;
    }
    const unsigned char* position = der.data();
    return ownKey(d2i_PUBKEY_ex(nullptr, &position, static_cast<long>(der.size()), cryptoContext(), nullptr));
}

Key publicKeyFromPoint(const KeyType& type, ByteView point) {
    if (type.curve == nullptr || point.empty()) {
        return nullptr;
    }
    const bool uncompressed = point[0] == 0x04 && point.size() == 1 + 2 * type.fieldLength;
    const bool compressed = (point[0] == 0x02 || point[0] == 0x03) && point.size() == 1 + type.fieldLength;
    return uncompressed || compressed ? ecPublicKey(type.curve, point) : nullptr;
}

Key decodePublicKey(const KeyType* type, ByteView bytes) {
    if (bytes.empty() || bytes.size() > 4096) {
        return nullptr;
    }
    if (bytes[0] == 0x30) {
        return decodeSubjectPublicKeyInfo(bytes);
    }
    if (type != nullptr && type->curve != nullptr) {
        return publicKeyFromPoint(*type, bytes);
    }
    const BigNumber modulus = numberFrom(bytes);
    const BigNumber exponent = newNumber();
    requireCrypto(BN_set_word(exponent.get(), publicExponent) == 1, "setting a number");
    return rsaPublicKey(modulus.get(), exponent.get());
}

}  // namespace softtoken

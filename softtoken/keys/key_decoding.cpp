// The decoders of keys.h. Keys of the usual forms are built from their numbers, which OpenSSL's ASN.1 reader finds: 15
// µs for a public RSA key and 40 µs for a private one, where OpenSSL's key decoders take 250 and 1,000 µs. Those know
// every form, so anything else goes to them; but they take a negative number for the positive one with the same bytes.

#include <openssl/asn1.h>
#include <openssl/objects.h>

#include "keys/key_numbers.h"
#include "keys/keys.h"
#include "platform/errors.h"

namespace softtoken {

namespace {

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

ByteView bytesIn(const ASN1_STRING* content) {
    return {ASN1_STRING_get0_data(content), static_cast<std::size_t>(ASN1_STRING_length(content))};
}

void releaseWiped(STACK_OF(ASN1_TYPE) * elements) {
    for (int i = 0; i < sk_ASN1_TYPE_num(elements); ++i) {
        ASN1_TYPE* const element = sk_ASN1_TYPE_value(elements, i);
        if (element->type != V_ASN1_OBJECT && element->type != V_ASN1_BOOLEAN && element->type != V_ASN1_NULL) {
            ASN1_STRING* const text = element->value.asn1_string;
            OPENSSL_cleanse(text->data, static_cast<std::size_t>(text->length));
        }
    }
    sk_ASN1_TYPE_pop_free(elements, &ASN1_TYPE_free);
}

/// The elements of a SEQUENCE, wiped at their end: some are secrets.
class Elements {
public:
    /// Throws OtherForm unless the bytes are one SEQUENCE and nothing more.
    explicit Elements(ByteView der) {
        const unsigned char* position = der.data();
        elements_.reset(d2i_ASN1_SEQUENCE_ANY(nullptr, &position, static_cast<long>(der.size())));
        expect(elements_ && position == der.data() + der.size());
    }

    void expectCount(int count) const { expect(sk_ASN1_TYPE_num(elements_.get()) == count); }

    /// The content of an element of this type; of a SEQUENCE, and of what is none of the usual types, all of it. Throws
    /// OtherForm for another type.
    [[nodiscard]] ByteView content(int index, int type) const { return bytesIn(stringAt(index, type)); }

    /// The numeric name of an object identifier.
    [[nodiscard]] int identifier(int index) const {
        const ASN1_TYPE* const element = sk_ASN1_TYPE_value(elements_.get(), index);
        expect(element != nullptr && element->type == V_ASN1_OBJECT);
        return OBJ_obj2nid(element->value.object);
    }

    /// Throws NegativeNumber.
    [[nodiscard]] BigNumber positiveInteger(int index) const {
        const ASN1_STRING* const number = stringAt(index, V_ASN1_INTEGER);
        if (ASN1_STRING_type(number) == V_ASN1_NEG_INTEGER) {
            throw NegativeNumber();
        }
        return numberFrom(bytesIn(number));
    }

    /// The bytes of a BIT STRING without unused bits.
    [[nodiscard]] ByteView wholeBitString(int index) const { return wholeBits(stringAt(index, V_ASN1_BIT_STRING)); }

    static ByteView wholeBits(const ASN1_STRING* bits) {
        expect((bits->flags & 0x07) == 0);
        return bytesIn(bits);
    }

private:
    [[nodiscard]] const ASN1_STRING* stringAt(int index, int type) const {
        const ASN1_TYPE* const element = sk_ASN1_TYPE_value(elements_.get(), index);
        expect(element != nullptr && element->type == type);
        return element->value.asn1_string;
    }

    std::unique_ptr<STACK_OF(ASN1_TYPE), Releaser<&releaseWiped>> elements_;
};

Key rsaKeyFrom(const Elements& fields) {
    fields.expectCount(9);
    expect(BN_is_zero(fields.positiveInteger(0).get()) == 1);
    std::array<BigNumber, 8> numbers;
    for (int i = 0; i < 8; ++i) {
        numbers[static_cast<std::size_t>(i)] = fields.positiveInteger(i + 1);
    }
    return rsaPrivateKey({numbers[0].get(), numbers[1].get(), numbers[2].get(), numbers[3].get(), numbers[4].get(),
                          numbers[5].get(), numbers[6].get(), numbers[7].get()});
}

/// The point in the BIT STRING within an element with the tag [1].
std::unique_ptr<ASN1_BIT_STRING, Releaser<&ASN1_BIT_STRING_free>> pointWithin(ByteView element) {
    const unsigned char* position = element.data();
    long length = 0;
    int tag = 0;
    int kind = 0;
    const int form = ASN1_get_object(&position, &length, &tag, &kind, static_cast<long>(element.size()));
    expect(form == V_ASN1_CONSTRUCTED && tag == 1 && kind == V_ASN1_CONTEXT_SPECIFIC);
    const unsigned char* const end = position + length;
    std::unique_ptr<ASN1_BIT_STRING, Releaser<&ASN1_BIT_STRING_free>> point(
        d2i_ASN1_BIT_STRING(nullptr, &position, length));
    expect(point && position == end);
    return point;
}

Key ecKeyFrom(const Elements& fields, int curve) {
    // Without parameters of its own: those of the algorithm hold.
    fields.expectCount(3);
    expect(BN_is_one(fields.positiveInteger(0).get()) == 1);
    const BigNumber privateNumber = numberFrom(fields.content(1, V_ASN1_OCTET_STRING));
    const auto point = pointWithin(fields.content(2, V_ASN1_OTHER));
    const char* const name = EC_curve_nid2nist(curve);
    expect(name != nullptr);
    return ecPrivateKey(name, Elements::wholeBits(point.get()), privateNumber.get());
}

/// A PrivateKeyInfo of an RSA key, or of an EC key with its point.
Key usualPrivateKey(ByteView pkcs8) {
    const Elements document(pkcs8);
    document.expectCount(3);
    expect(BN_is_zero(document.positiveInteger(0).get()) == 1);
    const Elements algorithm(document.content(1, V_ASN1_SEQUENCE));
    const Elements key(document.content(2, V_ASN1_OCTET_STRING));
    if (algorithm.identifier(0) == NID_rsaEncryption) {
        return rsaKeyFrom(key);
    }
    expect(algorithm.identifier(0) == NID_X9_62_id_ecPublicKey);
    return ecKeyFrom(key, algorithm.identifier(1));
}

/// A SubjectPublicKeyInfo of an RSA key.
Key usualPublicKey(ByteView der) {
    const Elements document(der);
    document.expectCount(2);
    expect(Elements(document.content(0, V_ASN1_SEQUENCE)).identifier(0) == NID_rsaEncryption);
    const Elements key(document.wholeBitString(1));
    key.expectCount(2);
    const BigNumber modulus = key.positiveInteger(0);
    const BigNumber exponent = key.positiveInteger(1);
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

// The value of every attribute of every kind of object, byte for byte.

#include <optional>

#include "object_test.h"

using namespace support;

namespace {

/// One attribute and its value; nothing where the value is unavailable.
struct Expected {
    CK_ATTRIBUTE_TYPE type;
    std::optional<Bytes> value;
};

const Bytes yes = {CK_TRUE};
const Bytes no = {CK_FALSE};
const Bytes none = {};
const std::optional<Bytes> unavailable = std::nullopt;

Bytes number(std::uint32_t value) {
    return bytesOf(static_cast<CK_ULONG>(value));
}

class AttributesValueTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    }

    /// Reads each attribute alone: its size, into exactly enough room, into more, and into one byte too little.
    void expectValues(CK_OBJECT_HANDLE object, const std::vector<Expected>& expected) {
        for (const Expected& row : expected) {
            SCOPED_TRACE(text("object ", object, ", attribute ", row.type));
            if (row.value) {
                expectValue(object, row.type, *row.value);
            } else {
                expectUnavailable(object, row.type);
            }
        }
    }

    CK_SESSION_HANDLE session = 0;

private:
    struct Read {
        CK_RV code;
        CK_ULONG length;
        Lines log;
    };

    Read read(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, void* value, std::size_t capacity) {
        CK_ATTRIBUTE wanted = {type, value, static_cast<CK_ULONG>(capacity)};
        clear();
        const CK_RV code = api->C_GetAttributeValue(session, object, &wanted, 1);
        Lines lines = log();
        EXPECT_GE(lines.size(), 2U);
        lines.erase(lines.begin(), lines.begin() + 2);
        return {code, wanted.ulValueLen, lines};
    }

    void expectValue(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, const Bytes& value) {
        const Lines done = {text("DEBUG C_GetAttributeValue type : ", type),
                            text("DEBUG C_GetAttributeValue length : ", value.size())};
        const Read query = read(object, type, nullptr, 77);
        EXPECT_EQ(query.code, CKR_OK);
        EXPECT_EQ(query.length, value.size());
        EXPECT_EQ(query.log, done);
        for (const std::size_t more : {0U, 9U}) {
            Room room(value.size() + more);
            const Read whole = read(object, type, room.address(), value.size() + more);
            EXPECT_EQ(whole.code, CKR_OK);
            EXPECT_EQ(whole.length, value.size());
            EXPECT_EQ(whole.log, done);
            EXPECT_EQ(room.first(value.size()), value);
            EXPECT_TRUE(room.untouchedFrom(value.size()));
        }
        if (!value.empty()) {
            Room room(value.size());
            const Read small = read(object, type, room.address(), value.size() - 1);
            EXPECT_EQ(small.code, CKR_BUFFER_TOO_SMALL);
            EXPECT_EQ(small.length, value.size() - 1);
            EXPECT_EQ(small.log,
                      (Lines{done[0], text("ERROR C_GetAttributeValue: buffer too small at index=0 type=", type,
                                           " provided=", value.size() - 1, " required=", value.size())}));
            EXPECT_TRUE(room.untouchedFrom(0));
        }
    }

    void expectUnavailable(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
        Room room(600);
        for (void* value : {static_cast<void*>(nullptr), room.address()}) {
            for (const std::size_t capacity : {0U, 600U}) {
                const Read answer = read(object, type, value, capacity);
                EXPECT_EQ(answer.code, CKR_OK);
                EXPECT_EQ(answer.length, CK_UNAVAILABLE_INFORMATION);
                EXPECT_EQ(answer.log, (Lines{text("DEBUG C_GetAttributeValue type : ", type)}));
            }
        }
        EXPECT_TRUE(room.untouchedFrom(0));
    }
};

/// The value that an attribute has of a private key, of its public key and of a certificate.
struct OfEachKind {
    CK_ATTRIBUTE_TYPE type;
    std::optional<Bytes> privateKey;
    std::optional<Bytes> publicKey;
    std::optional<Bytes> certificate;
};

TEST_F(AttributesValueTest, AnRsaKeyPairAndACertificate) {
    const Bytes key = publicKeyOf(keyFive);
    const Bytes der = derOf(certificateFive);
    const Bytes issuer = world.issuers[der] = {0x30, 0x02, 0x01, 0x0A};
    const Bytes subject = world.subjects[der] = {0x30, 0x03, 0x01, 0x0A, 0x0B};
    const Bytes serial = world.serials[der] = {0x02, 0x01, 0x7F};
    const Bytes label = charactersOf("Certificate five");
    const Bytes keyLabel = charactersOf("Key five");
    const Bytes exponent = {1, 0, 1};
    const Bytes keyId = {0xA0, 0x05};
    const Bytes id = {0xC0, 0x05};
    const std::uint32_t rsaGeneration = CKM_RSA_PKCS_KEY_PAIR_GEN;
    const OfEachKind rows[] = {
        {CKA_CLASS, number(CKO_PRIVATE_KEY), number(CKO_PUBLIC_KEY), number(CKO_CERTIFICATE)},
        {CKA_TOKEN, yes, yes, yes},
        {CKA_PRIVATE, yes, no, no},
        {CKA_LABEL, keyLabel, keyLabel, label},
        {CKA_VALUE, key, key, der},
        {CKA_OBJECT_ID, number(0x70000005), number(0x70001005), number(0x70002005)},
        {CKA_CERTIFICATE_TYPE, number(0), number(0), number(CKC_X_509)},
        {CKA_ISSUER, none, none, issuer},
        {CKA_SERIAL_NUMBER, none, none, serial},
        {CKA_TRUSTED, yes, yes, yes},
        {CKA_KEY_TYPE, number(CKK_RSA), number(CKK_RSA), number(0)},
        {CKA_SUBJECT, none, none, subject},
        {CKA_ID, keyId, keyId, id},
        {CKA_SENSITIVE, yes, no, no},
        {CKA_ENCRYPT, no, yes, no},
        {CKA_DECRYPT, yes, no, no},
        {CKA_WRAP, no, no, no},
        {CKA_SIGN, yes, no, no},
        {CKA_VERIFY, no, yes, no},
        {CKA_VERIFY_RECOVER, no, no, no},
        {CKA_DERIVE, no, no, no},
        {CKA_MODULUS, key, key, der},
        {CKA_MODULUS_BITS, number(2048), number(2048), number(2048)},
        {CKA_PUBLIC_EXPONENT, exponent, exponent, exponent},
        {CKA_EXTRACTABLE, no, yes, yes},
        {CKA_LOCAL, yes, yes, yes},
        {CKA_KEY_GEN_MECHANISM, number(rsaGeneration), number(rsaGeneration), number(0)},
        {CKA_MODIFIABLE, no, no, yes},
        {CKA_EC_PARAMS, unavailable, unavailable, unavailable},
        {CKA_EC_POINT, unavailable, unavailable, unavailable},
    };
    for (const OfEachKind& row : rows) {
        expectValues(0x70000005, {{row.type, row.privateKey}});
        expectValues(0x70001005, {{row.type, row.publicKey}});
        expectValues(0x70002005, {{row.type, row.certificate}});
    }
}

// What depends on the key type code, for both keys of the pair; unknown codes are RSA with 2048 bits.
TEST_F(AttributesValueTest, KeyTypes) {
    struct Row {
        std::int32_t code;
        bool elliptic;
        std::uint32_t bits;
        Bytes parameters;
    };
    const Row rows[] = {
        {1, false, 1024, {}},
        {2, false, 2048, {}},
        {3, false, 3072, {}},
        {4, false, 4096, {}},
        {5, true, 0, {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}},
        {6, true, 0, {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22}},
        {7, true, 0, {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23}},
        {0, false, 2048, {}},
        {8, false, 2048, {}},
        {-1, false, 2048, {}},
        {INT32_MAX, false, 2048, {}},
    };
    const Bytes value = countingBytes(4, 65);
    for (const Row& row : rows) {
        SCOPED_TRACE(text("key type ", row.code));
        world.keyPairs["SN1"][0].keyType = row.code;
        setPublicKey(world.keyPairs["SN1"][0], value);
        for (const CK_OBJECT_HANDLE object : Numbers{privateKey(5), publicKey(5)}) {
            if (row.elliptic) {
                expectValues(object, {{CKA_KEY_TYPE, number(CKK_EC)},
                                      {CKA_VALUE, value},
                                      {CKA_MODULUS, unavailable},
                                      {CKA_MODULUS_BITS, unavailable},
                                      {CKA_PUBLIC_EXPONENT, unavailable},
                                      {CKA_KEY_GEN_MECHANISM, number(CKM_EC_KEY_PAIR_GEN)},
                                      {CKA_EC_PARAMS, row.parameters},
                                      {CKA_EC_POINT, Bytes{0x04, 0x41} + value}});
            } else {
                expectValues(object, {{CKA_KEY_TYPE, number(CKK_RSA)},
                                      {CKA_VALUE, value},
                                      {CKA_MODULUS, value},
                                      {CKA_MODULUS_BITS, number(row.bits)},
                                      {CKA_PUBLIC_EXPONENT, Bytes{1, 0, 1}},
                                      {CKA_KEY_GEN_MECHANISM, number(CKM_RSA_PKCS_KEY_PAIR_GEN)},
                                      {CKA_EC_PARAMS, unavailable},
                                      {CKA_EC_POINT, unavailable}});
            }
        }
    }
}

TEST_F(AttributesValueTest, PointsAreWrappedInAnOctetString) {
    const std::pair<std::size_t, Bytes> rows[] = {
        {0, {0x04, 0x00}},   {1, {0x04, 0x01}},         {65, {0x04, 0x41}},        {97, {0x04, 0x61}},
        {127, {0x04, 0x7F}}, {128, {0x04, 0x81, 0x80}}, {133, {0x04, 0x81, 0x85}}, {255, {0x04, 0x81, 0xFF}}};
    world.keyPairs["SN1"][0].keyType = p521;
    for (const auto& [length, header] : rows) {
        const Bytes point = countingBytes(4, length);
        setPublicKey(world.keyPairs["SN1"][0], point);
        expectValues(publicKey(5), {{CKA_EC_POINT, header + point}});
        expectValues(privateKey(5), {{CKA_EC_POINT, header + point}});
    }
}

TEST_F(AttributesValueTest, UsageBits) {
    for (const std::uint32_t usage : {0U, 1U, 2U, 3U, 0xFFFFFFFCU, 0x80000001U}) {
        SCOPED_TRACE(usage);
        world.keyPairs["SN1"][0].keyUsage = usage;
        const Bytes signs = (usage & 1U) != 0 ? yes : no;
        const Bytes encrypts = (usage & 2U) != 0 ? yes : no;
        expectValues(privateKey(5), {{CKA_SIGN, signs}, {CKA_DECRYPT, encrypts}, {CKA_VERIFY, no}, {CKA_ENCRYPT, no}});
        expectValues(publicKey(5), {{CKA_SIGN, no}, {CKA_DECRYPT, no}, {CKA_VERIFY, signs}, {CKA_ENCRYPT, encrypts}});
    }
}

TEST_F(AttributesValueTest, ValuesOfNoBytes) {
    ZentakKeyPair& keyPair = world.keyPairs["SN1"][0];
    keyPair.objectIdLength = 0;
    keyPair.publicKeyLength = 0;
    setAlias(keyPair, "");
    ZentakCertificate& record = world.certificates["SN1"][0];
    record.objectIdLength = 0;
    record.derLength = 0;
    setLabel(record, "");
    for (const CK_OBJECT_HANDLE object : Numbers{privateKey(5), publicKey(5), certificate(5)}) {
        expectValues(object, {{CKA_ID, none}, {CKA_VALUE, none}, {CKA_MODULUS, none}, {CKA_LABEL, none}});
    }
}

TEST_F(AttributesValueTest, FieldsFilledToTheirEnd) {
    ZentakKeyPair& keyPair = world.keyPairs["SN1"][0];
    setObjectId(keyPair, countingBytes(1, 128));
    setPublicKey(keyPair, countingBytes(7, 1024));
    ZentakCertificate& record = world.certificates["SN1"][0];
    const Bytes der = countingBytes(3, 3072);
    std::copy(der.begin(), der.end(), record.der);
    record.derLength = 3072;
    setObjectId(record, countingBytes(2, 128));
    expectValues(privateKey(5), {{CKA_ID, countingBytes(1, 128)}, {CKA_MODULUS, countingBytes(7, 1024)}});
    expectValues(certificate(5), {{CKA_ID, countingBytes(2, 128)}, {CKA_VALUE, der}});
}

TEST_F(AttributesValueTest, UnknownTypesHaveLengthZero) {
    std::vector<std::uint64_t> types = {
        // Data and attribute certificates.
        CKA_APPLICATION, CKA_AC_ISSUER, CKA_OWNER, CKA_ATTR_TYPES,
        // Certificates.
        CKA_CERTIFICATE_CATEGORY, CKA_JAVA_MIDP_SECURITY_DOMAIN, CKA_URL, CKA_HASH_OF_SUBJECT_PUBLIC_KEY,
        CKA_HASH_OF_ISSUER_PUBLIC_KEY, CKA_CHECK_VALUE,
        // Keys.
        CKA_UNWRAP, CKA_SIGN_RECOVER, CKA_START_DATE, CKA_END_DATE, CKA_NEVER_EXTRACTABLE, CKA_ALWAYS_SENSITIVE,
        CKA_SECONDARY_AUTH, CKA_AUTH_PIN_FLAGS, CKA_ALWAYS_AUTHENTICATE, CKA_WRAP_WITH_TRUSTED, CKA_WRAP_TEMPLATE,
        CKA_UNWRAP_TEMPLATE, CKA_ALLOWED_MECHANISMS,
        // The numbers of keys.
        CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2, CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT, CKA_PRIME,
        CKA_SUBPRIME, CKA_BASE, CKA_PRIME_BITS, CKA_SUB_PRIME_BITS, CKA_VALUE_BITS, CKA_VALUE_LEN,
        // Hardware and mechanisms.
        CKA_HW_FEATURE_TYPE, CKA_RESET_ON_INIT, CKA_HAS_RESET, CKA_PIXEL_X, CKA_MECHANISM_TYPE,
        // Nobody's.
        CKA_VENDOR_DEFINED, 4, 0x10D, 0x180 + 2, 0xFFFFFFFF};
    if constexpr (sizeof(CK_ULONG) == 8) {
        types.push_back((std::uint64_t{1} << 32U) + CKA_CLASS);
        types.push_back((std::uint64_t{1} << 32U) + CKA_ID);
    }
    for (const std::uint64_t type : types) {
        for (const CK_OBJECT_HANDLE object : Numbers{privateKey(5), publicKey(5), certificate(5)}) {
            expectValues(object, {{static_cast<CK_ATTRIBUTE_TYPE>(type), none}});
        }
    }
}

// The names are asked of the library only when they are wanted, and with the certificate as it stands in the record.
TEST_F(AttributesValueTest, NamesAreAskedWhenTheyAreWanted) {
    const std::string der = shown(derOf(certificateFive));
    Template wanted;
    for (const CK_ATTRIBUTE_TYPE type : Numbers{CKA_SERIAL_NUMBER, CKA_ID, CKA_SUBJECT, CKA_ISSUER}) {
        wanted.addRaw(type, nullptr, 0);
    }
    EXPECT_EQ(
        observe([&] { return api->C_GetAttributeValue(session, certificate(5), wanted.data(), 4); }).device,
        (Lines{listCertificates, "zentak_getCertificateSerialDER(" + der + ", null)",
               "zentak_getCertificateSubject(" + der + ", null)", "zentak_getCertificateIssuer(" + der + ", null)"}));
    EXPECT_EQ(observe([&] { return api->C_GetAttributeValue(session, publicKey(5), wanted.data(), 4); }).device,
              (Lines{listKeyPairs}));
}

TEST_F(AttributesValueTest, OddLengthsInARecordAreNeverFollowedBeyondTheField) {
    for (const std::int32_t length : {INT32_MIN, -1, 129, 1025, 3073, INT32_MAX}) {
        ZentakKeyPair& keyPair = world.keyPairs["SN1"][0];
        keyPair.publicKeyLength = keyPair.objectIdLength = length;
        keyPair.keyType = length % 2 == 0 ? p256 : rsa2048;
        ZentakCertificate& record = world.certificates["SN1"][0];
        record.derLength = record.objectIdLength = length;
        for (const CK_OBJECT_HANDLE object : Numbers{privateKey(5), publicKey(5), certificate(5)}) {
            for (const CK_ATTRIBUTE_TYPE type : Numbers{CKA_VALUE, CKA_ID, CKA_MODULUS, CKA_EC_POINT, CKA_ISSUER}) {
                SCOPED_TRACE(text("length ", length, ", object ", object, ", attribute ", type));
                Bytes room(8192);
                CK_ATTRIBUTE wanted = {type, room.data(), 8192};
                EXPECT_EQ(api->C_GetAttributeValue(session, object, &wanted, 1), CKR_OK);
                const CK_ULONG written = wanted.ulValueLen;
                const bool fits = type == CKA_ID ? written <= 128 : written <= 3072 + 3;
                EXPECT_TRUE(fits || written == CK_UNAVAILABLE_INFORMATION) << written;
            }
        }
    }
}

}  // namespace

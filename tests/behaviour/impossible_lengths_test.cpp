// Lengths that no value has, as C_GetAttributeValue leaves them in templates that hosts use again. The memory behind
// each ends at a page that can't be read.

#include <cstring>
#include <optional>

#include "guarded_memory.h"
#include "signing_test.h"

using namespace support;

namespace {

const Numbers impossibleLengths = {0x80000000, 0xFFFFFFFE, 0xFFFFFFFF,
                                   static_cast<CK_ULONG>(CK_UNAVAILABLE_INFORMATION)};

/// "CKA_ID too long …", as each function says it.
std::string tooLong(const std::string& function, const std::string& attribute, CK_ULONG length) {
    return text("ERROR ", function, ": ", attribute, " too long for the device library, length=", length);
}

struct NamedType {
    CK_ATTRIBUTE_TYPE type;
    const char* name;
};

class ImpossibleLengthsTest : public SigningTest {
protected:
    void SetUp() override {
        SigningTest::SetUp();
        session = reopen(session, CKS_RW_USER_FUNCTIONS);
        world.generated = makeKeyPair(9);
    }

    Outcome create(Template& wanted) {
        return observe([&] { return api->C_CreateObject(session, wanted.data(), wanted.count(), &made); });
    }

    /// A number with nothing behind it, good until the next one.
    GuardedMemory& number(CK_ULONG value) {
        Bytes bytes(sizeof value);
        std::memcpy(bytes.data(), &value, sizeof value);
        number_.emplace(bytes);
        return *number_;
    }

    GuardedMemory three{{0xA0, 5, 0}};
    GuardedMemory nothing{{}};
    CK_OBJECT_HANDLE made = 0;
    CK_OBJECT_HANDLE other = 0;

private:
    std::optional<GuardedMemory> number_;
};

TEST_F(ImpossibleLengthsTest, OfNumbersAndTruthValuesMeanTheirFirstBytes) {
    const GuardedMemory yes({CK_TRUE});
    for (const CK_ULONG stated : impossibleLengths) {
        EXPECT_EQ(create(Template().addRaw(CKA_CLASS, number(CKO_SECRET_KEY).data(), stated)),
                  (Outcome{CKR_FUNCTION_NOT_SUPPORTED,
                           {"DEBUG C_CreateObject", "DEBUG C_CreateObject - attrip type : 0",
                            "ERROR Provided object class not supported : 4"}}));
        Template key = rsaKeyTemplate();
        key.addRaw(CKA_SIGN, yes.data(), stated).addRaw(CKA_KEY_TYPE, number(CKK_RSA).data(), stated);
        EXPECT_EQ(create(key).code, CKR_OK);
        key.addRaw(CKA_KEY_TYPE, number(CKK_EC).data(), stated);
        EXPECT_EQ(create(key).log.back(), "ERROR ECC keypair not supported for import");
    }
}

TEST_F(ImpossibleLengthsTest, MatchNothingInASearchAndAreNotShown) {
    for (const CK_OBJECT_CLASS objectClass : Numbers{CKO_CERTIFICATE, CKO_PUBLIC_KEY, CKO_PRIVATE_KEY}) {
        for (const CK_ATTRIBUTE_TYPE type : Numbers{CKA_VALUE, CKA_ID, CKA_SUBJECT, CKA_MODULUS}) {
            const bool decides =
                type == CKA_VALUE || type == CKA_ID || (type == CKA_SUBJECT) == (objectClass == CKO_CERTIFICATE);
            for (const CK_ULONG stated : impossibleLengths) {
                SCOPED_TRACE(text("class ", objectClass, " type ", type, " length ", stated));
                Lines expected = {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 2",
                                  "DEBUG Find object init type : 0", text("DEBUG Find object class : ", objectClass),
                                  text("DEBUG Find object init type : ", type)};
                if (type == CKA_MODULUS) expected.push_back(text("DEBUG Modulus provided length : ", stated));
                const Outcome outcome = findInit(
                    session, Template().addNumber(CKA_CLASS, objectClass).addRaw(type, nothing.data(), stated));
                EXPECT_EQ(outcome.code, CKR_OK);
                EXPECT_EQ(outcome.log, expected);
                EXPECT_EQ(next(session, 10).size(), decides ? 0U : 2U);
            }
        }
    }
}

TEST_F(ImpossibleLengthsTest, DoNotDisturbASearchThatDoesNotLookAtThem) {
    for (const CK_ULONG stated : impossibleLengths) {
        EXPECT_EQ(findInit(session, Template().addRaw(CKA_ID, three.data(), stated)).log,
                  (Lines{"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 1",
                         "DEBUG Find object init type : 258"}));
        EXPECT_EQ(next(session, 10).size(), 6U);
        // The label is a text with its end; its length means nothing.
        const GuardedMemory label(terminated("Key six"));
        Template labelled;
        labelled.addNumber(CKA_CLASS, CKO_PUBLIC_KEY)
            .addRaw(CKA_LABEL, label.data(), stated)
            .addRaw(CKA_ID, nothing.data(), stated)
            .addRaw(CKA_TOKEN, nothing.data(), stated);
        EXPECT_EQ(search(session, labelled), (Handles{publicKey(6)}));
    }
}

TEST_F(ImpossibleLengthsTest, AreRefusedInAChange) {
    for (const NamedType& row : {NamedType{CKA_LABEL, "CKA_LABEL"}, NamedType{CKA_ID, "CKA_ID"}}) {
        for (const CK_ULONG stated : impossibleLengths) {
            Template wanted;
            wanted.addRaw(row.type, nothing.data(), stated);
            EXPECT_EQ(
                observe(
                    [&] { return api->C_SetAttributeValue(session, privateKey(5), wanted.data(), wanted.count()); }),
                (Outcome{CKR_DATA_LEN_RANGE,
                         {"DEBUG C_SetAttributeValue", text("DEBUG C_SetAttributeValue - attrip type : ", row.type),
                          tooLong("C_SetAttributeValue", row.name, stated)},
                         {listKeyPairs}}));
            // A later value takes its place, and what isn't changed isn't looked at.
            wanted.add(row.type, Bytes{'n', 'e', 'w'}).addRaw(CKA_VALUE, nothing.data(), stated);
            EXPECT_EQ(api->C_SetAttributeValue(session, privateKey(5), wanted.data(), wanted.count()), CKR_OK);
        }
    }
}

TEST_F(ImpossibleLengthsTest, AreRefusedInTheImportOfACertificate) {
    const Bytes der = {0x30, 0x01, 0x00};
    world.certificateDetails[der] = makeDetails("Alice", "CN=Root");
    for (const NamedType& row : {NamedType{CKA_LABEL, "CKA_LABEL"}, NamedType{CKA_ID, "CKA_ID"}}) {
        for (const CK_ULONG stated : impossibleLengths) {
            EXPECT_EQ(create(Template().add(CKA_VALUE, der).addRaw(row.type, nothing.data(), stated)),
                      (Outcome{CKR_DATA_LEN_RANGE,
                               {"DEBUG C_CreateObject", "DEBUG C_CreateObject - attrip type : 17",
                                text("DEBUG C_CreateObject - attrip type : ", row.type),
                                tooLong("C_CreateObject", row.name, stated)}}));
        }
    }
    for (const CK_ULONG stated : impossibleLengths) {
        EXPECT_EQ(create(Template().addRaw(CKA_VALUE, nothing.data(), stated)),
                  (Outcome{CKR_DATA_LEN_RANGE,
                           {"DEBUG C_CreateObject", "DEBUG C_CreateObject - attrip type : 17",
                            text("ERROR C_CreateObject: certificate too long, length=", stated)}}));
        // What a certificate has no use for.
        EXPECT_EQ(create(Template().add(CKA_VALUE, der).addRaw(CKA_MODULUS, nothing.data(), stated)).code, CKR_OK);
    }
}

TEST_F(ImpossibleLengthsTest, AreRefusedInTheImportOfAKey) {
    const NamedType rows[] = {{CKA_MODULUS, "CKA_MODULUS"},
                              {CKA_PRIVATE_EXPONENT, "CKA_PRIVATE_EXPONENT"},
                              {CKA_PRIME_1, "CKA_PRIME_1"},
                              {CKA_LABEL, "CKA_LABEL"},
                              {CKA_ID, "CKA_ID"}};
    for (const NamedType& row : rows) {
        for (const CK_ULONG stated : impossibleLengths) {
            Template wanted = rsaKeyTemplate();
            wanted.addRaw(row.type, nothing.data(), stated);
            const Outcome outcome = create(wanted);
            expectOneError(outcome, CKR_DATA_LEN_RANGE, "C_CreateObject");
            EXPECT_EQ(outcome.log.back(), tooLong("C_CreateObject", row.name, stated));
            EXPECT_EQ(outcome.device, Lines{});
        }
    }
}

TEST_F(ImpossibleLengthsTest, AreRefusedInTheGenerationOfAKeyPair) {
    const NamedType rows[] = {{CKA_LABEL, "CKA_LABEL"}, {CKA_ID, "CKA_ID"}};
    CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    const auto generate = [&](Template& publicPart, Template& privatePart) {
        return observe([&] {
            return api->C_GenerateKeyPair(session, &mechanism, publicPart.data(), publicPart.count(),
                                          privatePart.data(), privatePart.count(), &made, &other);
        });
    };
    for (const CK_ULONG stated : impossibleLengths) {
        Template some;
        some.add(CKA_TOKEN, true);
        for (const NamedType& row : rows) {
            Template wanted;
            wanted.addRaw(row.type, nothing.data(), stated);
            EXPECT_EQ(generate(some, wanted),
                      (Outcome{CKR_DATA_LEN_RANGE,
                               {"DEBUG C_GenerateKeyPair", tooLong("C_GenerateKeyPair", row.name, stated)}}));
        }
        Template bits;
        bits.addRaw(CKA_MODULUS_BITS, number(1024).data(), stated);
        EXPECT_EQ(generate(bits, some).code, CKR_KEY_SIZE_RANGE);
        Template curve;
        curve.addRaw(CKA_EC_PARAMS, nothing.data(), stated);
        Template ec;
        ec.addNumber(CKA_KEY_TYPE, CKK_EC);
        EXPECT_EQ(generate(curve, ec),
                  (Outcome{CKR_MECHANISM_INVALID,
                           {"DEBUG C_GenerateKeyPair", "DEBUG C_GenerateKeyPair - keytype : 3",
                            text("ERROR C_GenerateKeyPair: unknown EC param (len=", stated, ")")}}));
        // What is ignored may be anything.
        some.addRaw(CKA_PUBLIC_EXPONENT, nothing.data(), stated);
        EXPECT_EQ(generate(some, some).code, CKR_OK);
    }
}

TEST_F(ImpossibleLengthsTest, AreRefusedInADerivation) {
    world.keyPairs["SN1"][0] = makeKeyPair(5, p256);
    world.sharedSecret = countingBytes(0x90, 32);
    CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, 3, three.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    const Lines begun = {"DEBUG C_DeriveKey", "DEBUG key id :: 5",
                         "DEBUG base key id :: " + hexadecimal(countingBytes(5, 16))};
    for (const CK_ULONG stated : impossibleLengths) {
        Template wanted;
        wanted.addRaw(CKA_LABEL, nothing.data(), stated).addRaw(CKA_VALUE_LEN, number(7).data(), stated);
        const auto derive = [&](CK_ULONG count) {
            return observe(
                [&] { return api->C_DeriveKey(session, &mechanism, privateKey(5), wanted.data(), count, &made); });
        };
        const Outcome shortened = derive(2);
        EXPECT_EQ(shortened.code, CKR_OK);
        EXPECT_EQ(shortened.log.back(), text("DEBUG C_DeriveKey: done, handle=", made, " len=7"));
        EXPECT_EQ(derive(1).code, CKR_OK);

        made = 0xEEEEEEEE;
        parameters.ulPublicDataLen = stated;
        EXPECT_EQ(derive(1),
                  (Outcome{CKR_DATA_LEN_RANGE,
                           begun + Lines{text("ERROR C_DeriveKey: public data too long for the device library, "
                                              "ulPublicDataLen=",
                                              stated)},
                           {listKeyPairs}}));
        EXPECT_EQ(made, 0xEEEEEEEE);
        parameters.ulPublicDataLen = 3;

        // Of parameters no more is read than they have.
        CK_MECHANISM longer = {CKM_ECDH1_DERIVE, &parameters, stated};
        EXPECT_EQ(observe([&] { return api->C_DeriveKey(session, &longer, privateKey(5), nullptr, 0, &made); }).code,
                  CKR_OK);
    }
}

// Data of that stated is refused where the library would be called, and ends the operation as a failing call does.
TEST_F(ImpossibleLengthsTest, EndASignature) {
    for (const CK_ULONG count : impossibleLengths) {
        for (const CK_MECHANISM_TYPE type : Numbers{CKM_RSA_PKCS, CKM_RSA_PKCS_PSS, CKM_ECDSA}) {
            begin(type);
            EXPECT_EQ(observe([&] { return api->C_Sign(session, nothing.data(), count, nullptr, &length); }),
                      (Outcome{CKR_DATA_LEN_RANGE,
                               {"DEBUG C_Sign", text("DEBUG sign echanism : ", type),
                                text("DEBUG Sign: password empty=0 hashLen=", count, " session state=3"),
                                text("ERROR C_Sign: data too long for the device library, ulDataLen=", count)}}));
            EXPECT_EQ(sign({1}), notInitialised("C_Sign"));

            beginWith(type, {1, 2});
            EXPECT_EQ(observe([&] { return api->C_SignUpdate(session, nothing.data(), count); }),
                      refused(CKR_DATA_LEN_RANGE,
                              text("C_SignUpdate: part too long for the device library, ulPartLen=", count)));
            EXPECT_EQ(finish(), notInitialised("C_SignFinal"));
            // What came before doesn't join the next signature.
            beginWith(type, {3});
            EXPECT_EQ(finish().device, (Lines{signHash({3}, type == CKM_RSA_PKCS_PSS)}));
        }
    }
}

TEST_F(ImpossibleLengthsTest, ComeAfterTheRefusalsOfAFipsToken) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS, fipsSlot);
    const GuardedMemory digestInfo({0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2B, 0x0E, 0x03, 0x02, 0x1A});
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(observe([&] { return api->C_Sign(session, digestInfo.data(), 0x80000000, nullptr, &length); }),
              (Outcome{CKR_MECHANISM_INVALID,
                       {"DEBUG C_Sign", "DEBUG sign echanism : 1",
                        "ERROR C_Sign: SHA1 DigestInfo signing not allowed on FIPS 140-3 token"}}));
    EXPECT_EQ(sign({1}), notInitialised("C_Sign"));
    if constexpr (sizeof(CK_ULONG) > 4) {
        // So much memory there can't be, and nobody looks for it.
        begin(CKM_RSA_PKCS);
        EXPECT_EQ(api->C_Sign(session, nothing.data(), CK_UNAVAILABLE_INFORMATION, nullptr, &length),
                  CKR_DATA_LEN_RANGE);
    }
}

TEST_F(ImpossibleLengthsTest, EndAVerification) {
    const auto begin = [&](CK_MECHANISM_TYPE type) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        ASSERT_EQ(api->C_VerifyInit(session, &mechanism, publicKey(5)), CKR_OK);
    };
    CK_BYTE byte = 1;
    for (const CK_ULONG count : impossibleLengths) {
        const Outcome tooLongInput = {CKR_DATA_LEN_RANGE,
                                      {"DEBUG C_Verify", "DEBUG Public key is not der need to convert to the der",
                                       text("ERROR C_Verify: input too long for the device library, length=", count)}};
        begin(CKM_RSA_PKCS);
        EXPECT_EQ(observe([&] { return api->C_Verify(session, three.data(), count, &byte, 1); }), tooLongInput);
        EXPECT_EQ(api->C_Verify(session, &byte, 1, &byte, 1), CKR_OPERATION_NOT_INITIALIZED);
        begin(CKM_ECDSA);
        EXPECT_EQ(observe([&] { return api->C_Verify(session, &byte, 1, nothing.data(), count); }), tooLongInput);
        EXPECT_EQ(api->C_Verify(session, &byte, 1, &byte, 1), CKR_OPERATION_NOT_INITIALIZED);

        begin(CKM_RSA_PKCS);
        ASSERT_EQ(api->C_VerifyUpdate(session, &byte, 1), CKR_OK);
        EXPECT_EQ(observe([&] { return api->C_VerifyUpdate(session, nothing.data(), count); }),
                  refused(CKR_DATA_LEN_RANGE,
                          text("C_VerifyUpdate: part too long for the device library, ulPartLen=", count)));
        EXPECT_EQ(api->C_VerifyFinal(session, &byte, 1), CKR_OPERATION_NOT_INITIALIZED);
        begin(CKM_RSA_PKCS);
        ASSERT_EQ(api->C_VerifyUpdate(session, &byte, 1), CKR_OK);
        const Outcome verified = observe([&] { return api->C_VerifyFinal(session, &byte, 1); });
        EXPECT_NE(verified.device.at(0).find("\"SN1\", <01>, 1, "), std::string::npos) << verified.device.at(0);

        begin(CKM_RSA_PKCS);
        ASSERT_EQ(api->C_VerifyUpdate(session, &byte, 1), CKR_OK);
        EXPECT_EQ(
            observe([&] { return api->C_VerifyFinal(session, nothing.data(), count); }),
            refused(CKR_DATA_LEN_RANGE, text("C_VerifyFinal: input too long for the device library, length=", count)));
        EXPECT_EQ(api->C_VerifyFinal(session, &byte, 1), CKR_OPERATION_NOT_INITIALIZED);
    }
}

TEST_F(ImpossibleLengthsTest, EndAnEncryptionAndADecryption) {
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    CK_BYTE byte = 1;
    for (const CK_ULONG count : impossibleLengths) {
        ASSERT_EQ(api->C_EncryptInit(session, &mechanism, publicKey(5)), CKR_OK);
        EXPECT_EQ(
            observe([&] { return api->C_Encrypt(session, nothing.data(), count, nullptr, &length); }),
            refused(CKR_DATA_LEN_RANGE, text("C_Encrypt: data too long for the device library, ulDataLen=", count)));
        EXPECT_EQ(api->C_Encrypt(session, &byte, 1, nullptr, &length), CKR_OPERATION_NOT_INITIALIZED);
        ASSERT_EQ(api->C_DecryptInit(session, &mechanism, privateKey(5)), CKR_OK);
        EXPECT_EQ(observe([&] { return api->C_Decrypt(session, nothing.data(), count, nullptr, &length); }),
                  refused(CKR_DATA_LEN_RANGE,
                          text("C_Decrypt: data too long for the device library, ulEncryptedDataLen=", count)));
        EXPECT_EQ(api->C_Decrypt(session, &byte, 1, nullptr, &length), CKR_OPERATION_NOT_INITIALIZED);
    }
}

TEST_F(ImpossibleLengthsTest, AreNoPins) {
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    for (const CK_ULONG count : impossibleLengths) {
        EXPECT_EQ(api->C_Login(session, CKU_USER, nothing.data(), count), CKR_PIN_LEN_RANGE);
        EXPECT_EQ(api->C_SetPIN(session, nothing.data(), count, pin("123456"), 6), CKR_PIN_LEN_RANGE);
        EXPECT_EQ(api->C_SetPIN(session, pin("123456"), 6, nothing.data(), count), CKR_PIN_LEN_RANGE);
    }
}

}  // namespace

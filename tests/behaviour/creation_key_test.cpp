// C_CreateObject: the import of an RSA private key from its components.

#include "creation_test.h"

using namespace support;

namespace {

constexpr std::size_t bytesOf2048 = 256;

std::string importKey(const Bytes& modulus, const Bytes& exponent, const Bytes& prime, int usage = 3,
                      const std::string& label = "", const Bytes& id = {}, const std::string& pin = "246810",
                      const std::string& token = "SN1") {
    return text("zentak_importPfx(\"", token, "\", \"", pin, "\", {components=[<", hexadecimal(modulus), ">, <>, <",
                hexadecimal(exponent), ">, <", hexadecimal(prime), ">, <>, <>, <>, <>], keyUsage=", usage, ", label=\"",
                label, "\", objectId=<", hexadecimal(id), ">, extra=<>}, instance)");
}

class CreationKeyTest : public CreationTest {
protected:
    void SetUp() override {
        CreationTest::SetUp();
        world.generated = keySix;
    }

    Template components(const Bytes& withModulus) const { return rsaKeyTemplate(withModulus, exponent, prime); }

    const Bytes modulus = countingBytes(0xC1, bytesOf2048);
    const Bytes exponent = countingBytes(0x21, bytesOf2048);
    const Bytes prime = countingBytes(0xE1, bytesOf2048 / 2);
    /// What the components alone let the module log.
    const Lines componentLines = {"DEBUG C_CreateObject", attributeLine(CKA_CLASS), attributeLine(CKA_MODULUS),
                                  attributeLine(CKA_PRIVATE_EXPONENT), attributeLine(CKA_PRIME_1)};
};

TEST_F(CreationKeyTest, TheComponentsAreHandedOn) {
    Template wanted = components(modulus);
    EXPECT_EQ(create(wanted), (Outcome{CKR_OK, componentLines, {importKey(modulus, exponent, prime), listKeyPairs}}));
    EXPECT_EQ(created, privateKey(6));
}

// A number of another length counts with the bytes that there are, and at most with those of a CK_ULONG.
TEST_F(CreationKeyTest, ClassAndKeyTypeOfOtherLengthsAreFilledWithZeros) {
    const Bytes more = {1, 1, 1, 1};
    for (const Bytes& objectClass : {Bytes{3}, Bytes{3, 0}, bytesOf<CK_ULONG>(CKO_PRIVATE_KEY) + more}) {
        for (const Bytes& keyType : {Bytes{0}, Bytes{0, 0, 0}, bytesOf<CK_ULONG>(CKK_RSA) + more}) {
            Template wanted = components(modulus);
            wanted.add(CKA_CLASS, objectClass).add(CKA_KEY_TYPE, keyType);
            EXPECT_EQ(create(wanted).device, (Lines{importKey(modulus, exponent, prime), listKeyPairs}));
        }
        EXPECT_EQ(create(Template().add(CKA_CLASS, objectClass).add(CKA_KEY_TYPE, Bytes{3})).log.back(),
                  "ERROR ECC keypair not supported for import");
    }
}

TEST_F(CreationKeyTest, TheOtherComponentsAreNot) {
    const std::string label = " key label ";
    Template wanted = components(modulus);
    wanted.add(CKA_PUBLIC_EXPONENT, Bytes{1, 0, 1})
        .add(CKA_PRIME_2, Bytes{2})
        .add(CKA_EXPONENT_1, Bytes{3})
        .add(CKA_EXPONENT_2, Bytes{4})
        .add(CKA_COEFFICIENT, Bytes{5})
        .add(CKA_VALUE, Bytes{6})
        .add(CKA_ID, countingBytes(1, 200))
        .add(CKA_LABEL, label.c_str())
        .addNumber(CKA_KEY_TYPE, CKK_RSA)
        .addRaw(CKA_MODULUS, nullptr, 7);
    const Lines more = {attributeLine(CKA_PUBLIC_EXPONENT),
                        attributeLine(CKA_PRIME_2),
                        attributeLine(CKA_EXPONENT_1),
                        attributeLine(CKA_EXPONENT_2),
                        attributeLine(CKA_COEFFICIENT),
                        attributeLine(CKA_VALUE),
                        attributeLine(CKA_ID),
                        attributeLine(CKA_LABEL),
                        attributeLine(CKA_KEY_TYPE)};
    EXPECT_EQ(create(wanted),
              (Outcome{CKR_OK,
                       componentLines + more,
                       {importKey(modulus, exponent, prime, 3, label, countingBytes(1, 200)), listKeyPairs}}));
}

TEST_F(CreationKeyTest, LaterEntriesReplaceEarlierOnes) {
    Template wanted = rsaKeyTemplate(countingBytes(0, 10), {2}, {1});
    wanted.add(CKA_LABEL, "one").add(CKA_ID, Bytes{3}).add(CKA_PRIME_1, prime).add(CKA_PRIVATE_EXPONENT, exponent);
    wanted.add(CKA_MODULUS, modulus).add(CKA_LABEL, "two").add(CKA_ID, Bytes{4});
    EXPECT_EQ(create(wanted).device, (Lines{importKey(modulus, exponent, prime, 3, "two", {4}), listKeyPairs}));
}

TEST_F(CreationKeyTest, UsageIsWhatTheTemplateSays) {
    const std::pair<std::vector<std::pair<CK_ATTRIBUTE_TYPE, Bytes>>, int> rows[] = {
        {{}, 3},
        {{{CKA_DECRYPT, {1}}}, 2},
        {{{CKA_DECRYPT, {0}}}, 0},
        {{{CKA_SIGN, {1}}}, 1},
        {{{CKA_SIGN, {0}}}, 0},
        {{{CKA_SIGN, {1}}, {CKA_DECRYPT, {1}}}, 3},
        {{{CKA_DECRYPT, {1}}, {CKA_SIGN, {0}}}, 2},
        {{{CKA_SIGN, {1}}, {CKA_DECRYPT, {0}}}, 1},
        {{{CKA_SIGN, {0}}, {CKA_DECRYPT, {0}}}, 0},
        {{{CKA_SIGN, {0x80}}, {CKA_DECRYPT, {0xFF}}}, 3},
        {{{CKA_SIGN, {0, 1}}, {CKA_DECRYPT, {2, 0}}}, 2},
        {{{CKA_SIGN, {1}}, {CKA_SIGN, {0}}}, 0},
        {{{CKA_DECRYPT, {0}}, {CKA_DECRYPT, {1}}}, 2},
        {{{CKA_ENCRYPT, {0}}, {CKA_VERIFY, {0}}}, 3},
        {{{CKA_SIGN, {}}, {CKA_DECRYPT, {}}}, 3},
    };
    for (const auto& [entries, usage] : rows) {
        Template wanted = components(modulus);
        for (const auto& [type, value] : entries) wanted.add(type, value);
        EXPECT_EQ(create(wanted).device, (Lines{importKey(modulus, exponent, prime, usage), listKeyPairs}));
    }
}

TEST_F(CreationKeyTest, EllipticCurveKeysAreRefusedFirst) {
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_PRIVATE_KEY).addNumber(CKA_KEY_TYPE, CKK_EC).add(CKA_MODULUS, Bytes{1});
    EXPECT_EQ(create(wanted), (Outcome{CKR_FUNCTION_FAILED,
                                       {"DEBUG C_CreateObject", attributeLine(CKA_CLASS), attributeLine(CKA_KEY_TYPE),
                                        attributeLine(CKA_MODULUS), "ERROR ECC keypair not supported for import"}}));
    EXPECT_EQ(created, untouched);
}

TEST_F(CreationKeyTest, EveryOtherTypeIsRsa) {
    for (const CK_KEY_TYPE type : Numbers{CKK_RSA, CKK_DSA, CKK_DH, CKK_AES, 0x80000003, 0xFFFFFFFF}) {
        Template wanted = components(modulus);
        wanted.addNumber(CKA_KEY_TYPE, type);
        EXPECT_EQ(create(wanted).device, (Lines{importKey(modulus, exponent, prime), listKeyPairs}));
    }
}

TEST_F(CreationKeyTest, ThreeComponentsAreNeeded) {
    for (const CK_ATTRIBUTE_TYPE missing : Numbers{CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1}) {
        Template wanted = components(countingBytes(1, 128));  // too short besides
        wanted[missing == CKA_MODULUS ? 1 : missing == CKA_PRIVATE_EXPONENT ? 2 : 3].ulValueLen = 0;
        Lines lines = componentLines;
        lines.erase(std::find(lines.begin(), lines.end(), attributeLine(missing)));
        EXPECT_EQ(create(wanted),
                  (Outcome{CKR_FUNCTION_FAILED, lines + Lines{"ERROR Invalid input parameters for import RSA key"}}));
        EXPECT_EQ(created, untouched);
    }
}

TEST_F(CreationKeyTest, ShortKeysAreRefusedOnEveryToken) {
    for (const CK_SLOT_ID slot : {firstSlot, fipsSlot}) {
        const CK_SESSION_HANDLE where = openSession(CKF_RW_SESSION, slot);
        for (const std::size_t length : {1U, 127U, 128U}) {
            Template wanted = components(countingBytes(1, length));
            EXPECT_EQ(
                createIn(where, wanted),
                (Outcome{CKR_KEY_SIZE_RANGE,
                         componentLines + Lines{"ERROR C_CreateObject: RSA-1024 key import not allowed \u2014 key "
                                                "size below 112-bit security strength"}}));
            EXPECT_EQ(created, untouched);
        }
    }
}

TEST_F(CreationKeyTest, OneByteMoreIsEnough) {
    Bytes padded = countingBytes(0x81, 128);
    padded.insert(padded.begin(), 0);
    Template wanted = components(padded);
    EXPECT_EQ(create(wanted), (Outcome{CKR_OK, componentLines, {importKey(padded, exponent, prime), listKeyPairs}}));
}

TEST_F(CreationKeyTest, AFailedImportIsReported) {
    for (const auto& [result, code] : importFailures) {
        world.results["zentak_importPfx"] = result;
        Template wanted = components(modulus);
        EXPECT_EQ(create(wanted),
                  (Outcome{code,
                           componentLines + Lines{text("ERROR Import private key into device failed : ", result)},
                           {importKey(modulus, exponent, prime)}}));
        EXPECT_EQ(created, untouched);
    }
}

TEST_F(CreationKeyTest, TheHandleComesFromTheList) {
    ZentakKeyPair twin = labelledKeyPair(0, "twin");
    std::copy_n(keySix.keyId, sizeof twin.keyId, twin.keyId);
    world.keyPairs["SN1"] = {keyFive, twin, keySix};
    Template wanted = components(modulus);
    EXPECT_EQ(create(wanted).code, CKR_OK);
    EXPECT_EQ(created, privateKey(0));

    ZentakKeyPair nearly = keySix;
    nearly.keyId[15] ^= 1U;
    world.keyPairs["SN1"] = {keyFive, nearly};
    EXPECT_EQ(create(wanted), (Outcome{CKR_OK, componentLines, {importKey(modulus, exponent, prime), listKeyPairs}}));
    EXPECT_EQ(created, untouched);
}

TEST_F(CreationKeyTest, NeitherLoginNorAWritableSessionIsNeeded) {
    closeEverything(session);
    world.keyPairs["SN2"] = {keySix};
    const CK_SESSION_HANDLE readOnly = openSessionIn(CKS_RO_PUBLIC_SESSION, fipsSlot);
    Template wanted = components(modulus);
    EXPECT_EQ(createIn(readOnly, wanted).device, (Lines{importKey(modulus, exponent, prime, 3, "", {}, "", "SN2"),
                                                        "zentak_getKeyPairList(\"SN2\", instance)"}));
    EXPECT_EQ(created, privateKey(6));
}

}  // namespace

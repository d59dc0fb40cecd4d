// C_GenerateKeyPair.

#include "signing_test.h"

using namespace support;

namespace {

const Bytes curveP256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
const Bytes curveP384 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
const Bytes curveP521 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};
const Bytes curveSecp256k1 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x0A};

/// What the caller asks of the new key pair, as the record of the call shows it.
struct Wanted {
    int keyType = rsa2048;
    int keyUsage = 3;
    std::string alias = "";
    Bytes objectId = {};
    std::string token = "SN1";
    std::string password = "246810";
};

std::string generateCall(const Wanted& wanted) {
    return text("zentak_generateKeyPair(\"", wanted.token, "\", \"", wanted.password, "\", {objectId=<",
                hexadecimal(wanted.objectId), ">, objectIdLength=", wanted.objectId.size(), ", alias=\"", wanted.alias,
                "\", keyUsage=", wanted.keyUsage, ", keyType=", wanted.keyType, "}, instance)");
}

std::string bitsLine(CK_ULONG bits) {
    return text("DEBUG C_GenerateKeyPair - modulusBits : ", bits);
}

class KeyGenerationTest : public SigningTest {
protected:
    static constexpr CK_OBJECT_HANDLE untouched = 0xEEEEEEEE;

    void SetUp() override {
        SigningTest::SetUp();
        session = reopen(session, CKS_RW_USER_FUNCTIONS);
        world.generated = makeKeyPair(9);
        // A template with nothing to read in it.
        publicTemplate.add(CKA_TOKEN, true);
        privateTemplate.add(CKA_TOKEN, true);
    }

    Outcome generate() {
        publicHandle = untouched;
        privateHandle = untouched;
        return observe([&] {
            return api->C_GenerateKeyPair(session, &mechanism, publicTemplate.data(), publicTemplate.count(),
                                          privateTemplate.data(), privateTemplate.count(), &publicHandle,
                                          &privateHandle);
        });
    }
    /// A success after these lines on the way.
    static Outcome generated(const Wanted& wanted, CK_ULONG keyType = CKK_RSA, const Lines& between = {}) {
        return {CKR_OK, start(keyType) + between + Lines{"DEBUG C_GenerateKeyPair - exit"}, {generateCall(wanted)}};
    }
    static Lines start(CK_ULONG keyType) {
        return {"DEBUG C_GenerateKeyPair", text("DEBUG C_GenerateKeyPair - keytype : ", keyType)};
    }
    bool handlesUntouched() const { return publicHandle == untouched && privateHandle == untouched; }

    CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    Template publicTemplate;
    Template privateTemplate;
    CK_OBJECT_HANDLE publicHandle = untouched;
    CK_OBJECT_HANDLE privateHandle = untouched;
};

TEST_F(KeyGenerationTest, TheDefaultIsAnRsa2048KeyPairForEverything) {
    EXPECT_EQ(generate(), generated({}));
    EXPECT_EQ(publicHandle, publicKey(9));
    EXPECT_EQ(privateHandle, privateKey(9));
}

TEST_F(KeyGenerationTest, TheHandlesFollowTheNewNumber) {
    for (const std::uint32_t id : {0U, 1U, 4095U}) {
        world.generated.id = id;
        EXPECT_EQ(generate().code, CKR_OK);
        EXPECT_EQ(publicHandle, publicKey(id));
        EXPECT_EQ(privateHandle, privateKey(id));
    }
}

TEST_F(KeyGenerationTest, ChecksInTheirOrder) {
    const CK_SESSION_HANDLE good = session;
    unsigned char parameter = 0;
    CK_MECHANISM parameterised = {CKM_RSA_PKCS_KEY_PAIR_GEN, &parameter, 1};
    CK_ATTRIBUTE* publicEntries = publicTemplate.data();
    CK_ATTRIBUTE* privateEntries = privateTemplate.data();
    const auto call = [&](CK_MECHANISM* method, CK_ATTRIBUTE* first, CK_ULONG firstCount, CK_ATTRIBUTE* second,
                          CK_ULONG secondCount, CK_OBJECT_HANDLE* firstHandle, CK_OBJECT_HANDLE* secondHandle) {
        return observe([&] {
            return api->C_GenerateKeyPair(session, method, first, firstCount, second, secondCount, firstHandle,
                                          secondHandle);
        });
    };
    const auto callWithNothing = [&](CK_MECHANISM* method) {
        return call(method, nullptr, 0, nullptr, 0, nullptr, nullptr);
    };

    session = 7;
    EXPECT_EQ(callWithNothing(nullptr), refused(CKR_SESSION_HANDLE_INVALID, "C_GenerateKeyPair: invalid hSession=7"));
    session = openSession(0, fipsSlot);
    EXPECT_EQ(callWithNothing(nullptr),
              refused(CKR_SESSION_HANDLE_INVALID, text("C_GenerateKeyPair: invalid session state=", stateOf(session))));
    session = good;
    EXPECT_EQ(callWithNothing(nullptr), refused(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: pMechanism is NULL"));
    EXPECT_EQ(callWithNothing(&parameterised),
              refused(CKR_MECHANISM_PARAM_INVALID, "C_GenerateKeyPair: mechanism param invalid for mechanism=0"));
    EXPECT_EQ(callWithNothing(&mechanism), refused(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: pPublicKeyTemplate is NULL"));
    EXPECT_EQ(call(&mechanism, nullptr, 1, nullptr, 0, nullptr, nullptr),
              refused(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: pPublicKeyTemplate is NULL"));
    EXPECT_EQ(call(&mechanism, publicEntries, 0, nullptr, 0, nullptr, nullptr),
              refused(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: ulPublicKeyAttributeCount<=0"));
    EXPECT_EQ(call(&mechanism, publicEntries, 1, nullptr, 0, nullptr, nullptr),
              refused(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: pPrivateKeyTemplate is NULL"));
    EXPECT_EQ(call(&mechanism, publicEntries, 1, privateEntries, 0, nullptr, nullptr),
              refused(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: ulPrivateKeyAttributeCount<=0"));
    EXPECT_EQ(call(&mechanism, publicEntries, 1, privateEntries, 1, nullptr, nullptr),
              refused(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: phPublicKey is NULL"));
    EXPECT_EQ(call(&mechanism, publicEntries, 1, privateEntries, 1, &publicHandle, nullptr),
              refused(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: phPrivateKey is NULL"));
    EXPECT_TRUE(handlesUntouched());

    api->C_Finalize(nullptr);
    session = 7;
    EXPECT_EQ(callWithNothing(nullptr), refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_GenerateKeyPair: not initialized"));
}

TEST_F(KeyGenerationTest, AReadOnlySessionIsAnInvalidHandle) {
    session = reopen(session, CKS_RO_USER_FUNCTIONS);
    EXPECT_EQ(generate(), refused(CKR_SESSION_HANDLE_INVALID, "C_GenerateKeyPair: invalid session state=1"));
    session = reopen(session, CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(generate(), refused(CKR_SESSION_HANDLE_INVALID, "C_GenerateKeyPair: invalid session state=0"));
    EXPECT_TRUE(handlesUntouched());
}

TEST_F(KeyGenerationTest, NobodyHasToBeLoggedIn) {
    session = reopen(session, CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(generate(), generated({.password = ""}));
}

TEST_F(KeyGenerationTest, TheSecurityOfficersSessionIsAccepted) {
    session = reopen(session, CKS_RW_SO_FUNCTIONS);
    const Outcome outcome = generate();
    EXPECT_EQ(outcome.code, CKR_OK);
    EXPECT_EQ(outcome.log, generated({}).log);
    EXPECT_EQ(outcome.device.size(), 1U);
}

TEST_F(KeyGenerationTest, AnyParameterIsRefusedAndAnyMechanismTypeAccepted) {
    unsigned char parameter = 0;
    mechanism = {CKM_EC_KEY_PAIR_GEN, &parameter, 0};
    EXPECT_EQ(generate(),
              refused(CKR_MECHANISM_PARAM_INVALID, "C_GenerateKeyPair: mechanism param invalid for mechanism=4160"));
    mechanism = {CKM_MD5, nullptr, 1};
    EXPECT_EQ(generate(),
              refused(CKR_MECHANISM_PARAM_INVALID, "C_GenerateKeyPair: mechanism param invalid for mechanism=528"));
    EXPECT_TRUE(handlesUntouched());
    // The private template's key type decides, so an EC mechanism makes an RSA key pair.
    for (const CK_MECHANISM_TYPE type : Numbers{CKM_EC_KEY_PAIR_GEN, CKM_MD5}) {
        mechanism = {type, nullptr, 0};
        EXPECT_EQ(generate(), generated({}));
    }
}

TEST_F(KeyGenerationTest, TheModulusBitsChooseTheKeyType) {
    const std::pair<CK_ULONG, int> rows[] = {{2048, rsa2048}, {3072, rsa3072}, {4096, rsa4096}};
    for (const auto& [bits, keyType] : rows) {
        publicTemplate = {};
        publicTemplate.addNumber(CKA_MODULUS_BITS, bits);
        EXPECT_EQ(generate(), generated({.keyType = keyType}, CKK_RSA, {bitsLine(bits)}));
    }
}

TEST_F(KeyGenerationTest, ALaterSizeOverridesAnEarlierOne) {
    publicTemplate.addNumber(CKA_MODULUS_BITS, 2048)
        .addNumber(CKA_MODULUS_BITS, 4096)
        .addNumber(CKA_MODULUS_BITS, 3072);
    EXPECT_EQ(generate(), generated({.keyType = rsa3072}, CKK_RSA, {bitsLine(2048), bitsLine(4096), bitsLine(3072)}));
}

TEST_F(KeyGenerationTest, Rsa1024IsRefusedOnEveryToken) {
    // Also where a later entry would have asked for more.
    publicTemplate.addNumber(CKA_MODULUS_BITS, 1024).addNumber(CKA_MODULUS_BITS, 2048);
    const Outcome expected = {CKR_KEY_SIZE_RANGE,
                              start(CKK_RSA) + Lines{bitsLine(1024),
                                                     "ERROR C_GenerateKeyPair: RSA-1024 key generation not allowed — "
                                                     "key size below 112-bit security strength"}};
    EXPECT_EQ(generate(), expected);
    session = reopen(session, CKS_RW_PUBLIC_SESSION, fipsSlot);
    EXPECT_EQ(generate(), expected);
    EXPECT_TRUE(handlesUntouched());
}

TEST_F(KeyGenerationTest, OtherSizesAreRefused) {
    for (const CK_ULONG bits : Numbers{0, 512, 1023, 1025, 1536, 2047, 2049, 8192, 0xFFFFFFFF}) {
        publicTemplate = {};
        publicTemplate.addNumber(CKA_MODULUS_BITS, 2048).addNumber(CKA_MODULUS_BITS, bits);
        EXPECT_EQ(
            generate(),
            (Outcome{CKR_MECHANISM_INVALID,
                     start(CKK_RSA) + Lines{bitsLine(2048), bitsLine(bits),
                                            text("ERROR C_GenerateKeyPair: unsupported RSA modulusBits=", bits)}}));
        EXPECT_TRUE(handlesUntouched());
    }
}

TEST_F(KeyGenerationTest, TheCurveChoosesTheKeyType) {
    privateTemplate.addNumber(CKA_KEY_TYPE, CKK_EC);
    EXPECT_EQ(generate(), generated({.keyType = p256}, CKK_EC));
    const std::pair<Bytes, int> rows[] = {{curveP256, p256}, {curveP384, p384}, {curveP521, p521}};
    for (const auto& [curve, keyType] : rows) {
        publicTemplate = {};
        publicTemplate.add(CKA_EC_PARAMS, curve);
        EXPECT_EQ(generate(), generated({.keyType = keyType}, CKK_EC));
    }
    publicTemplate.add(CKA_EC_PARAMS, curveP384);  // behind P-521
    EXPECT_EQ(generate(), generated({.keyType = p384}, CKK_EC));
}

TEST_F(KeyGenerationTest, OtherCurvesAreRefused) {
    privateTemplate.addNumber(CKA_KEY_TYPE, CKK_EC);
    Bytes cut = curveP256;
    cut.pop_back();
    for (const Bytes& curve : {curveSecp256k1, cut, curveP256 + Bytes{0}, curveP384 + Bytes{0}, Bytes{0x06},
                               charactersOf("P-256"), charactersOf("prime256v1"), Bytes(300, 0x30)}) {
        publicTemplate = {};
        publicTemplate.add(CKA_EC_PARAMS, curveP256).add(CKA_EC_PARAMS, curve);
        EXPECT_EQ(generate(),
                  (Outcome{CKR_MECHANISM_INVALID,
                           start(CKK_EC) +
                               Lines{text("ERROR C_GenerateKeyPair: unknown EC param (len=", curve.size(), ")")}}));
        EXPECT_TRUE(handlesUntouched());
    }
}

TEST_F(KeyGenerationTest, EachKeyTypeReadsOnlyItsOwnAttribute) {
    publicTemplate.add(CKA_EC_PARAMS, curveSecp256k1);
    EXPECT_EQ(generate(), generated({}));

    publicTemplate.addNumber(CKA_MODULUS_BITS, 1024);
    publicTemplate[1].type = CKA_PUBLIC_EXPONENT;
    privateTemplate.addNumber(CKA_KEY_TYPE, CKK_EC);
    EXPECT_EQ(generate(), generated({.keyType = p256}, CKK_EC));

    // Of any other key type nothing is read, and RSA 2048 stays.
    publicTemplate[1].type = CKA_EC_PARAMS;
    for (const CK_ULONG keyType : Numbers{CKK_DSA, CKK_DH, 4, 0xFFFFFFFF}) {
        privateTemplate = {};
        privateTemplate.addNumber(CKA_KEY_TYPE, keyType);
        EXPECT_EQ(generate(), generated({}, keyType));
    }
}

TEST_F(KeyGenerationTest, TheMechanismAndThePublicTemplateDontChooseTheAlgorithm) {
    mechanism.mechanism = CKM_EC_KEY_PAIR_GEN;
    publicTemplate.addNumber(CKA_KEY_TYPE, CKK_EC).add(CKA_EC_PARAMS, curveP384);
    EXPECT_EQ(generate(), generated({}));
}

TEST_F(KeyGenerationTest, EmptyEntriesAreSkipped) {
    CK_ULONG bits = 1024;
    CK_ULONG keyType = CKK_EC;
    unsigned char yes = 1;
    publicTemplate.addRaw(CKA_MODULUS_BITS, &bits, 0).addRaw(CKA_MODULUS_BITS, nullptr, sizeof bits);
    privateTemplate.addRaw(CKA_KEY_TYPE, &keyType, 0)
        .addRaw(CKA_KEY_TYPE, nullptr, sizeof keyType)
        .addRaw(CKA_SIGN, &yes, 0)
        .addRaw(CKA_DECRYPT, nullptr, 1)
        .addRaw(CKA_LABEL, &yes, 0)
        .addRaw(CKA_LABEL, nullptr, 5)
        .addRaw(CKA_ID, &yes, 0)
        .addRaw(CKA_ID, nullptr, 5);
    EXPECT_EQ(generate(), generated({}));

    privateTemplate.addNumber(CKA_KEY_TYPE, CKK_EC);
    publicTemplate.addRaw(CKA_EC_PARAMS, &yes, 0).addRaw(CKA_EC_PARAMS, nullptr, 7);
    EXPECT_EQ(generate(), generated({.keyType = p256}, CKK_EC));
}

TEST_F(KeyGenerationTest, ThePrivateTemplateGivesLabelIdAndUsage) {
    publicTemplate.add(CKA_LABEL, "public").add(CKA_ID, Bytes{7}).add(CKA_VERIFY, true).add(CKA_ENCRYPT, true);
    publicTemplate.add(CKA_SIGN, true).add(CKA_DECRYPT, true);
    privateTemplate.add(CKA_LABEL, "mail key").add(CKA_ID, Bytes{0x0A, 0x00, 0xFF}).add(CKA_SIGN, true);
    EXPECT_EQ(generate(), generated({.keyUsage = 1, .alias = "mail key", .objectId = {0x0A, 0x00, 0xFF}}));
}

TEST_F(KeyGenerationTest, UsageBits) {
    struct Row {
        Bytes sign;
        Bytes decrypt;
        int usage;
    };
    // An empty value is an entry that is skipped; only the first byte counts.
    for (const Row& row : {Row{{1}, {}, 1}, Row{{}, {1}, 2}, Row{{1}, {1}, 3}, Row{{}, {}, 3}, Row{{0}, {0}, 3},
                           Row{{0}, {1}, 2}, Row{{1}, {0}, 1}, Row{{0xFF}, {0}, 1}, Row{{0, 1}, {2}, 2}}) {
        privateTemplate = {};
        privateTemplate.add(CKA_SIGN, row.sign).add(CKA_DECRYPT, row.decrypt);
        EXPECT_EQ(generate(), generated({.keyUsage = row.usage}));
    }
}

TEST_F(KeyGenerationTest, TheLastOfSeveralUsagesCounts) {
    const std::pair<std::vector<std::pair<CK_ATTRIBUTE_TYPE, Bytes>>, int> rows[] = {
        {{{CKA_SIGN, {1}}, {CKA_SIGN, {0}}}, 3},
        {{{CKA_SIGN, {0}}, {CKA_SIGN, {1}}}, 1},
        {{{CKA_SIGN, {1}}, {CKA_DECRYPT, {1}}, {CKA_SIGN, {0}}}, 2},
        {{{CKA_DECRYPT, {1}}, {CKA_SIGN, {1}}, {CKA_DECRYPT, {0}}}, 1},
        {{{CKA_DECRYPT, {0}}, {CKA_DECRYPT, {1}}, {CKA_SIGN, {1}}, {CKA_SIGN, {1}}}, 3},
        // An entry without a value isn't one.
        {{{CKA_SIGN, {1}}, {CKA_SIGN, {}}}, 1},
    };
    for (const auto& [entries, usage] : rows) {
        privateTemplate = {};
        for (const auto& [type, value] : entries) privateTemplate.add(type, value);
        EXPECT_EQ(generate(), generated({.keyUsage = usage}));
    }
}

// A number of another length counts with the bytes that there are, and at most with those of a CK_ULONG.
TEST_F(KeyGenerationTest, NumbersOfOtherLengthsAreFilledWithZeros) {
    Bytes shortest = {3};  // CKK_EC
    Bytes tooLong = bytesOf<CK_ULONG>(CKK_EC) + Bytes{1, 1, 1, 1};
    for (const Bytes& type : {shortest, Bytes{3, 0}, Bytes{3, 0, 0}, tooLong}) {
        privateTemplate = {};
        privateTemplate.add(CKA_KEY_TYPE, type);
        Wanted wanted;
        wanted.keyType = p256;
        EXPECT_EQ(generate(), generated(wanted, CKK_EC));
    }
    for (const Bytes& bits : {Bytes{0, 0x10}, Bytes{0, 0x10, 0}, bytesOf<CK_ULONG>(4096) + Bytes{1}}) {
        privateTemplate = {};
        privateTemplate.add(CKA_TOKEN, true);
        publicTemplate = {};
        publicTemplate.add(CKA_MODULUS_BITS, bits);
        Wanted wanted;
        wanted.keyType = rsa4096;
        EXPECT_EQ(generate(), generated(wanted, CKK_RSA, {bitsLine(4096)}));
    }
}

TEST_F(KeyGenerationTest, OtherUsageAttributesDontCount) {
    privateTemplate.add(CKA_SIGN, true).add(CKA_ENCRYPT, true).add(CKA_VERIFY, true).add(CKA_DERIVE, true);
    privateTemplate.add(CKA_UNWRAP, true);
    EXPECT_EQ(generate(), generated({.keyUsage = 1}));
}

TEST_F(KeyGenerationTest, LabelAndIdAreCutTo128Bytes) {
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{127}, std::size_t{128}, std::size_t{129}, std::size_t{5000}}) {
        const std::size_t kept = std::min<std::size_t>(size, 128);
        privateTemplate = {};
        privateTemplate.add(CKA_LABEL, Bytes(size, 'x')).add(CKA_ID, countingBytes(1, size));
        EXPECT_EQ(generate(), generated({.alias = std::string(kept, 'x'), .objectId = countingBytes(1, kept)})) << size;
    }
}

TEST_F(KeyGenerationTest, OfALongerLabelAndIdNothingRemainsBehindLaterOnes) {
    privateTemplate.add(CKA_LABEL, "the first label").add(CKA_ID, Bytes{1, 2, 3, 4});
    privateTemplate.add(CKA_LABEL, "new").add(CKA_ID, Bytes{9});
    EXPECT_EQ(generate(), generated({.alias = "new", .objectId = {9}}));
}

TEST_F(KeyGenerationTest, FailuresNameTheResult) {
    const std::pair<int, CK_RV> rows[] = {
        {40, CKR_DEVICE_MEMORY},   {242, CKR_DEVICE_MEMORY},  {1, CKR_FUNCTION_FAILED}, {39, CKR_FUNCTION_FAILED},
        {41, CKR_FUNCTION_FAILED}, {48, CKR_FUNCTION_FAILED}, {-1, CKR_FUNCTION_FAILED}};
    for (const auto& [result, code] : rows) {
        setResult("zentak_generateKeyPair", result);
        EXPECT_EQ(generate(), (Outcome{code,
                                       start(CKK_RSA) + Lines{text("ERROR Generate key pair failed : ", result)},
                                       {generateCall({})}}));
        EXPECT_TRUE(handlesUntouched());
    }
}

TEST_F(KeyGenerationTest, ARunningOperationIsLeftAlone) {
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(generate(), generated({}));
    EXPECT_EQ(sign({1}).code, CKR_OK);
}

}  // namespace

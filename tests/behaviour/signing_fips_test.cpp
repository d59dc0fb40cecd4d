// Signing on a FIPS 140-3 token: mechanisms that are refused, and SHA-1 or MD5 hashes that are recognised in raw input.

#include "signing_test.h"

using namespace support;

namespace {

class SigningFipsTest : public SigningTest {
protected:
    void SetUp() override {
        SigningTest::SetUp();
        ordinary = session;
        session = openSession(0, fipsSlot);  // logged in with the PIN that is cached
        ASSERT_EQ(stateOf(session), CKS_RO_USER_FUNCTIONS);
    }

    CK_SESSION_HANDLE ordinary = 0;
};

Outcome scanRefused(CK_MECHANISM_TYPE type, const std::string& reason) {
    return {CKR_MECHANISM_INVALID,
            {"DEBUG C_Sign", text("DEBUG sign echanism : ", type),
             "ERROR C_Sign: " + reason + " not allowed on FIPS 140-3 token"}};
}

const Bytes sha1Identifier = {0x2B, 0x0E, 0x03, 0x02, 0x1A};
const Bytes md5Identifier = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05};
const Bytes sha1DigestInfo =
    Bytes{0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2B, 0x0E, 0x03, 0x02, 0x1A, 0x05, 0x00, 0x04, 0x14} + Bytes(20, 0x77);
const Bytes md5DigestInfo =
    Bytes{0x30, 0x20, 0x30, 0x0C, 0x06, 0x08, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10} +
    Bytes(16, 0x77);
const Bytes sha256DigestInfo = Bytes{0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                     0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20} +
                               Bytes(32, 0x77);

TEST_F(SigningFipsTest, ExactlyFiveMechanismsAreRefused) {
    int refusals = 0;
    for (const SignMechanism& mechanism : signMechanisms) {
        SCOPED_TRACE(mechanism.type);
        const Outcome outcome = init({mechanism.type, nullptr, 0}, privateKey(5));
        if (mechanism.onFips) {
            EXPECT_EQ(outcome, succeeded("C_SignInit", {"zentak_getKeyPairList(\"SN2\", instance)"}));
        } else {
            ++refusals;
            EXPECT_EQ(outcome, refused(CKR_MECHANISM_INVALID, "C_SignInit: mechanism not allowed on FIPS 140-3 token"));
        }
        abandon();
    }
    EXPECT_EQ(refusals, 5);
}

TEST_F(SigningFipsTest, UnknownMechanismsAreUnsupportedHereToo) {
    std::vector<std::uint64_t> others = {CKM_MD5_RSA_PKCS, CKM_SHA_1, CKM_SHA1_RSA_X9_31, CKM_DSA_SHA1};
    if constexpr (sizeof(CK_ULONG) == 8) others.push_back((std::uint64_t{1} << 32U) + CKM_SHA1_RSA_PKCS);
    for (const std::uint64_t type : others) {
        EXPECT_EQ(init({static_cast<CK_MECHANISM_TYPE>(type), nullptr, 0}, privateKey(5)),
                  refused(CKR_MECHANISM_INVALID, text("C_SignInit: unsupported mechanism=", type)));
    }
}

TEST_F(SigningFipsTest, TheRefusalHasItsPlaceBetweenTheMechanismAndItsParameter) {
    unsigned char parameter[1] = {};
    EXPECT_EQ(observe([&] { return api->C_SignInit(session, nullptr, 0); }).log.back(),
              "ERROR C_SignInit: pMechanism is NULL");
    EXPECT_EQ(init({CKM_SHA1_RSA_PKCS, parameter, 1}, 0).log.back(),
              "ERROR C_SignInit: mechanism not allowed on FIPS 140-3 token");
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(init({CKM_SHA1_RSA_PKCS, nullptr, 0}, 0).log.back(),
              "ERROR C_SignInit: operation already active, activeOperation=5");
}

TEST_F(SigningFipsTest, TheModelDecides) {
    struct Row {
        std::string model;
        bool fips;
    };
    const Row rows[] = {{"", true},      {"1", true},     {"11", true},  {"111", false}, {"AB1", false},
                        {"AB1X", false}, {"AB2", true},   {"AB", true},  {"1AB", true},  {"A1B1", true},
                        {"ABI1", true},  {"ab13", false}, {"  1", false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.model);
        world.tokenInfo["SN1"].model = row.model;
        listSlots();
        session = openSession();
        EXPECT_EQ(init({CKM_SHA1_RSA_PKCS, nullptr, 0}, privateKey(5)).code, row.fips ? CKR_MECHANISM_INVALID : CKR_OK);
        ASSERT_EQ(api->C_CloseSession(session), CKR_OK);
    }
}

TEST_F(SigningFipsTest, TheModelIsThatOfTheSessionsStart) {
    world.tokenInfo["SN1"].model = "AB3X";
    world.tokenInfo["SN2"].model = "AB1X";
    listSlots();
    EXPECT_EQ(init({CKM_SHA1_RSA_PKCS, nullptr, 0}, privateKey(5)).code, CKR_MECHANISM_INVALID);
    EXPECT_EQ(initIn(ordinary, {CKM_SHA1_RSA_PKCS, nullptr, 0}, privateKey(5)).code, CKR_OK);
}

struct ScanRow {
    const char* what;
    Bytes data;
    std::string refusal;  ///< empty where the data pass
};

TEST_F(SigningFipsTest, RsaInputIsScannedForHashIdentifiers) {
    const std::string sha1 = "SHA1 DigestInfo signing";
    const std::string md5 = "MD5 DigestInfo signing";
    const ScanRow rows[] = {
        {"SHA-1", sha1DigestInfo, sha1},
        {"MD5", md5DigestInfo, md5},
        {"SHA-256", sha256DigestInfo, ""},
        {"a bare hash", Bytes(20, 0x55), ""},
        {"a short bare hash", Bytes(16, 0x55), ""},
        {"20 bytes that begin like a structure", Bytes{0x30} + Bytes(19, 0x55), ""},
        {"10 bytes", Bytes{0x30, 0, 0, 0, 0} + sha1Identifier, ""},
        {"11 bytes, at the end", Bytes{0x30, 0, 0, 0, 0, 0} + sha1Identifier, sha1},
        {"11 bytes, right after the first", Bytes{0x30} + sha1Identifier + Bytes(5, 0), sha1},
        {"another first byte", Bytes{0x31} + sha1Identifier + Bytes(20, 0), ""},
        {"beginning with the identifier", sha1Identifier + Bytes(20, 0), ""},
        {"in the middle of a hash", Bytes{0x30} + Bytes(30, 9) + sha1Identifier + Bytes(30, 9), sha1},
        {"at the very end of a long input", Bytes{0x30} + Bytes(500, 9) + sha1Identifier, sha1},
        {"the identifier cut short", Bytes{0x30} + Bytes(20, 9) + Bytes{0x2B, 0x0E, 0x03, 0x02}, ""},
        {"another identifier of that family", Bytes{0x30} + Bytes{0x2B, 0x0E, 0x03, 0x02, 0x1B} + Bytes(20, 9), ""},
        {"a false start before it", Bytes{0x30, 0x2B, 0x0E, 0x03, 0x2B, 0x0E} + sha1Identifier, sha1},
        {"a doubled first byte before it", Bytes{0x30, 0, 0, 0, 0, 0, 0x2B} + sha1Identifier, sha1},
        {"MD5, 11 bytes, at the end", Bytes{0x30, 0, 0} + md5Identifier, md5},
        {"MD5, 10 bytes", Bytes{0x30, 0} + md5Identifier, ""},
        {"MD5, another first byte", Bytes{0x31} + md5Identifier + Bytes(20, 0), ""},
        {"MD5 at the very end", Bytes{0x30} + Bytes(500, 9) + md5Identifier, md5},
        {"MD5 cut short", Bytes{0x30} + Bytes(20, 9) + Bytes(md5Identifier.begin(), md5Identifier.end() - 1), ""},
        {"both, MD5 first", Bytes{0x30} + md5Identifier + sha1Identifier, sha1},
        {"both, SHA-1 first", Bytes{0x30} + sha1Identifier + md5Identifier, sha1},
    };
    for (const ScanRow& row : rows) {
        SCOPED_TRACE(row.what);
        begin(CKM_RSA_PKCS);
        if (row.refusal.empty()) {
            EXPECT_EQ(sign(row.data).device, (Lines{signHash(row.data, false, "SN2")}));
        } else {
            EXPECT_EQ(sign(row.data), scanRefused(CKM_RSA_PKCS, row.refusal));
            EXPECT_EQ(sign(row.data), notInitialised("C_Sign"));
        }
        signInit(ordinary, CKM_RSA_PKCS, 5);
        EXPECT_EQ(signIn(ordinary, row.data).device, (Lines{signHash(row.data)}));
    }
}

TEST_F(SigningFipsTest, OtherRawInputIsJudgedByItsLength) {
    for (const auto& [type, name] :
         {std::pair<CK_MECHANISM_TYPE, const char*>{CKM_ECDSA, "CKM_ECDSA"}, {CKM_RSA_PKCS_PSS, "CKM_RSA_PKCS_PSS"}}) {
        for (const std::size_t size : {1U, 15U, 16U, 17U, 19U, 20U, 21U, 28U, 32U, 48U, 64U}) {
            SCOPED_TRACE(text(name, " ", size));
            const Bytes data = countingBytes(0x30, size);
            const bool pss = type == CKM_RSA_PKCS_PSS;
            begin(type);
            if (size == 20 || size == 16) {
                EXPECT_EQ(sign(data), scanRefused(type, text(size == 20 ? "SHA1" : "MD5", " hash signing via ", name)));
                EXPECT_EQ(sign(data), notInitialised("C_Sign"));
            } else {
                EXPECT_EQ(sign(data).device, (Lines{signHash(data, pss, "SN2")}));
            }
            signInit(ordinary, type, 5);
            EXPECT_EQ(signIn(ordinary, data).device, (Lines{signHash(data, pss)}));
        }
        for (const Bytes& data : {sha1DigestInfo, md5DigestInfo}) {  // only the length counts here
            begin(type);
            EXPECT_EQ(sign(data).code, CKR_OK);
        }
    }
}

TEST_F(SigningFipsTest, ARefusalLeavesTheOutputAsItWas) {
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(sign(sha1DigestInfo).code, CKR_MECHANISM_INVALID);
    EXPECT_EQ(length, 2000U);
    EXPECT_TRUE(room.untouchedFrom(0));
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(signSize(sha1DigestInfo), scanRefused(CKM_RSA_PKCS, "SHA1 DigestInfo signing"));
    EXPECT_EQ(length, 2000U);
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(sign(sha256DigestInfo).device, (Lines{signHash(sha256DigestInfo, false, "SN2")}));
}

TEST_F(SigningFipsTest, ARefusalKeepsThePartsOfBefore) {
    beginWith(CKM_RSA_PKCS, {1, 2});
    EXPECT_EQ(sign(sha1DigestInfo).code, CKR_MECHANISM_INVALID);
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(finish().device, (Lines{signHash({1, 2}, false, "SN2")}));
}

TEST_F(SigningFipsTest, DataThatTheModuleHashesAreNotScanned) {
    for (const CK_MECHANISM_TYPE type : Numbers{CKM_SHA256_RSA_PKCS, CKM_SHA256_RSA_PKCS_PSS, CKM_ECDSA_SHA256}) {
        for (const Bytes& data : {sha1DigestInfo, md5DigestInfo, Bytes(20, 1), Bytes(16, 1)}) {
            begin(type);
            EXPECT_EQ(sign(data).code, CKR_OK);
        }
    }
}

// Nor is the digest, whatever its length.
TEST_F(SigningFipsTest, DigestsAreNotScanned) {
    world.digest = Bytes(20, 0x30);
    begin(CKM_ECDSA_SHA256);
    EXPECT_EQ(sign({1}).device.back(), signHash(world.digest, false, "SN2"));
    begin(CKM_SHA224_RSA_PKCS);
    world.digest = sha1DigestInfo;
    EXPECT_EQ(sign({1}).device.back(), signHash(world.digest, false, "SN2"));
}

TEST_F(SigningFipsTest, PartsAreNotScanned) {
    beginWith(CKM_RSA_PKCS, sha1DigestInfo);
    EXPECT_EQ(finish().device, (Lines{signHash(sha1DigestInfo, false, "SN2")}));
    beginWith(CKM_ECDSA, Bytes(20, 1));
    EXPECT_EQ(finish().device, (Lines{signHash(Bytes(20, 1), false, "SN2")}));
    beginWith(CKM_RSA_PKCS_PSS, Bytes(16, 1));
    EXPECT_EQ(finish().device, (Lines{signHash(Bytes(16, 1), true, "SN2")}));
}

TEST_F(SigningFipsTest, AWaitingSignatureIsDeliveredWithoutAScan) {
    begin(CKM_RSA_PKCS);
    ASSERT_EQ(signSize(sha256DigestInfo).code, CKR_OK);
    EXPECT_EQ(sign(sha1DigestInfo), (Outcome{CKR_OK, {"DEBUG C_Sign", "DEBUG sign echanism : 1"}}));
    EXPECT_EQ(room.first(256), signature);
}

}  // namespace

// docs/functions.md: each mechanism with its number, sizes and flags, the functions that begin with it, and what is
// different on a FIPS 140-3 token.

#include <set>

#include "document_tables.h"
#include "object_test.h"

using namespace support;

namespace {

using Names = std::vector<std::string>;

class MechanismsDocumentTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        world.sharedSecret = countingBytes(1, 32);
    }

    Numbers listOf(CK_SLOT_ID slot) const {
        Numbers listed(64);
        CK_ULONG count = 64;
        EXPECT_EQ(api->C_GetMechanismList(slot, listed.data(), &count), CKR_OK);
        listed.resize(count);
        return listed;
    }

    /// The functions that take the mechanism in a session with this slot, each asked in a session of its own.
    Names begunBy(CK_MECHANISM_TYPE type, CK_SLOT_ID slot = firstSlot) const {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        Names names;
        const auto ask = [&](const char* name, const auto& call) {
            const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION, slot);
            if (call(session) == CKR_OK) names.emplace_back(name);
            EXPECT_EQ(api->C_CloseSession(session), CKR_OK);
        };
        ask("C_SignInit", [&](auto session) { return api->C_SignInit(session, &mechanism, privateKey(5)); });
        ask("C_VerifyInit", [&](auto session) { return api->C_VerifyInit(session, &mechanism, publicKey(5)); });
        ask("C_EncryptInit", [&](auto session) { return api->C_EncryptInit(session, &mechanism, publicKey(5)); });
        ask("C_DecryptInit", [&](auto session) { return api->C_DecryptInit(session, &mechanism, privateKey(5)); });
        ask("C_DigestInit", [&](auto session) { return api->C_DigestInit(session, &mechanism); });
        Bytes peer = countingBytes(1, 65);
        CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, 65, peer.data()};
        CK_MECHANISM derivation = {type, &parameters, sizeof parameters};
        CK_OBJECT_HANDLE secret = 0;
        ask("C_DeriveKey",
            [&](auto session) { return api->C_DeriveKey(session, &derivation, privateKey(5), nullptr, 0, &secret); });
        return names;
    }

    static Names flagNames(CK_FLAGS flags) {
        Names names;
        for (const char* name : {"CKF_HW", "CKF_ENCRYPT", "CKF_DECRYPT", "CKF_DIGEST", "CKF_SIGN", "CKF_VERIFY",
                                 "CKF_GENERATE_KEY_PAIR", "CKF_DERIVE"}) {
            const CK_FLAGS flag = documents::constantsWith("CKF_").at(name);
            if ((flags & flag) != 0) names.emplace_back(name + 4);
            flags &= ~flag;
        }
        EXPECT_EQ(flags, 0U);
        return names;
    }

    const std::vector<documents::Row> rows = documents::rowsWith("Begun by", "docs/functions.md");
    const std::map<std::string, CK_ULONG> types = documents::constantsWith("CKM_");
};

TEST_F(MechanismsDocumentTest, HasTheListInItsOrder) {
    Numbers documented;
    Numbers onFips;
    for (const documents::Row& row : rows) {
        const CK_ULONG type = types.at(row.at("Mechanism"));
        EXPECT_EQ(row.at("Number"), documents::hexadecimalNumber(type)) << row.at("Mechanism");
        documented.push_back(type);
        EXPECT_TRUE(row.at("FIPS 140-3").empty() || row.at("FIPS 140-3") == "withheld") << row.at("Mechanism");
        if (row.at("FIPS 140-3").empty()) onFips.push_back(type);
    }
    EXPECT_EQ(documented, listOf(firstSlot));
    EXPECT_EQ(onFips, listOf(fipsSlot));
}

TEST_F(MechanismsDocumentTest, HasSizesAndFlags) {
    for (const documents::Row& row : rows) {
        SCOPED_TRACE(row.at("Mechanism"));
        CK_MECHANISM_INFO info;
        ASSERT_EQ(api->C_GetMechanismInfo(firstSlot, types.at(row.at("Mechanism")), &info), CKR_OK);
        EXPECT_EQ(row.at("Key bits"),
                  +info.ulMaxKeySize == 0 ? "none" : text(+info.ulMinKeySize, "\u2013", +info.ulMaxKeySize));
        EXPECT_EQ(Names{"HW"} + documents::itemsOf(row.at("Flags")), flagNames(info.flags));
    }
}

/// For every mechanism of the standard, those without a row included: nothing begins with them.
TEST_F(MechanismsDocumentTest, HasTheFunctionsThatBeginWithIt) {
    std::map<CK_ULONG, Names> documented;
    for (const documents::Row& row : rows) {
        Names names = documents::itemsOf(row.at("Begun by"));
        // C_GenerateKeyPair takes any mechanism; what the row tells of it are the flags.
        EXPECT_EQ(std::erase(names, "C_GenerateKeyPair"), row.at("Flags") == "GENERATE_KEY_PAIR" ? 1U : 0U);
        documented[types.at(row.at("Mechanism"))] = names;
    }
    for (const auto& [name, type] : types) EXPECT_EQ(documented[type], begunBy(type)) << name;
}

TEST_F(MechanismsDocumentTest, SaysWhatAFipsTokenRefuses) {
    world.keyPairs["SN2"] = {keyFive};
    for (const documents::Row& row : rows) {
        const CK_ULONG type = types.at(row.at("Mechanism"));
        Names expected = begunBy(type);
        if (row.at("FIPS 140-3") == "withheld") {
            EXPECT_EQ(std::erase(expected, "C_SignInit") + std::erase(expected, "C_DigestInit"), 1U);
        }
        EXPECT_EQ(begunBy(type, fipsSlot), expected) << row.at("Mechanism");
    }
}

}  // namespace

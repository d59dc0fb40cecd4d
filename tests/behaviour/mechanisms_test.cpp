// C_GetMechanismList and C_GetMechanismInfo: the table, what a FIPS 140-3 token withholds, and the lenient slot IDs.

#include "object_test.h"

using namespace support;

namespace {

struct Mechanism {
    CK_MECHANISM_TYPE type;
    CK_ULONG minimum;
    CK_ULONG maximum;
    CK_FLAGS flags;
    bool onFips = true;
};

const std::vector<Mechanism> mechanisms = {
    {0x0, 2048, 4096, 0x10001},
    {0x1, 2048, 4096, 0x2801},
    {0x9, 2048, 4096, 0x301},
    {0xD, 2048, 4096, 0x2801},
    {0x6, 2048, 4096, 0x2801, false},
    {0x46, 2048, 4096, 0x2801},
    {0x40, 2048, 4096, 0x2801},
    {0x41, 2048, 4096, 0x2801},
    {0x42, 2048, 4096, 0x2801},
    {0xE, 2048, 4096, 0x2801, false},
    {0x47, 2048, 4096, 0x2801, false},
    {0x43, 2048, 4096, 0x2801},
    {0x44, 2048, 4096, 0x2801},
    {0x45, 2048, 4096, 0x2801},
    {0x1040, 256, 521, 0x10001},
    {0x1050, 256, 521, 0x80001},
    {0x1041, 256, 521, 0x2801},
    {0x1042, 256, 521, 0x2801, false},
    {0x1043, 256, 521, 0x2801, false},
    {0x1044, 256, 521, 0x2801},
    {0x1045, 256, 521, 0x2801},
    {0x1046, 256, 521, 0x2801},
    {0x220, 0, 0, 0x401, false},
    {0x255, 0, 0, 0x401},
    {0x250, 0, 0, 0x401},
    {0x260, 0, 0, 0x401},
    {0x270, 0, 0, 0x401},
};

Numbers typesOf(bool fips) {
    Numbers types;
    for (const Mechanism& mechanism : mechanisms) {
        if (!fips || mechanism.onFips) types.push_back(mechanism.type);
    }
    return types;
}

class MechanismsTest : public ObjectTest {
protected:
    /// The list that a caller with room for 40 gets.
    Numbers listOf(CK_SLOT_ID slot) {
        Numbers types(40, 0xEEEE);
        CK_ULONG count = 40;
        EXPECT_EQ(observe([&] { return api->C_GetMechanismList(slot, types.data(), &count); }),
                  succeeded("C_GetMechanismList"));
        for (std::size_t index = count; index < types.size(); ++index) EXPECT_EQ(types[index], 0xEEEEU);
        types.resize(count);
        return types;
    }
};

TEST_F(MechanismsTest, TheListDependsOnThePolicyOfTheToken) {
    EXPECT_EQ(listOf(firstSlot), typesOf(false));
    EXPECT_EQ(listOf(fipsSlot), typesOf(true));
    EXPECT_EQ(typesOf(false).size(), 27U);
    EXPECT_EQ(typesOf(true).size(), 21U);
}

TEST_F(MechanismsTest, AnUnknownSlotGetsTheWholeList) {
    for (const CK_SLOT_ID slot : Numbers{0, 0x50000000, firstSlot + 2, CK_UNAVAILABLE_INFORMATION}) {
        EXPECT_EQ(listOf(slot), typesOf(false)) << slot;
    }
}

TEST_F(MechanismsTest, ANullListAsksForTheCount) {
    CK_ULONG count = 0;
    EXPECT_EQ(observe([&] { return api->C_GetMechanismList(firstSlot, nullptr, &count); }),
              succeeded("C_GetMechanismList"));
    EXPECT_EQ(count, 27U);
    EXPECT_EQ(api->C_GetMechanismList(fipsSlot, nullptr, &count), CKR_OK);
    EXPECT_EQ(count, 21U);
}

TEST_F(MechanismsTest, AListOfTheExactSizeIsEnoughAndOneLessIsNot) {
    Numbers types(27, 0xEEEE);
    CK_ULONG count = 27;
    EXPECT_EQ(api->C_GetMechanismList(firstSlot, types.data(), &count), CKR_OK);
    EXPECT_EQ(types, typesOf(false));

    types.assign(27, 0xEEEE);
    count = 26;
    EXPECT_EQ(observe([&] { return api->C_GetMechanismList(firstSlot, types.data(), &count); }),
              refused(CKR_BUFFER_TOO_SMALL, "C_GetMechanismList: buffer too small, *pulCount=26 mechanismCount=27"));
    EXPECT_EQ(count, 27U);
    EXPECT_EQ(types, Numbers(27, 0xEEEE));

    count = 20;
    EXPECT_EQ(observe([&] { return api->C_GetMechanismList(fipsSlot, types.data(), &count); }).log.back(),
              "ERROR C_GetMechanismList: buffer too small, *pulCount=20 mechanismCount=21");
    EXPECT_EQ(count, 21U);
}

TEST_F(MechanismsTest, TheListNeedsAPlaceForItsCount) {
    CK_MECHANISM_TYPE type = 0;
    EXPECT_EQ(observe([&] { return api->C_GetMechanismList(0, &type, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_GetMechanismList: pulCount is NULL"));
}

TEST_F(MechanismsTest, EachMechanismIsDescribed) {
    for (const CK_SLOT_ID slot : Numbers{firstSlot, 0}) {
        for (const Mechanism& mechanism : mechanisms) {
            auto info = filledWith<CK_MECHANISM_INFO>(0xEE);
            EXPECT_EQ(observe([&] { return api->C_GetMechanismInfo(slot, mechanism.type, &info); }),
                      (Outcome{CKR_OK,
                               {"DEBUG C_GetMechanismInfo", text("DEBUG C_GetMechanismInfo -- type : ", mechanism.type),
                                "DEBUG C_GetMechanismInfo -- exit"}}));
            EXPECT_EQ(bytesOf(info), bytesOf(CK_MECHANISM_INFO{mechanism.minimum, mechanism.maximum, mechanism.flags}));
        }
    }
}

TEST_F(MechanismsTest, WhatAFipsTokenWithholdsIsDescribedWithoutItsHardwareFlag) {
    for (const Mechanism& mechanism : mechanisms) {
        auto info = filledWith<CK_MECHANISM_INFO>(0xEE);
        const Outcome outcome = observe([&] { return api->C_GetMechanismInfo(fipsSlot, mechanism.type, &info); });
        const Lines asked = {"DEBUG C_GetMechanismInfo", text("DEBUG C_GetMechanismInfo -- type : ", mechanism.type)};
        if (mechanism.onFips) {
            EXPECT_EQ(outcome, (Outcome{CKR_OK, asked + Lines{"DEBUG C_GetMechanismInfo -- exit"}}));
        } else {
            EXPECT_EQ(outcome, (Outcome{CKR_MECHANISM_INVALID, asked}));
        }
        const CK_FLAGS flags = mechanism.onFips ? mechanism.flags : mechanism.flags & ~CK_FLAGS{CKF_HW};
        EXPECT_EQ(bytesOf(info), bytesOf(CK_MECHANISM_INFO{mechanism.minimum, mechanism.maximum, flags}));
    }
}

TEST_F(MechanismsTest, OtherMechanismsAreUnknown) {
    const Numbers others = withWide(
        {CKM_MD5, CKM_RSA_X_509, CKM_MD5_RSA_PKCS, CKM_ECDSA_SHA512 + 1, CK_UNAVAILABLE_INFORMATION}, {0x100000001});
    for (const CK_MECHANISM_TYPE type : others) {
        auto info = filledWith<CK_MECHANISM_INFO>(0xEE);
        EXPECT_EQ(observe([&] { return api->C_GetMechanismInfo(firstSlot, type, &info); }),
                  (Outcome{CKR_MECHANISM_INVALID,
                           {"DEBUG C_GetMechanismInfo", text("DEBUG C_GetMechanismInfo -- type : ", type),
                            text("ERROR C_GetMechanismInfo: unsupported mechanism type=", type)}}));
        EXPECT_EQ(bytesOf(info), Bytes(sizeof info, 0xEE));
    }
    EXPECT_EQ(observe([&] {
                  CK_MECHANISM_INFO info;
                  return api->C_GetMechanismInfo(firstSlot, CKM_AES_KEY_GEN, &info);
              }).log.back(),
              "ERROR C_GetMechanismInfo: unsupported mechanism type=4224");
}

TEST_F(MechanismsTest, TheDescriptionNeedsAPlaceBeforeAnythingElse) {
    EXPECT_EQ(observe([&] { return api->C_GetMechanismInfo(0, CKM_MD5, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_GetMechanismInfo: pInfo is NULL"));
}

}  // namespace

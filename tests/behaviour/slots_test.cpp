// The slot list.

#include "slots_test.h"

namespace {

using namespace support;

constexpr const char* listDevices = "zentak_getConnectedDeviceList(false, instance)";
constexpr CK_ULONG untouched = 0x7B;

std::string getTokenInfoCall(const std::string& deviceName) {
    return "zentak_getTokenInfo(\"" + deviceName + "\", instance)";
}

// --- C_GetSlotList --------------------------------------------------------------------------------------------------

TEST_F(SlotsTest, ListRefusesANullCount) {
    connect({"SN1"});
    CK_SLOT_ID slot = untouched;
    for (CK_SLOT_ID* const list : {static_cast<CK_SLOT_ID*>(nullptr), &slot}) {
        EXPECT_EQ(observe([&] { return functions().C_GetSlotList(CK_TRUE, list, nullptr); }),
                  refused(CKR_ARGUMENTS_BAD, "C_GetSlotList: pulCount is NULL"));
    }
    EXPECT_EQ(slot, untouched);
}

TEST_F(SlotsTest, NoDevice) {
    CK_ULONG count = untouched;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetSlotList", "ERROR No valid token found"}));
    EXPECT_EQ(calls(), (Lines{listDevices}));

    count = 1;
    CK_SLOT_ID slot = untouched;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, &slot, &count), CKR_OK);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(slot, untouched);
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetSlotList", "ERROR No valid token found"}));
    EXPECT_EQ(calls(), (Lines{listDevices}));
}

TEST_F(SlotsTest, NoDeviceAndACountOfZero) {
    CK_ULONG count = 0;
    CK_SLOT_ID slot = untouched;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, &slot, &count), CKR_OK);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(slot, untouched);
}

TEST_F(SlotsTest, NoDeviceEmptiesTheTable) {
    for (const bool askOnlyForTheCount : {true, false}) {
        connect({"SN1"});
        listSlots();
        ASSERT_EQ(resultFor(firstSlot), CKR_OK);
        device().connectedDevices.clear();
        CK_ULONG count = 1;
        CK_SLOT_ID slot = untouched;
        EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, askOnlyForTheCount ? nullptr : &slot, &count), CKR_OK);
        EXPECT_EQ(resultFor(firstSlot), CKR_SLOT_ID_INVALID);
    }
}

TEST_F(SlotsTest, TheCountAloneIsOfAllDevicesAndLeavesTheTable) {
    connect({"SN1"});
    listSlots();
    connect({"SN2", "SN3"});
    device().tokenInfo["SN3"].serialNumber.clear();
    CK_ULONG count = untouched;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetSlotList"}));
    EXPECT_EQ(calls(), (Lines{listDevices}));
    EXPECT_EQ(labelIn(firstSlot), "Token of SN1");
    EXPECT_EQ(resultFor(firstSlot + 1), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotsTest, ListSkipsADeviceWithoutASerialNumber) {
    connect({"SN1", "SN2"});
    device().tokenInfo["SN1"].serialNumber.clear();
    CK_SLOT_ID slots[3] = {untouched, untouched, untouched};
    CK_ULONG count = 3;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(slots[0], firstSlot);
    EXPECT_EQ(slots[1], untouched);
    EXPECT_EQ(slots[2], untouched);
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetSlotList"}));
    EXPECT_EQ(calls(), (Lines{listDevices, getTokenInfoCall("SN1"), getTokenInfoCall("SN2")}));
    EXPECT_EQ(labelIn(firstSlot), "Token of SN2");
    EXPECT_EQ(resultFor(firstSlot + 1), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotsTest, ListOfUnusableDevicesIsEmpty) {
    connect({"SN1", "SN2"});
    device().tokenInfo.clear();
    CK_SLOT_ID slots[2] = {untouched, untouched};
    CK_ULONG count = 2;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(slots[0], untouched);
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetSlotList"}));  // devices there are, so no line about a missing token
}

TEST_F(SlotsTest, TokenPresentIsIgnored) {
    connect({"SN1", "SN2"});
    for (const int present : {CK_FALSE, CK_TRUE, 7}) {
        CK_SLOT_ID slots[2] = {untouched, untouched};
        CK_ULONG count = 2;
        EXPECT_EQ(functions().C_GetSlotList(static_cast<CK_BBOOL>(present), slots, &count), CKR_OK);
        EXPECT_EQ(count, 2U);
        EXPECT_EQ(slots[0], firstSlot);
        EXPECT_EQ(slots[1], firstSlot + 1);
    }
}

TEST_F(SlotsTest, ASmallBufferIsRefusedAndLeavesTheTable) {
    connect({"SN1"});
    listSlots();
    connect({"SN2", "SN3", "SN4"});
    for (const CK_ULONG given : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{2}}) {
        CK_SLOT_ID slots[3] = {untouched, untouched, untouched};
        CK_ULONG count = given;
        EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, slots, &count), CKR_BUFFER_TOO_SMALL);
        EXPECT_EQ(count, 3U);
        EXPECT_EQ(slots[0], untouched);
        EXPECT_EQ(slots[1], untouched);
        EXPECT_EQ(log(), (Lines{"DEBUG C_GetSlotList", "ERROR C_GetSlotList: buffer too small, *pulCount=" +
                                                           decimal(given) + " slotCount=3"}));
        EXPECT_EQ(calls(), (Lines{listDevices}));
    }
    EXPECT_EQ(labelIn(firstSlot), "Token of SN1");
}

/// The needed room is counted in devices, also when fewer of them turn out to be tokens.
TEST_F(SlotsTest, RoomIsNeededForUnusableDevicesToo) {
    connect({"SN1", "SN2"});
    device().tokenInfo["SN2"].serialNumber.clear();
    CK_SLOT_ID slot = untouched;
    CK_ULONG count = 1;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, &slot, &count), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(slot, untouched);
}

TEST_F(SlotsTest, AnAmpleBufferIsWrittenAsFarAsNeeded) {
    connect({"SN1", "SN2"});
    std::vector<CK_SLOT_ID> slots(10, untouched);
    CK_ULONG count = 10;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, slots.data(), &count), CKR_OK);
    EXPECT_EQ(count, 2U);
    std::vector<CK_SLOT_ID> expected(10, untouched);
    expected[0] = firstSlot;
    expected[1] = firstSlot + 1;
    EXPECT_EQ(slots, expected);
}

TEST_F(SlotsTest, ACountBeyondTheRealBufferDecidesNothing) {
    connect({"SN1"});
    CK_SLOT_ID slot = untouched;
    CK_ULONG count = CK_UNAVAILABLE_INFORMATION;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, &slot, &count), CKR_OK);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(slot, firstSlot);
}

TEST_F(SlotsTest, IdsAreHandedOutInListOrderAndResolvedInNameOrder) {
    connect({"SN3", "SN1", "SN2"});
    EXPECT_EQ(listSlots(), (Numbers{firstSlot, firstSlot + 1, firstSlot + 2}));
    EXPECT_EQ(labelIn(firstSlot), "Token of SN1");
    EXPECT_EQ(labelIn(firstSlot + 1), "Token of SN2");
    EXPECT_EQ(labelIn(firstSlot + 2), "Token of SN3");
}

/// The order is that of bytes: neither of a language nor of signed characters.
TEST_F(SlotsTest, NamesAreOrderedByBytes) {
    connect({"\xC3\xA4", "a", "B", "a1", "~"});
    listSlots();
    EXPECT_EQ(labelIn(firstSlot), "Token of B");
    EXPECT_EQ(labelIn(firstSlot + 1), "Token of a");
    EXPECT_EQ(labelIn(firstSlot + 2), "Token of a1");
    EXPECT_EQ(labelIn(firstSlot + 3), "Token of ~");
    EXPECT_EQ(labelIn(firstSlot + 4), "Token of \xC3\xA4");
}

TEST_F(SlotsTest, ADeviceNamedTwiceGetsTwoIdsAndOneEntry) {
    connect({"SN1", "SN1"});
    scripted::Fault relabel{"zentak_getTokenInfo", 2};
    relabel.action = [] { device().change([](scripted::Device& world) { world.tokenInfo["SN1"].label = "later"; }); };
    device().addFault(relabel);
    CK_SLOT_ID slots[2] = {untouched, untouched};
    CK_ULONG count = 2;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(slots[0], firstSlot);
    EXPECT_EQ(slots[1], firstSlot + 1);
    EXPECT_EQ(calls(), (Lines{listDevices, getTokenInfoCall("SN1"), getTokenInfoCall("SN1")}));
    EXPECT_EQ(labelIn(firstSlot), "Token of SN1");  // the first answer stays
    EXPECT_EQ(resultFor(firstSlot + 1), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotsTest, EveryListingBuildsTheTableAnew) {
    connect({"SN1", "SN2"});
    listSlots();
    connect({"SN2"});
    device().tokenInfo["SN2"].label = "renamed";
    EXPECT_EQ(listSlots(), (Numbers{firstSlot}));
    EXPECT_EQ(labelIn(firstSlot), "renamed");
    EXPECT_EQ(resultFor(firstSlot + 1), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotsTest, AThrowingTokenEndsTheListing) {
    connect({"SN1", "SN2"});
    for (const ThrownCode& row : thrownCodes) {
        CK_SLOT_ID slots[2] = {};
        CK_ULONG count = 2;
        letThrow("zentak_getTokenInfo", row.thrown, 2);
        expectOneError(observe([&] { return functions().C_GetSlotList(CK_TRUE, slots, &count); }), row.code,
                       "C_GetSlotList");
        EXPECT_EQ(count, 2U);
        EXPECT_EQ(resultFor(firstSlot), CKR_OK);  // found before
        EXPECT_EQ(resultFor(firstSlot + 1), CKR_SLOT_ID_INVALID);
    }
    EXPECT_EQ(listSlots().size(), 2U);
}

/// A slot is keyed by the device's name, which a library may choose otherwise than the serial number.
TEST_F(SlotsTest, TheDeviceNameIsTheKey) {
    device().connectedDevices = {"reader B", "reader A"};
    device().tokenInfo["reader A"] = makeTokenInfo("SN9");
    device().tokenInfo["reader B"] = makeTokenInfo("SN1");
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, std::vector<CK_ULONG>(1).data()), CKR_OK);
    listSlots();
    EXPECT_EQ(labelIn(firstSlot), "Token of SN9");
    EXPECT_EQ(labelIn(firstSlot + 1), "Token of SN1");
}

}  // namespace

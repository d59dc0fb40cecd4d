// The slot list.

#include "slots_test.h"

namespace {

using namespace support;

constexpr const char* listDevices = "zentak_getConnectedDeviceList(false, instance)";
constexpr CK_ULONG untouched = 0x7B;

std::string getTokenInfoCall(const std::string& deviceName) {
    return "zentak_getTokenInfo(\"" + deviceName + "\", instance)";
}

class SlotListTest : public SlotsTest {
protected:
    /// The list into room for so many slots.
    Outcome list(std::size_t room, CK_BBOOL present = CK_TRUE) {
        slots.assign(room + 1, untouched);  // so that also no room has an address
        count = static_cast<CK_ULONG>(room);
        const Outcome outcome = observe([&] { return functions().C_GetSlotList(present, slots.data(), &count); });
        EXPECT_EQ(slots.back(), untouched);
        slots.pop_back();
        return outcome;
    }
    Outcome askForTheCount() {
        count = untouched;
        return observe([&] { return functions().C_GetSlotList(CK_TRUE, nullptr, &count); });
    }
    /// Of every token that is listed.
    static std::vector<std::string> labels(std::size_t listed) {
        std::vector<std::string> all;
        for (std::size_t i = 0; i < listed; ++i) all.push_back(labelIn(firstSlot + static_cast<CK_SLOT_ID>(i)));
        return all;
    }

    Numbers slots;
    CK_ULONG count = 0;
};

TEST_F(SlotListTest, RefusesANullCount) {
    connect({"SN1"});
    CK_SLOT_ID slot = untouched;
    for (CK_SLOT_ID* const list : {static_cast<CK_SLOT_ID*>(nullptr), &slot}) {
        EXPECT_EQ(observe([&] { return functions().C_GetSlotList(CK_TRUE, list, nullptr); }),
                  refused(CKR_ARGUMENTS_BAD, "C_GetSlotList: pulCount is NULL"));
    }
    EXPECT_EQ(slot, untouched);
}

TEST_F(SlotListTest, NoDevice) {
    const Outcome nothing = {CKR_OK, {"DEBUG C_GetSlotList", "ERROR No valid token found"}, {listDevices}};
    EXPECT_EQ(askForTheCount(), nothing);
    EXPECT_EQ(count, 0U);
    for (const std::size_t room : {0U, 1U}) {
        EXPECT_EQ(list(room), nothing);
        EXPECT_EQ(count, 0U);
        EXPECT_EQ(slots, Numbers(room, untouched));
    }
}

TEST_F(SlotListTest, NoDeviceEmptiesTheTable) {
    for (const bool onlyTheCount : {true, false}) {
        connect({"SN1"});
        listSlots();
        ASSERT_EQ(resultFor(firstSlot), CKR_OK);
        device().connectedDevices.clear();
        EXPECT_EQ((onlyTheCount ? askForTheCount() : list(1)).code, CKR_OK);
        EXPECT_EQ(resultFor(firstSlot), CKR_SLOT_ID_INVALID);
    }
}

TEST_F(SlotListTest, TheCountIsOfAllDevicesAndLeavesTheTable) {
    connect({"SN1"});
    listSlots();
    connect({"SN2", "SN3"});
    device().tokenInfo["SN3"].serialNumber.clear();
    EXPECT_EQ(askForTheCount(), succeeded("C_GetSlotList", {listDevices}));
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(labelIn(firstSlot), "Token of SN1");
    EXPECT_EQ(resultFor(firstSlot + 1), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, SkipsADeviceWithoutASerialNumber) {
    connect({"SN1", "SN2"});
    device().tokenInfo["SN1"].serialNumber.clear();
    EXPECT_EQ(list(3), succeeded("C_GetSlotList", {listDevices, getTokenInfoCall("SN1"), getTokenInfoCall("SN2")}));
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(slots, (Numbers{firstSlot, untouched, untouched}));
    EXPECT_EQ(labelIn(firstSlot), "Token of SN2");
    EXPECT_EQ(resultFor(firstSlot + 1), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, IsEmptyWhenNoDeviceIsUsable) {
    connect({"SN1", "SN2"});
    device().tokenInfo.clear();
    // Devices there are, so no line about a missing token.
    EXPECT_EQ(list(2), succeeded("C_GetSlotList", {listDevices, getTokenInfoCall("SN1"), getTokenInfoCall("SN2")}));
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(slots, Numbers(2, untouched));
}

TEST_F(SlotListTest, TokenPresentIsIgnored) {
    connect({"SN1", "SN2"});
    for (const int present : {CK_FALSE, CK_TRUE, 7}) {
        EXPECT_EQ(list(2, static_cast<CK_BBOOL>(present)).code, CKR_OK);
        EXPECT_EQ(count, 2U);
        EXPECT_EQ(slots, (Numbers{firstSlot, firstSlot + 1}));
    }
}

TEST_F(SlotListTest, ASmallBufferIsRefusedAndLeavesTheTable) {
    connect({"SN1"});
    listSlots();
    connect({"SN2", "SN3", "SN4"});
    for (const std::size_t room : {0U, 1U, 2U}) {
        EXPECT_EQ(list(room),
                  refused(CKR_BUFFER_TOO_SMALL,
                          "C_GetSlotList: buffer too small, *pulCount=" + std::to_string(room) + " slotCount=3",
                          {listDevices}));
        EXPECT_EQ(count, 3U);
        EXPECT_EQ(slots, Numbers(room, untouched));
    }
    EXPECT_EQ(labelIn(firstSlot), "Token of SN1");
}

/// The needed room is counted in devices, also when fewer of them turn out to be tokens.
TEST_F(SlotListTest, RoomIsNeededForUnusableDevicesToo) {
    connect({"SN1", "SN2"});
    device().tokenInfo["SN2"].serialNumber.clear();
    EXPECT_EQ(list(1).code, CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(slots, Numbers(1, untouched));
}

TEST_F(SlotListTest, AnAmpleBufferIsWrittenAsFarAsNeeded) {
    connect({"SN1", "SN2"});
    EXPECT_EQ(list(5).code, CKR_OK);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(slots, (Numbers{firstSlot, firstSlot + 1, untouched, untouched, untouched}));
}

TEST_F(SlotListTest, ACountBeyondTheRealBufferDecidesNothing) {
    connect({"SN1"});
    CK_SLOT_ID slot = untouched;
    count = CK_UNAVAILABLE_INFORMATION;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, &slot, &count), CKR_OK);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(slot, firstSlot);
}

TEST_F(SlotListTest, IdsAreHandedOutInListOrderAndResolvedInNameOrder) {
    connect({"SN3", "SN1", "SN2"});
    EXPECT_EQ(listSlots(), (Numbers{firstSlot, firstSlot + 1, firstSlot + 2}));
    EXPECT_EQ(labels(3), (Lines{"Token of SN1", "Token of SN2", "Token of SN3"}));
}

/// The order is that of bytes: neither of a language nor of signed characters.
TEST_F(SlotListTest, NamesAreOrderedByBytes) {
    connect({"\xC3\xA4", "a", "B", "a1", "~"});
    listSlots();
    EXPECT_EQ(labels(5), (Lines{"Token of B", "Token of a", "Token of a1", "Token of ~", "Token of \xC3\xA4"}));
}

TEST_F(SlotListTest, ADeviceNamedTwiceGetsTwoIdsAndOneEntry) {
    connect({"SN1", "SN1"});
    device().addFault({.operation = "zentak_getTokenInfo", .nth = 2, .action = [] {
                           device().change([](scripted::Device& world) { world.tokenInfo["SN1"].label = "later"; });
                       }});
    EXPECT_EQ(list(2), succeeded("C_GetSlotList", {listDevices, getTokenInfoCall("SN1"), getTokenInfoCall("SN1")}));
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(slots, (Numbers{firstSlot, firstSlot + 1}));
    EXPECT_EQ(labelIn(firstSlot), "Token of SN1");  // the first answer stays
    EXPECT_EQ(resultFor(firstSlot + 1), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, BuildsTheTableAnew) {
    connect({"SN1", "SN2"});
    listSlots();
    connect({"SN2"});
    device().tokenInfo["SN2"].label = "renamed";
    EXPECT_EQ(listSlots(), (Numbers{firstSlot}));
    EXPECT_EQ(labelIn(firstSlot), "renamed");
    EXPECT_EQ(resultFor(firstSlot + 1), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, AThrowingTokenEndsIt) {
    connect({"SN1", "SN2"});
    for (const ThrownCode& row : thrownCodes) {
        letThrow("zentak_getTokenInfo", row.thrown, 2);
        expectOneError(list(2), row.code, "C_GetSlotList");
        EXPECT_EQ(count, 2U);
        EXPECT_EQ(resultFor(firstSlot), CKR_OK);  // found before
        EXPECT_EQ(resultFor(firstSlot + 1), CKR_SLOT_ID_INVALID);
    }
    EXPECT_EQ(listSlots().size(), 2U);
}

/// A slot is keyed by the device's name, which a library may choose otherwise than the serial number.
TEST_F(SlotListTest, TheDeviceNameIsTheKey) {
    device().connectedDevices = {"reader B", "reader A"};
    device().tokenInfo["reader A"] = makeTokenInfo("SN9");
    device().tokenInfo["reader B"] = makeTokenInfo("SN1");
    EXPECT_EQ(askForTheCount().code, CKR_OK);
    listSlots();
    EXPECT_EQ(labels(2), (Lines{"Token of SN9", "Token of SN1"}));
}

}  // namespace

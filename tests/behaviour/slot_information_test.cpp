// Slot information and token information.

#include "slots_test.h"

namespace {

using namespace support;

/// Slots with one token, whose `TokenInfo` the test changes before it calls `list`.
class SlotInformationTest : public SlotsTest {
protected:
    TokenInfo token = makeTokenInfo("SN1");

    void list() const {
        // A device's name ends at a zero byte.
        const std::string name = token.serialNumber.c_str();
        device().connectedDevices = {name};
        device().tokenInfo[name] = token;
        EXPECT_EQ(listSlots(), (Numbers{firstSlot}));
    }

    CK_SLOT_INFO slotInfo() const {
        list();
        CK_SLOT_INFO info = filledWith<CK_SLOT_INFO>(0xFF);
        EXPECT_EQ(functions().C_GetSlotInfo(firstSlot, &info), CKR_OK);
        return info;
    }

    CK_TOKEN_INFO tokenInfo() const {
        list();
        CK_TOKEN_INFO info = filledWith<CK_TOKEN_INFO>(0xFF);
        EXPECT_EQ(functions().C_GetTokenInfo(firstSlot, &info), CKR_OK);
        return info;
    }

    CK_SLOT_INFO expectedSlotInfo() const {
        CK_SLOT_INFO info = {};
        std::memcpy(info.slotDescription, token.label.data(), token.label.size());
        std::strcpy(reinterpret_cast<char*>(info.manufacturerID), "Dravenko Sentronics");
        info.flags = 7;
        info.hardwareVersion = {1, 0};
        info.firmwareVersion = {3, 6};
        return info;
    }

    CK_TOKEN_INFO expectedTokenInfo() const {
        CK_TOKEN_INFO info = {};
        std::memcpy(info.label, token.label.data(), std::min(token.label.size(), sizeof info.label));
        std::strcpy(reinterpret_cast<char*>(info.manufacturerID), "Dravenko Sentronics");
        std::memcpy(info.model, token.model.data(), token.model.size());
        std::memcpy(info.serialNumber, token.serialNumber.data(), token.serialNumber.size());
        info.flags = 0x40D;
        info.ulMaxPinLen = 63;
        info.ulMinPinLen = 4;
        info.ulTotalPublicMemory = CK_UNAVAILABLE_INFORMATION;
        info.ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
        info.ulTotalPrivateMemory = CK_UNAVAILABLE_INFORMATION;
        info.ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
        info.hardwareVersion = {1, 0};
        info.firmwareVersion = {3, 6};
        std::memset(info.utcTime, ' ', sizeof info.utcTime);
        return info;
    }
};

// --- The slot ID ----------------------------------------------------------------------------------------------------

Numbers noSlots() {
    // Of the first wide one the low 32 bits would be the first slot.
    return withWide(
        {0, 1, firstSlot - 1, firstSlot + 1, firstSlot + 2, 0x60000001UL, 0xD0000001UL, CK_UNAVAILABLE_INFORMATION},
        {0x150000001, 0xFFFFFFFF50000001});
}

/// Neither function takes the slot, whatever the pointer; nothing is written.
template <typename Info>
void expectNoSlot(CK_SLOT_ID slot, CK_RV (*function)(CK_SLOT_ID, Info*), const std::string& name) {
    auto info = filledWith<Info>(0xFF);
    for (Info* const pointer : {&info, static_cast<Info*>(nullptr)}) {
        takeLog();
        EXPECT_EQ(function(slot, pointer), CKR_SLOT_ID_INVALID);
        EXPECT_EQ(takeLog(), (Lines{"DEBUG " + name, "ERROR " + name + ": invalid slotID=" + decimal(slot)}));
    }
    EXPECT_EQ(bytesOf(info), Bytes(sizeof info, 0xFF));
}

TEST_F(SlotInformationTest, AnUnknownSlotIsRefusedFirst) {
    list();
    for (const CK_SLOT_ID slot : noSlots()) {
        expectNoSlot(slot, functions().C_GetSlotInfo, "C_GetSlotInfo");
        expectNoSlot(slot, functions().C_GetTokenInfo, "C_GetTokenInfo");
    }
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(SlotInformationTest, NoSlotBeforeTheFirstListing) {
    plugIn(token);
    CK_ULONG count = 0;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(resultFor(firstSlot), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotInformationTest, ANullPointerIsRefusedAfterTheSlot) {
    list();
    EXPECT_EQ(observe([&] { return functions().C_GetSlotInfo(firstSlot, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_GetSlotInfo: pInfo is NULL"));
    EXPECT_EQ(observe([&] { return functions().C_GetTokenInfo(firstSlot, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_GetTokenInfo: pInfo is NULL"));
}

// --- C_GetSlotInfo --------------------------------------------------------------------------------------------------

TEST_F(SlotInformationTest, SlotInfoIsWrittenWhole) {
    EXPECT_EQ(bytesOf(slotInfo()), bytesOf(expectedSlotInfo()));
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetSlotInfo"}));
    EXPECT_EQ(calls(), Lines{});  // from the table, not from the device
}

/// What doesn't fit is cut, and the field behind isn't touched.
TEST_F(SlotInformationTest, SlotLabels) {
    for (const std::size_t length : {0U, 1U, 32U, 33U, 62U, 63U, 64U, 65U, 66U, 96U, 200U, 5000U}) {
        token.label = std::string(length, 'L');
        const CK_SLOT_INFO info = slotInfo();
        token.label = std::string(std::min<std::size_t>(length, 64), 'L');
        EXPECT_EQ(bytesOf(info), bytesOf(expectedSlotInfo())) << length;
    }
}

/// The slot's description is a text and ends at its zero byte; the token's fields are counted bytes and don't.
TEST_F(SlotInformationTest, ZeroBytesInTexts) {
    using namespace std::string_literals;
    token.label = "La\0bel"s;
    token.model = "AB1\0model"s;
    token.serialNumber = "SN\0001"s;
    EXPECT_EQ(bytesOf(tokenInfo()), bytesOf(expectedTokenInfo()));
    CK_SLOT_INFO expected = expectedSlotInfo();
    std::memset(expected.slotDescription, 0, sizeof expected.slotDescription);
    std::memcpy(expected.slotDescription, "La", 2);
    EXPECT_EQ(bytesOf(slotInfo()), bytesOf(expected));
    // The longer ones are counted with their zero bytes too.
    token.label = "La\0"s + std::string(31, 'b');
    CK_TOKEN_INFO cut = expectedTokenInfo();
    std::memset(cut.label, 0, sizeof cut.label);
    std::memcpy(cut.label, token.label.data(), 32);
    EXPECT_EQ(bytesOf(tokenInfo()), bytesOf(cut));
}

TEST_F(SlotInformationTest, ASlotLabelMayHoldAnyBytes) {
    token.label = "Schl\xC3\xBCssel \xE2\x80\x94 \xFF\x80";
    EXPECT_EQ(bytesOf(slotInfo()), bytesOf(expectedSlotInfo()));
}

struct Firmware {
    const char* text;
    unsigned char major;
    unsigned char minor;
};

constexpr Firmware firmwares[] = {{"3", 3, 0},           {"3.6", 3, 6},    {"3.06", 3, 6}, {"12.34", 12, 34},
                                  {"x.y", 0, 0},         {"x.7", 0, 7},    {"7.y", 7, 0},  {"", 0, 0},
                                  {".", 0, 0},           {".5", 0, 5},     {"4.", 4, 0},   {"1.2.3", 1, 2},
                                  {"255.255", 255, 255}, {"300.1", 44, 1},  // the low byte
                                  {"1..2", 1, 0}};

TEST_F(SlotInformationTest, FirmwareVersions) {
    for (const Firmware& firmware : firmwares) {
        token.firmwareVersion = firmware.text;
        CK_SLOT_INFO expectedSlot = expectedSlotInfo();
        expectedSlot.firmwareVersion = {firmware.major, firmware.minor};
        EXPECT_EQ(bytesOf(slotInfo()), bytesOf(expectedSlot)) << firmware.text;
        CK_TOKEN_INFO expectedToken = expectedTokenInfo();
        expectedToken.firmwareVersion = {firmware.major, firmware.minor};
        EXPECT_EQ(bytesOf(tokenInfo()), bytesOf(expectedToken)) << firmware.text;
    }
}

TEST_F(SlotInformationTest, AFirmwareNumberOfAnyLengthDoesNoHarm) {
    for (const char* const text : {"99999999999.1", "-1.-1", "18446744073709551616.99999999999999999999999"}) {
        token.firmwareVersion = text;
        slotInfo();
        tokenInfo();
    }
    token.firmwareVersion = std::string(100000, '9');
    slotInfo();
}

// --- C_GetTokenInfo -------------------------------------------------------------------------------------------------

TEST_F(SlotInformationTest, TokenInfoIsWrittenWhole) {
    EXPECT_EQ(bytesOf(tokenInfo()), bytesOf(expectedTokenInfo()));
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetTokenInfo", "DEBUG C_GetTokenInfo -- exit"}));
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(SlotInformationTest, TokenLabels) {
    const std::string label = "abcdefghijklmnopqrstuvwxyz0123456789";
    const std::pair<std::size_t, std::size_t> shownOf[] = {{0, 0},   {1, 1},   {29, 29}, {30, 30},
                                                           {31, 30}, {32, 30}, {33, 32}, {36, 32}};
    for (const auto& [length, shown] : shownOf) {
        token.label = label.substr(0, length);
        const CK_TOKEN_INFO info = tokenInfo();
        token.label = label.substr(0, shown);
        EXPECT_EQ(bytesOf(info), bytesOf(expectedTokenInfo())) << length;
    }
}

TEST_F(SlotInformationTest, ModelsAndSerialNumbers) {
    const std::string model = "AB1defghijklmnopqrst";
    const std::string serial = "0123456789ABCDEFGHIJ";
    for (const std::size_t length : {0U, 1U, 2U, 3U, 15U, 16U, 17U, 20U}) {
        token = makeTokenInfo(serial.substr(0, std::max<std::size_t>(length, 1)));
        token.label = "label";
        token.model = model.substr(0, length);
        const CK_TOKEN_INFO info = tokenInfo();
        token.model.resize(std::min<std::size_t>(length, 16));
        token.serialNumber.resize(std::min<std::size_t>(token.serialNumber.size(), 16));
        EXPECT_EQ(bytesOf(info), bytesOf(expectedTokenInfo())) << length;
    }
}

TEST_F(SlotInformationTest, PinFlags) {
    const std::pair<int, CK_FLAGS> flagsOfAttempts[] = {{0, CKF_USER_PIN_LOCKED},
                                                        {1, CKF_USER_PIN_FINAL_TRY},
                                                        {2, CKF_USER_PIN_COUNT_LOW},
                                                        {3, 0},
                                                        {5, 0},
                                                        {-1, 0},
                                                        {256, 0}};
    for (const int changed : {1, 0, 2, -1, 257}) {
        for (const auto& [attempts, flags] : flagsOfAttempts) {
            token.userPinChanged = changed;
            token.userPinAttemptsLeft = attempts;
            CK_TOKEN_INFO expected = expectedTokenInfo();
            expected.flags = (changed == 1 ? 0x40DUL : 0x8040DUL) | flags;
            EXPECT_EQ(bytesOf(tokenInfo()), bytesOf(expected)) << changed << " " << attempts;
        }
    }
}

/// Sessions of all slots count, but only while nobody is logged in to them.
TEST_F(SlotInformationTest, SessionCountsAreOfPublicSessionsOnAllSlots) {
    connect({"SN1", "SN2"});
    listSlots();
    const CK_SESSION_HANDLE first = openSession(0, firstSlot);
    openSession(CKF_RW_SESSION, firstSlot);
    for (int i = 0; i < 2; ++i) openSession(0, firstSlot + 1);
    for (int i = 0; i < 3; ++i) openSession(CKF_RW_SESSION, firstSlot + 1);
    const auto expectCounts = [](CK_ULONG readOnly, CK_ULONG readWrite) {
        for (const CK_SLOT_ID slot : {firstSlot, firstSlot + 1}) {
            CK_TOKEN_INFO info = {};
            EXPECT_EQ(functions().C_GetTokenInfo(slot, &info), CKR_OK);
            EXPECT_EQ(+info.ulSessionCount, readOnly);
            EXPECT_EQ(+info.ulRwSessionCount, readWrite);
            EXPECT_EQ(+info.ulMaxSessionCount, 0U);
            EXPECT_EQ(+info.ulMaxRwSessionCount, 0U);
        }
    };
    expectCounts(3, 4);
    login(first);
    expectCounts(2, 3);
    ASSERT_EQ(functions().C_Logout(first), CKR_OK);
    expectCounts(3, 4);
    ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
    expectCounts(0, 0);
    const CK_SESSION_HANDLE officer = openSession(CKF_RW_SESSION);
    login(officer, "officer pin", CKU_SO);
    expectCounts(0, 0);
}

/// The table is read, not the device: what changed since the last listing isn't seen.
TEST_F(SlotInformationTest, InformationIsThatOfTheLastListing) {
    list();
    device().tokenInfo["SN1"].label = "renamed";
    device().tokenInfo["SN1"].userPinAttemptsLeft = 1;
    CK_TOKEN_INFO info = {};
    EXPECT_EQ(functions().C_GetTokenInfo(firstSlot, &info), CKR_OK);
    EXPECT_EQ(bytesOf(info), bytesOf(expectedTokenInfo()));
    listSlots();
    EXPECT_EQ(functions().C_GetTokenInfo(firstSlot, &info), CKR_OK);
    EXPECT_EQ(+info.flags, 0x2040DU);
}

}  // namespace

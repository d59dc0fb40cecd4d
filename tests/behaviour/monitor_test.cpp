// The device monitor: the thread that drops the logins of tokens that are gone, and the slot events.
//
// It polls once a second, so these tests take their time. What it sees is set with showToMonitor alone.

#include <chrono>
#include <future>
#include <thread>

#include "module_test.h"

namespace {

using namespace support;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr CK_SLOT_ID untouched = 0x77;

/// Starts with no event pending.
class MonitorTest : public ModuleTest {
protected:
    /// The devices that the monitor sees from its first poll on.
    virtual std::vector<std::string> atStart() { return {}; }

    void SetUp() override {
        ModuleTest::SetUp();
        restart(atStart());
        clear();
    }

    /// Starts the module with these devices for the monitor.
    static void restart(const std::vector<std::string>& devices) {
        finalize();
        clear();
        device().showToMonitor(devices);
        shown() = 0;
        initialize();
        if (devices.empty()) {
            ASSERT_TRUE(device().waitForPolls(1));
        } else {
            waitUntilSeen(devices);
            expectEvent();
        }
        takeEvent();
        listSlots();
    }

    /// Shows the devices and waits until the module has dealt with them.
    static void show(const std::vector<std::string>& devices) {
        device().showToMonitor(devices);
        device().takePolls();
        waitUntilSeen(devices);
    }

    static void waitUntilSeen(const std::vector<std::string>& devices) {
        if (devices.size() == std::exchange(shown(), devices.size())) {
            ASSERT_TRUE(device().waitForPolls(2));
            return;
        }
        // The line about another number of devices comes after all else. One that was read before is not it.
        const std::size_t before = readLines().size();
        ASSERT_TRUE(device().waitForPolls(1));
        for (int i = 0; i < 5000; ++i) {
            for (const std::string& line : takeMonitorLog()) readLines().push_back(line);
            if (readLines().size() > before && readLines().back().rfind("DEBUG Slot event: ", 0) == 0) return;
            std::this_thread::sleep_for(milliseconds(1));
        }
        FAIL() << "no word about the devices";
    }

    /// The monitor's lines since the last call.
    static Lines monitorLog() {
        for (const std::string& line : takeMonitorLog()) readLines().push_back(line);
        return std::exchange(readLines(), {});
    }

    static void clear() {
        ModuleTest::clear();
        readLines().clear();
    }

    /// Takes the event that has been raised just now.
    static void expectEvent() {
        CK_SLOT_ID taken = untouched;
        for (int i = 0; i < 1000 && taken == untouched; ++i) {
            taken = takeEvent();
            std::this_thread::sleep_for(milliseconds(1));
        }
        EXPECT_EQ(taken, firstSlot);
    }

    /// Asks for an event; `slot` is written by it.
    Outcome wait(CK_FLAGS flags) {
        slot = untouched;
        return observe([&] { return functions().C_WaitForSlotEvent(flags, &slot, nullptr); });
    }
    static void finalize() { ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK); }
    static void initialize() { ASSERT_EQ(functions().C_Initialize(nullptr), CKR_OK); }

    CK_SLOT_ID slot = untouched;

    /// The slot of a pending event, `untouched` without one.
    static CK_SLOT_ID takeEvent() {
        CK_SLOT_ID taken = untouched;
        functions().C_WaitForSlotEvent(CKF_DONT_BLOCK, &taken, nullptr);
        return taken;
    }

    /// The password that the module now hands to the device library.
    static std::string passwordInUse(CK_SESSION_HANDLE session) {
        device().takeCalls();
        CK_ATTRIBUTE label = {CKA_LABEL, const_cast<char*>("x"), 1};
        functions().C_SetAttributeValue(session, privateKeyBase + 1, &label, 1);
        const Lines asked = device().takeCalls();
        if (asked.size() != 2) return "no call";
        // zentak_updateKeyPairDetails("SN1", <key>, "password", …
        const std::size_t begin = asked[1].find(">, \"") + 4;
        return asked[1].substr(begin, asked[1].find('"', begin) - begin);
    }

private:
    static Lines& readLines() {
        static Lines lines;
        return lines;
    }
    /// Number of devices that the monitor has been shown.
    static std::size_t& shown() {
        static std::size_t count = 0;
        return count;
    }
};

/// A thread that waits for an event, and what it was told.
class Waiter {
public:
    Waiter()
        : answer_(
              std::async(std::launch::async, [this] { return functions().C_WaitForSlotEvent(0, &slot_, nullptr); })) {}

    bool isBlocked() const { return answer_.wait_for(milliseconds(200)) != std::future_status::ready; }
    CK_RV answer() { return answer_.get(); }
    CK_SLOT_ID slot() const { return slot_; }

private:
    CK_SLOT_ID slot_ = untouched;
    std::future<CK_RV> answer_;
};

// --- The thread -----------------------------------------------------------------------------------------------------

TEST_F(MonitorTest, PollsAtOnceAndThenEverySecond) {
    finalize();
    clear();
    const Clock::time_point begin = Clock::now();
    initialize();
    ASSERT_TRUE(device().waitForPolls(1));
    EXPECT_LT(Clock::now() - begin, milliseconds(900));
    device().takeCalls();
    ASSERT_TRUE(device().waitForPolls(3));
    const auto passed = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
    EXPECT_GE(passed.count(), 1900);
    EXPECT_LE(passed.count(), 4000);
    for (const std::string& poll : device().takePolls()) EXPECT_EQ(poll, "poll(false, instance)");
    EXPECT_EQ(calls(), Lines{});
    // Nothing changed, so nothing more to say.
    EXPECT_EQ(monitorLog(), (Lines{"DEBUG Session monitor thread started."}));
}

TEST_F(MonitorTest, StartsWithInitializeAndEndsWithFinalize) {
    finalize();
    EXPECT_EQ(log(), (Lines{"DEBUG C_Finalize", "DEBUG Monitor thread joined (stopDeviceMonitor).",
                            "DEBUG C_Finalize completed successfully."}));
    EXPECT_EQ(monitorLog(), (Lines{"DEBUG Session monitor thread stopped."}));
    device().takePolls();
    std::this_thread::sleep_for(milliseconds(1200));
    EXPECT_EQ(device().takePolls(), Lines{});

    initialize();
    ASSERT_TRUE(device().waitForPolls(1));
    EXPECT_EQ(log(), (Lines{"DEBUG C_Initialize"}));
    EXPECT_EQ(monitorLog(), (Lines{"DEBUG Session monitor thread started."}));
}

/// The last lines of the thread come before the line of the one who waited for it.
TEST_F(MonitorTest, FinalizeWaitsForTheThread) {
    finalize();
    Lines lines = parseLog(readLogFiles(logFolder()));
    lines.erase(lines.begin(), lines.end() - 4);
    EXPECT_EQ(lines,
              (Lines{"DEBUG C_Finalize", "DEBUG Session monitor thread stopped.",
                     "DEBUG Monitor thread joined (stopDeviceMonitor).", "DEBUG C_Finalize completed successfully."}));
}

TEST_F(MonitorTest, FinalizeCutsTheSecondShort) {
    for (int i = 0; i < 5; ++i) {
        const Clock::time_point begin = Clock::now();
        finalize();
        EXPECT_LT(Clock::now() - begin, milliseconds(700));
        initialize();
    }
}

TEST_F(MonitorTest, ASlowDeviceDoesNotHoldUpTheHost) {
    finalize();
    clear();
    device().addFault({.operation = "poll", .delay = milliseconds(1500)});
    initialize();
    ASSERT_TRUE(device().waitForPolls(1));  // the slow one has begun
    const Clock::time_point begin = Clock::now();
    listSlots();
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);
    EXPECT_LT(Clock::now() - begin, milliseconds(700));
    // The end waits for the poll, and so leaves no call in the library behind.
    finalize();
    EXPECT_GE(Clock::now() - begin, milliseconds(1000));
}

TEST_F(MonitorTest, APollThatThrowsIsFollowedByAnother) {
    finalize();
    clear();
    device().addFault({.operation = "poll", .thrown = scripted::Throw::exception});
    device().addFault({.operation = "poll", .nth = 2, .thrown = scripted::Throw::somethingElse});
    device().showToMonitor({"SN1"});
    initialize();
    ASSERT_TRUE(device().waitForPolls(3));
    expectEvent();
    const Lines lines = monitorLog();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0], "DEBUG Session monitor thread started.");
    EXPECT_EQ(lines[1].rfind("ERROR Session monitor: ", 0), 0U) << lines[1];
    EXPECT_EQ(lines[2].rfind("ERROR Session monitor: ", 0), 0U) << lines[2];
    EXPECT_EQ(lines[3], "DEBUG Slot event: device count changed from 0 to 1");
}

TEST_F(MonitorTest, RunsWithoutAnInstanceUntilTheNextInitialize) {
    finalize();
    device().change([](scripted::Device& world) { world.givesInstance = false; });
    clear();
    initialize();
    ASSERT_TRUE(device().waitForPolls(1));
    EXPECT_EQ(device().takePolls(), (Lines{"poll(false, null)"}));
    EXPECT_EQ(functions().C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(wait(0).code, CKR_CRYPTOKI_NOT_INITIALIZED);
    clear();

    device().change([](scripted::Device& world) { world.givesInstance = true; });
    initialize();
    EXPECT_EQ(log(), (Lines{"DEBUG C_Initialize", "DEBUG Monitor already running. Stopping old thread.",
                            "DEBUG Monitor thread joined (stopDeviceMonitor)."}));
    EXPECT_EQ(calls(), (Lines{"zentak_createInstance(out)"}));
    ASSERT_TRUE(device().waitForPolls(1));
    EXPECT_EQ(device().takePolls().back(), "poll(false, instance)");
}

// --- The login of a token that is gone ------------------------------------------------------------------------------

class UnpluggingTest : public MonitorTest {
protected:
    void plugInTokens() override {
        plugIn(makeTokenInfo("SN1"));
        plugIn(makeTokenInfo("SN2"));
        device().keyPairs["SN1"] = {makeKeyPair(1)};
    }

    std::vector<std::string> atStart() override { return {"SN1", "SN2"}; }
};

TEST_F(UnpluggingTest, DropsTheLoginAndKeepsTheSessions) {
    const CK_SESSION_HANDLE readOnly = openSession();
    const CK_SESSION_HANDLE readWrite = openSession(CKF_RW_SESSION);
    login(readOnly);
    ASSERT_EQ(passwordInUse(readWrite), "1234");
    clear();

    show({"SN2"});
    EXPECT_EQ(monitorLog(), (Lines{"DEBUG Device disconnected, clearing userPassword",
                                   "DEBUG Device disconnected, clearing userPassword",
                                   "DEBUG Slot event: device count changed from 2 to 1"}));
    EXPECT_EQ(stateOf(readOnly), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(readWrite), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(passwordInUse(readWrite), "");

    // Public sessions have nothing to lose, and the token may come back.
    clear();
    show({"SN1", "SN2"});
    EXPECT_EQ(monitorLog(), (Lines{"DEBUG Slot event: device count changed from 1 to 2"}));
    EXPECT_EQ(functions().C_Login(readWrite, CKU_USER, pin("1234"), 4), CKR_OK);
    EXPECT_EQ(stateOf(readOnly), CKS_RO_USER_FUNCTIONS);
}

TEST_F(UnpluggingTest, LeavesTheSessionsOfOtherTokensAlone) {
    const CK_SESSION_HANDLE gone = openSession(CKF_RW_SESSION, firstSlot);
    const CK_SESSION_HANDLE present = openSession(CKF_RW_SESSION, firstSlot + 1);
    login(gone);
    login(present);
    show({"SN2"});
    EXPECT_EQ(stateOf(gone), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(present), CKS_RW_USER_FUNCTIONS);
}

TEST_F(UnpluggingTest, LeavesSecurityOfficersAlone) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session, "12345678", CKU_SO);
    show({});
    EXPECT_EQ(monitorLog(), (Lines{"DEBUG Slot event: device count changed from 2 to 0"}));
    EXPECT_EQ(stateOf(session), CKS_RW_SO_FUNCTIONS);
}

/// The names are compared whole, and a token that is replaced by another one is gone though the count is the same.
TEST_F(UnpluggingTest, ComparesWholeNames) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session);
    show({"SN1", "SN10", "SN100"});
    EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
    takeEvent();
    clear();
    show({"sn1", "SN10", "SN100"});
    EXPECT_EQ(monitorLog(), (Lines{"DEBUG Device disconnected, clearing userPassword"}));
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(takeEvent(), untouched);
}

// --- Slot events ----------------------------------------------------------------------------------------------------

TEST_F(MonitorTest, WaitIsRefusedBeforeInitialize) {
    finalize();
    const Outcome refusal = refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_WaitForSlotEvent: not initialized");
    for (const CK_FLAGS flags : {CK_FLAGS{0}, CK_FLAGS{CKF_DONT_BLOCK}}) {
        EXPECT_EQ(wait(flags), refusal);
        EXPECT_EQ(slot, untouched);
        EXPECT_EQ(observe([&] { return functions().C_WaitForSlotEvent(flags, nullptr, nullptr); }), refusal);
    }
}

TEST_F(MonitorTest, WaitRefusesANullPointerAndKeepsTheEvent) {
    show({"SN1"});
    for (const CK_FLAGS flags : {CK_FLAGS{0}, CK_FLAGS{CKF_DONT_BLOCK}}) {
        EXPECT_EQ(observe([&] { return functions().C_WaitForSlotEvent(flags, nullptr, nullptr); }),
                  refused(CKR_ARGUMENTS_BAD, "C_WaitForSlotEvent: pSlot is NULL"));
    }
    expectEvent();
}

TEST_F(MonitorTest, WithoutBlockingAnEventIsToldOnce) {
    const Outcome nothing = refused(CKR_NO_EVENT, "C_WaitForSlotEvent: no event pending (non-blocking)");
    EXPECT_EQ(wait(CKF_DONT_BLOCK), nothing);
    EXPECT_EQ(slot, untouched);

    show({"SN1"});
    EXPECT_EQ(monitorLog(), (Lines{"DEBUG Slot event: device count changed from 0 to 1"}));
    Outcome told = nothing;
    for (int i = 0; i < 1000 && told == nothing; ++i) {  // the event follows its line
        // What is reserved isn't looked at, nor is any other flag.
        told = observe([&] { return functions().C_WaitForSlotEvent(CKF_DONT_BLOCK | 6, &slot, &slot); });
    }
    EXPECT_EQ(
        told,
        (Outcome{CKR_OK,
                 {"DEBUG C_WaitForSlotEvent", "DEBUG C_WaitForSlotEvent: non-blocking, returning slot 1342177281"}}));
    EXPECT_EQ(slot, firstSlot);
    EXPECT_EQ(wait(CKF_DONT_BLOCK), nothing);
}

TEST_F(MonitorTest, ATokenThatIsThereAtTheStartIsAnEvent) {
    finalize();
    device().showToMonitor({"SN1"});
    initialize();
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(wait(0).log,
              (Lines{"DEBUG C_WaitForSlotEvent", "DEBUG C_WaitForSlotEvent: blocking, returning slot 1342177281"}));
    EXPECT_LT(Clock::now() - begin, milliseconds(2000));
    EXPECT_EQ(slot, firstSlot);
    EXPECT_EQ(takeEvent(), untouched);
}

/// Whatever comes or goes, the event names the first slot, and changes between two looks are one event.
TEST_F(MonitorTest, ChangesBetweenTwoLooksAreOneEvent) {
    show({"SN1", "SN2", "SN3"});
    show({"SN3"});
    EXPECT_EQ(monitorLog(), (Lines{"DEBUG Slot event: device count changed from 0 to 3",
                                   "DEBUG Slot event: device count changed from 3 to 1"}));
    expectEvent();
    EXPECT_EQ(takeEvent(), untouched);
}

TEST_F(MonitorTest, ABlockedWaiterGetsTheEvent) {
    Waiter waiter;
    EXPECT_TRUE(waiter.isBlocked());
    // The wait holds nothing that others need.
    CK_INFO info;
    EXPECT_EQ(functions().C_GetInfo(&info), CKR_OK);
    device().showToMonitor({"SN1"});
    EXPECT_EQ(waiter.answer(), CKR_OK);
    EXPECT_EQ(waiter.slot(), firstSlot);
    EXPECT_EQ(takeEvent(), untouched);
}

TEST_F(MonitorTest, OneOfSeveralWaitersGetsTheEvent) {
    std::vector<Waiter> waiters(3);
    for (const Waiter& waiter : waiters) EXPECT_TRUE(waiter.isBlocked());
    show({"SN1"});
    int blocked = 0;
    for (const Waiter& waiter : waiters) blocked += waiter.isBlocked() ? 1 : 0;
    EXPECT_EQ(blocked, 2);
    finalize();
    int events = 0;
    for (Waiter& waiter : waiters) {
        const CK_RV answer = waiter.answer();
        events += answer == CKR_OK ? 1 : 0;
        EXPECT_EQ(waiter.slot(), answer == CKR_OK ? firstSlot : untouched);
    }
    EXPECT_EQ(events, 1);
}

TEST_F(MonitorTest, FinalizeWakesABlockedWaiter) {
    Waiter waiter;
    ASSERT_TRUE(waiter.isBlocked());
    clear();
    finalize();
    EXPECT_EQ(waiter.answer(), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(waiter.slot(), untouched);
    const Lines lines = log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "ERROR C_WaitForSlotEvent: monitor stopped, returning CKR_CRYPTOKI_NOT_INITIALIZED"),
              1);
}

/// While C_Finalize waits for a slow device, the module counts as initialised and has an event to tell.
TEST_F(MonitorTest, AStopGoesBeforeAPendingEvent) {
    show({"SN1"});
    device().addFault({.operation = "poll", .delay = milliseconds(2500)});
    device().takePolls();
    ASSERT_TRUE(device().waitForPolls(1));
    const std::future<CK_RV> finalized = std::async(std::launch::async, [] { return functions().C_Finalize(nullptr); });
    std::this_thread::sleep_for(milliseconds(700));  // so that it has asked the monitor to stop
    EXPECT_EQ(wait(0).code, CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(slot, untouched);
    // It came while the module was still there.
    EXPECT_EQ(finalized.wait_for(milliseconds(0)), std::future_status::timeout);
}

/// A host that starts again at once may be faster than the waiter wakes.
TEST_F(MonitorTest, FinalizeWakesABlockedWaiterThoughAnotherStartFollows) {
    for (int i = 0; i < 20; ++i) {
        Waiter waiter;
        ASSERT_TRUE(i > 0 || waiter.isBlocked());
        std::this_thread::sleep_for(milliseconds(20));  // so that it has begun to wait
        finalize();
        initialize();
        EXPECT_EQ(waiter.answer(), CKR_CRYPTOKI_NOT_INITIALIZED);
    }
}

/// An event that nobody has taken outlives the stop: the next start doesn't clear it.
TEST_F(MonitorTest, APendingEventOutlivesARestart) {
    show({"SN1"});
    finalize();
    device().showToMonitor({});
    initialize();
    expectEvent();
    EXPECT_EQ(takeEvent(), untouched);
}

}  // namespace

// A log that can't be written: folders and files that are missing, in the way, closed to the user or on a full disk,
// and a level that changes under way. Whatever becomes of the lines, a host's calls answer as ever, nothing is left
// open, and once the log can be written it is.

#include <chrono>
#include <ctime>
#include <fstream>
#include <functional>
#include <regex>

#include "log_test.h"

#if !defined(_WIN32)
#include <sys/stat.h>

#include "broken_storage.h"
#endif

namespace {

using namespace support;
namespace fs = std::filesystem;

class LogFailureTest : public LogTest {
protected:
    void plugInTokens() override {
        plugIn(makeTokenInfo("SN1"));
        device().keyPairs["SN1"] = {makeKeyPair(1)};
    }

    /// The module isn't running, so that no line of its monitor comes while a test breaks or mends something.
    void SetUp() override {
        LogTest::SetUp();
        ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
        useEmptyTemporaryFolder();
        createLogFolder();
    }

    /// A host's work from start to stop of the module, refusals included.
    static std::vector<CK_RV> work() {
        const CK_FUNCTION_LIST& api = functions();
        std::vector<CK_RV> codes;
        const auto note = [&](CK_RV code) { codes.push_back(code); };
        note(api.C_Initialize(nullptr));
        note(api.C_Initialize(nullptr));
        CK_SLOT_ID slots[4];
        CK_ULONG count = 4;
        note(api.C_GetSlotList(CK_TRUE, slots, &count));
        CK_SESSION_HANDLE session = 0;
        note(api.C_OpenSession(firstSlot, CKF_RW_SESSION, nullptr, nullptr, &session));
        note(api.C_OpenSession(firstSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session));
        note(api.C_Login(session, CKU_USER, pin("123"), 3));
        note(api.C_Login(session, CKU_USER, pin("1234"), 4));
        CK_OBJECT_HANDLE found[4];
        note(api.C_FindObjectsInit(session, nullptr, 0));
        note(api.C_FindObjects(session, found, 4, &count));
        note(api.C_FindObjectsFinal(session));
        CK_BYTE bytes[1024] = {1};
        CK_ULONG length = sizeof bytes;
        CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
        note(api.C_SignInit(session, &mechanism, privateKeyBase + 1));
        note(api.C_Sign(session, bytes, 1, bytes, &length));
        note(api.C_Sign(session, bytes, 1, bytes, &length));
        note(api.C_GenerateRandom(session, nullptr, 1));
        note(api.C_SeedRandom(session, bytes, 1));
        note(api.C_Logout(session));
        note(api.C_CloseSession(session));
        note(api.C_CloseSession(session));
        note(api.C_Finalize(nullptr));
        note(api.C_Finalize(nullptr));
        return codes;
    }

    const std::vector<CK_RV> codesOfWork = {// The module and its slots.
                                            CKR_OK, CKR_CRYPTOKI_ALREADY_INITIALIZED, CKR_OK,
                                            // Sessions and logins.
                                            CKR_SESSION_PARALLEL_NOT_SUPPORTED, CKR_OK, CKR_PIN_LEN_RANGE, CKR_OK,
                                            // The search.
                                            CKR_OK, CKR_OK, CKR_OK,
                                            // The signature.
                                            CKR_OK, CKR_OK, CKR_OPERATION_NOT_INITIALIZED,
                                            // Random numbers.
                                            CKR_ARGUMENTS_BAD, CKR_FUNCTION_NOT_SUPPORTED,
                                            // The end.
                                            CKR_OK, CKR_OK, CKR_SESSION_HANDLE_INVALID, CKR_OK,
                                            CKR_CRYPTOKI_NOT_INITIALIZED};

    /// Breaks the log, lets the host work, and mends it.
    void expectUnharmed(const std::function<void()>& breakIt, const std::function<void()>& mendIt) const {
        setLogLevel(debugLevel);
        EXPECT_EQ(outputOfWork(), "");
        std::string complaints;
        {
            const StandardOutput output;
            const auto before = threadsAndFiles();
            breakIt();
            EXPECT_EQ(work(), codesOfWork);
            mendIt();
            EXPECT_EQ(threadsAndFiles(), before);
            complaints = output.text();
        }
        // Nothing but the two sentences for hosts whose log can't be written.
        static const std::regex sentences("(\nUnable to (write log|getLogBaseFolderPath))*");
        EXPECT_TRUE(std::regex_match(complaints, sentences)) << complaints;
        expectALine();
    }

    /// The next line is written, to its end, where the last one stands.
    static void expectALine() {
        setLogLevel(errorLevel);
        {
            const StandardOutput output;
            EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
            EXPECT_EQ(output.text(), "");
        }
        static const std::regex line(
            R"([\s\S]*\d\d/\d\d::\d\d:\d\d:\d\d:\d\d\d-> ->ERROR ::=>C_GetInfo: not initialized\n)");
        const std::string text = readLogFiles(logFolder());
        EXPECT_TRUE(std::regex_match(text.substr(text.size() - std::min<std::size_t>(text.size(), 200)), line)) << text;
    }

    std::string outputOfWork() const {
        const StandardOutput output;
        EXPECT_EQ(work(), codesOfWork);
        return output.text();
    }

    static fs::path vendorFolder() { return temporaryFolder() / "Dravenko Sentronics"; }

    /// The files that are written today, and in case it ends, tomorrow.
    static std::vector<fs::path> logFiles() {
        std::vector<fs::path> files;
        for (const int days : {0, 1}) {
            const std::time_t time =
                std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() + std::chrono::hours(24 * days));
            char name[32];
            std::strftime(name, sizeof name, "%Y-%m-%d.LOG", std::localtime(&time));
            files.push_back(logFolder() / name);
        }
        return files;
    }

    /// Something else in the place of the log files.
    void expectUnharmedByFilesLike(const std::function<void(const fs::path&)>& make) const {
        expectUnharmed(
            [&] {
                for (const fs::path& file : logFiles()) {
                    fs::remove(file);
                    make(file);
                }
            },
            [&] {
                for (const fs::path& file : logFiles()) fs::remove(file);
            });
    }
};

TEST_F(LogFailureTest, TheFoldersAreDeleted) {
    expectUnharmed([] { fs::remove_all(vendorFolder()); }, [] {});
    expectUnharmed([] { fs::remove_all(logFolder()); }, [] {});  // the lines make them again
}

TEST_F(LogFailureTest, AFileIsInTheWayOfAFolder) {
    for (const fs::path& folder : {vendorFolder(), logFolder()}) {
        expectUnharmed(
            [&] {
                fs::remove_all(folder);
                std::ofstream(folder) << "in the way";
            },
            [&] {
                EXPECT_EQ(fs::file_size(folder), 10U);
                fs::remove(folder);
                createLogFolder();
            });
    }
}

TEST_F(LogFailureTest, AFolderIsInTheWayOfTheFile) {
    expectUnharmedByFilesLike([](const fs::path& file) { fs::create_directory(file); });
}

/// Wherever in a call the level changes, from every level to every other.
TEST_F(LogFailureTest, TheLevelChangesUnderWay) {
    expectUnharmed([] {}, [] {});
    device().takeCalls();
    ASSERT_EQ(work(), codesOfWork);
    const Lines operations = calls();
    ASSERT_GT(operations.size(), 8U);
    for (int before = 0; before <= 3; ++before) {
        for (int after = 0; after <= 3; ++after) {
            setLogLevel(before);
            for (const std::string& call : operations) {
                scripted::Fault change{call.substr(0, call.find('('))};
                change.action = [&, next = after] { setLogLevel(next); };
                device().addFault(change);
            }
            EXPECT_EQ(outputOfWork(), "") << before << " to " << after;
            device().dropFaults();
        }
    }
    expectALine();
}

#if !defined(_WIN32)
TEST_F(LogFailureTest, ALinkIsInThePlaceOfTheFile) {
    const fs::path target = runFolder() / "elsewhere";
    std::ofstream(target).close();
    expectUnharmedByFilesLike([&](const fs::path& file) { fs::create_symlink(target, file); });
    EXPECT_EQ(fs::file_size(target), 0U);
    expectUnharmedByFilesLike([&](const fs::path& file) { fs::create_symlink(runFolder() / "nowhere", file); });
    EXPECT_FALSE(fs::exists(runFolder() / "nowhere"));
    fs::remove(target);
}

/// Whether somebody reads from it or not: the host neither waits nor is ended by a signal.
TEST_F(LogFailureTest, APipeIsInThePlaceOfTheFile) {
    const auto makePipe = [](const fs::path& file) { ASSERT_EQ(mkfifo(file.c_str(), 0600), 0); };
    expectUnharmedByFilesLike(makePipe);

    for (const fs::path& file : logFiles()) fs::remove(file);
    const fs::path pipe = runFolder() / "pipe";
    makePipe(pipe);
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    expectUnharmedByFilesLike([&](const fs::path& file) { fs::create_hard_link(pipe, file); });
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 0);
    close(reader);
    fs::remove(pipe);
}

TEST_F(LogFailureTest, APipeIsInThePlaceOfTheLevel) {
    removeLogLevel();
    const fs::path level = runFolder() / "config" / "logLevel";
    ASSERT_EQ(mkfifo(level.c_str(), 0600), 0);
    EXPECT_EQ(outputOfWork(), "");
    fs::remove(level);
    expectALine();
}

/// Rights that keep the host's user from writing, from the temporary folder down to the file.
TEST_F(LogFailureTest, TheUserMayNotWrite) {
    const fs::path base = temporaryFolder();
    inChild([&] {
        for (const fs::path& closed : {base, vendorFolder(), logFolder(), logFiles()[0]}) {
            SCOPED_TRACE(closed);
            fs::remove_all(vendorFolder());
            createLogFolder();
            std::optional<OrdinaryUser> user;
            expectUnharmed(
                [&] {
                    if (closed == base) fs::remove_all(vendorFolder());
                    if (closed == vendorFolder()) fs::remove_all(logFolder());
                    if (closed == logFolder()) fs::remove(logFiles()[0]);
                    ASSERT_EQ(chmod(closed.c_str(), fs::is_directory(closed) ? 0555 : 0444), 0);
                    user.emplace();
                    std::ofstream attempt(fs::is_directory(closed) ? closed / "attempt" : closed);
                    ASSERT_FALSE(attempt.is_open());
                },
                [&] {
                    user.reset();
                    ASSERT_EQ(chmod(closed.c_str(), 0755), 0);
                    createLogFolder();
                });
        }
    });
}

/// The log would go to the root of the file system, where the user may not write.
TEST_F(LogFailureTest, TheTemporaryFolderIsMissing) {
    inChild([&] {
        const fs::path before = temporaryFolder();
        std::optional<OrdinaryUser> user;
        expectUnharmed(
            [&] {
                user.emplace();
                setTemporaryFolder(runFolder() / "missing");
            },
            [&] {
                setTemporaryFolder(before);
                user.reset();
            });
    });
}

TEST_F(LogFailureTest, TheDiskIsFull) {
    inChild([&] {
        FullDisk disk(runFolder() / "small disk");
        setTemporaryFolder(disk.folder());
        createLogFolder();
        // A new file that stays empty, and one whose last line is cut.
        for (const bool isNew : {true, false}) {
            expectUnharmed(
                [&] {
                    if (isNew) fs::remove(logFiles()[0]);
                    disk.fill();
                },
                [&] { disk.makeRoom(); });
        }
    });
}
#endif

}  // namespace

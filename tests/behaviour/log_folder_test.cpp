// Where the diagnostic log lies: the temporary folder, the folders in it, the process name.

#include <fstream>
#include <iterator>
#include <optional>

#include "child_process.h"
#include "log_test.h"

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

namespace {

using namespace support;
namespace fs = std::filesystem;

class LogFolder : public LogTest {};

constexpr const char* unableToWrite = "\nUnable to write log";
constexpr const char* unableToGetFolder = "\nUnable to getLogBaseFolderPath";

// --- The folder -----------------------------------------------------------------------------------------------------

/// Each line makes only the first level that is missing.
TEST_F(LogFolder, theFolderGrowsByOneLevelALine) {
    useEmptyTemporaryFolder();
    const fs::path vendorFolder = temporaryFolder() / "Dravenko Sentronics";

    EXPECT_EQ(outputOfAnErrorLine(), unableToWrite);
    EXPECT_TRUE(fs::is_directory(vendorFolder));
    EXPECT_TRUE(fs::is_empty(vendorFolder));

    EXPECT_EQ(outputOfAnErrorLine(), "");
    EXPECT_EQ(parseLog(readLogFiles(logFolder())), onlyError);

    EXPECT_EQ(outputOfAnErrorLine(), "");
    EXPECT_EQ(parseLog(readLogFiles(logFolder())), (Lines{onlyError[0], onlyError[0]}));
    EXPECT_EQ(std::distance(fs::directory_iterator(temporaryFolder()), fs::directory_iterator()), 1);
    EXPECT_EQ(std::distance(fs::directory_iterator(vendorFolder), fs::directory_iterator()), 1);
}

TEST_F(LogFolder, aLineThatIsNotWrittenMakesNoFolder) {
    useEmptyTemporaryFolder();
    setLogLevel(0);
    EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_TRUE(fs::is_empty(temporaryFolder()));
}

TEST_F(LogFolder, theVendorFolderIsThereAlready) {
    useEmptyTemporaryFolder();
    fs::create_directory(temporaryFolder() / "Dravenko Sentronics");
    EXPECT_EQ(outputOfAnErrorLine(), "");
    EXPECT_EQ(parseLog(readLogFiles(logFolder())), onlyError);
}

TEST_F(LogFolder, aFileInPlaceOfTheFolder) {
    useEmptyTemporaryFolder();
    std::ofstream(temporaryFolder() / "Dravenko Sentronics") << "in the way";
    EXPECT_EQ(outputOfAnErrorLine(), unableToWrite);
    EXPECT_EQ(outputOfAnErrorLine(), unableToWrite);

    useEmptyTemporaryFolder();
    fs::create_directory(temporaryFolder() / "Dravenko Sentronics");
    std::ofstream(logFolder()) << "in the way";
    EXPECT_EQ(outputOfAnErrorLine(), unableToWrite);
}

/// Every filtered-in line of a call that can't be written prints once, and the call goes on.
TEST_F(LogFolder, aCallThatCantLogGoesOn) {
    useEmptyTemporaryFolder();
    std::ofstream(temporaryFolder() / "Dravenko Sentronics") << "in the way";
    setLogLevel(debugLevel);
    std::string text;
    CK_SESSION_HANDLE session = 0;
    {
        const StandardOutput output;
        EXPECT_EQ(functions().C_OpenSession(firstSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
        text = output.text();
    }
    EXPECT_EQ(session, firstSession);
    EXPECT_EQ(text, std::string(unableToWrite) + unableToWrite);
}

/// Without a temporary folder the log hangs from the root of the current drive.
class LogWithoutTemporaryFolder : public LogTest {
protected:
    void SetUp() override {
        LogTest::SetUp();
        vendorFolderWasThere_ = fs::exists(vendorFolder);
    }

    void TearDown() override {
        LogTest::TearDown();
        if (!vendorFolderWasThere_) {
            std::error_code ignored;
            fs::remove(vendorFolder, ignored);
        }
    }

    const fs::path vendorFolder = "/Dravenko Sentronics";

private:
    bool vendorFolderWasThere_ = false;
};

TEST_F(LogWithoutTemporaryFolder, aMissingFolderIsReported) {
    if (fs::exists(vendorFolder)) {
        FAIL() << vendorFolder << " is there: another program has logged without a temporary folder";
    }
    // One line only: it makes no more than the first level, or nothing where the root can't be written.
    setTemporaryFolder(runFolder() / "missing");
    EXPECT_EQ(outputOfAnErrorLine(), std::string(unableToGetFolder) + unableToWrite);
    EXPECT_FALSE(fs::exists(runFolder() / "missing"));
}

TEST_F(LogWithoutTemporaryFolder, aFileInPlaceOfTheTemporaryFolder) {
    if (fs::exists(vendorFolder)) {
        FAIL() << vendorFolder << " is there: another program has logged without a temporary folder";
    }
    std::ofstream(runFolder() / "file") << "no folder";
    setTemporaryFolder(runFolder() / "file");
    EXPECT_EQ(outputOfAnErrorLine(), std::string(unableToGetFolder) + unableToWrite);
}

#if !defined(_WIN32)
/// The temporary folder may be everybody's; the log is for its user alone, whatever the host lets others do with files.
TEST_F(LogFolder, isForTheUserAlone) {
    useEmptyTemporaryFolder();
    const mode_t before = umask(0);
    outputOfAnErrorLine();
    outputOfAnErrorLine();
    umask(before);
    std::vector<fs::path> made = {temporaryFolder() / "Dravenko Sentronics", logFolder()};
    for (const fs::directory_entry& entry : fs::directory_iterator(logFolder())) made.push_back(entry.path());
    ASSERT_EQ(made.size(), 3U);
    for (const fs::path& path : made) {
        const fs::perms expected = fs::perms::owner_read | fs::perms::owner_write |
                                   (fs::is_directory(path) ? fs::perms::owner_exec : fs::perms::none);
        EXPECT_EQ(fs::status(path).permissions(), expected) << path;
    }
}

TEST_F(LogFolder, aTemporaryFolderWithASlashAtItsEnd) {
    useEmptyTemporaryFolder();
    createLogFolder();
    setEnvironment("TMPDIR", temporaryFolder().string() + "/");
    EXPECT_EQ(outputOfAnErrorLine(), "");
    EXPECT_EQ(parseLog(readLogFiles(logFolder())), onlyError);
}

/// Without the variable it is /tmp.
TEST_F(LogFolder, noTemporaryFolderIsNamed) {
    for (const std::optional<std::string>& value : {std::optional<std::string>(), std::optional<std::string>("")}) {
        const fs::path folder = fs::path("/tmp/Dravenko Sentronics") / processName();
        fs::create_directories(folder);
        const std::string before = readLogFiles(folder);
        setEnvironment("TMPDIR", value);
        EXPECT_EQ(outputOfAnErrorLine(), "");
        EXPECT_EQ(parseLog(readLogFiles(folder).substr(before.size())), onlyError);
        if (before.empty()) {
            fs::remove_all(folder);
        }
    }
}

/// A path that doesn't fit the room for it is cut; where that leads isn't the point, but nothing may break.
TEST_F(LogFolder, aVeryLongTemporaryFolder) {
    fs::path folder = runFolder();
    while (folder.string().size() < 990) {
        folder /= std::string(30, 'd');
    }
    fs::create_directories(folder);
    setTemporaryFolder(folder);
    for (int i = 0; i < 5; ++i) {
        outputOfAnErrorLine();
    }
    EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
}
#endif

// --- The process name -----------------------------------------------------------------------------------------------

class ProcessName : public LogTest {
protected:
    /// Runs the probe under that file name and gives the lines that it logged under `process`.
    static Lines linesOfProbe(const std::string& fileName, const std::string& process,
                              const std::vector<std::string>& arguments = {}) {
#if defined(_WIN32)
        const fs::path original = programFile().parent_path() / "log_probe.exe";
#else
        const fs::path original = programFile().parent_path() / "log_probe";
#endif
        const fs::path copy = programFile().parent_path() / fileName;
        fs::copy_file(original, copy, fs::copy_options::overwrite_existing);
        useEmptyTemporaryFolder();
        fs::create_directory(temporaryFolder() / "Dravenko Sentronics");
        const ChildResult result = runChild(copy, arguments);
        fs::remove(copy);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.output, "");
        return parseLog(readLogFiles(logFolder(process)));
    }

    const Lines expected = {"DEBUG C_GetFunctionList", "DEBUG C_GetInfo", "ERROR C_GetInfo: not initialized"};
};

TEST_F(ProcessName, isCutAtTheFirstFullStop) {
    const std::string name = processName() + "-setup";
    EXPECT_EQ(linesOfProbe(name + ".2.exe", name), expected);
}

TEST_F(ProcessName, mayHaveBlanks) {
    const std::string name = processName() + " with blanks";
    EXPECT_EQ(linesOfProbe(name + ".exe", name), expected);
}

/// Nothing is left before the full stop: the path has two slashes in a row, and the file lies one level up.
TEST_F(ProcessName, mayBeEmpty) {
    EXPECT_EQ(linesOfProbe("." + processName() + ".exe", ""), expected);
}

#if !defined(_WIN32)
TEST_F(ProcessName, mayHaveNoFullStop) {
    const std::string name = processName() + "-probe";
    EXPECT_EQ(linesOfProbe(name, name), expected);
}

/// The system then tells the path with a mark behind it.
TEST_F(ProcessName, isKeptWhenTheFileIsReplaced) {
    const std::string name = processName() + "-updated";
    EXPECT_EQ(linesOfProbe(name, name, {"replaced"}), expected);
}

TEST_F(ProcessName, mayEndLikeThatOfADeletedFile) {
    const std::string name = processName() + " (deleted)";
    EXPECT_EQ(linesOfProbe(name, name), expected);
    EXPECT_EQ(linesOfProbe(name, name, {"replaced"}), expected);
}
#endif

/// Programs of one name share the day's file.
TEST_F(ProcessName, processesOfOneNameShareAFile) {
#if defined(_WIN32)
    const fs::path probe = programFile().parent_path() / "log_probe.exe";
#else
    const fs::path probe = programFile().parent_path() / "log_probe";
#endif
    useEmptyTemporaryFolder();
    fs::create_directories(logFolder("log_probe"));
    EXPECT_EQ(runChild(probe, {}).exitCode, 0);
    EXPECT_EQ(runChild(probe, {}).exitCode, 0);
    Lines twice = expected;
    twice.insert(twice.end(), expected.begin(), expected.end());
    EXPECT_EQ(parseLog(readLogFiles(logFolder("log_probe"))), twice);
}

}  // namespace

// Where the diagnostic log lies: the temporary folder, the folders in it, the process name.

#include <fstream>
#include <functional>
#include <iterator>
#include <optional>

#include "child_process.h"
#include "log_test.h"

#if !defined(_WIN32)
#include <sys/stat.h>

#include "broken_storage.h"
#endif

namespace {

using namespace support;
namespace fs = std::filesystem;

class LogFolderTest : public LogTest {};

constexpr const char* unableToWrite = "\nUnable to write log";
constexpr const char* unableToGetFolder = "\nUnable to getLogBaseFolderPath";

// --- The folder -----------------------------------------------------------------------------------------------------

/// Each line makes only the first level that is missing.
TEST_F(LogFolderTest, TheFolderGrowsByOneLevelALine) {
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

TEST_F(LogFolderTest, ALineThatIsNotWrittenMakesNoFolder) {
    useEmptyTemporaryFolder();
    setLogLevel(0);
    EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_TRUE(fs::is_empty(temporaryFolder()));
}

TEST_F(LogFolderTest, TheVendorFolderIsThereAlready) {
    useEmptyTemporaryFolder();
    fs::create_directory(temporaryFolder() / "Dravenko Sentronics");
    EXPECT_EQ(outputOfAnErrorLine(), "");
    EXPECT_EQ(parseLog(readLogFiles(logFolder())), onlyError);
}

TEST_F(LogFolderTest, AFileInPlaceOfTheFolder) {
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
TEST_F(LogFolderTest, ACallThatCantLogGoesOn) {
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

/// Runs the body with a root folder of its own below the folder of this run, which neither other programs nor earlier
/// runs have written to: on Windows that of the system's drive, elsewhere by `chroot` in a child process. Who isn't let
/// do that may not write to the root either.
void withOwnRoot(const std::function<void()>& body) {
#if defined(_WIN32)
    const fs::path before = fs::current_path();
    fs::current_path("C:\\");
    fs::remove("/Dravenko Sentronics");  // of a run that was killed
    body();
    fs::remove("/Dravenko Sentronics");
    fs::current_path(before);
#else
    inChild([&] {
        const fs::path root = runFolder() / "root";
        const fs::path program = programFile();
        // What is named by its path is at its place there too.
        fs::create_directories(root / (runFolder() / "config").relative_path());
        fs::create_directories(root / "proc/self");
        fs::create_symlink(program, root / "proc/self/exe");
        fs::create_directories(root / "tmp");
        if (chroot(root.c_str()) == 0 || (unshare(CLONE_NEWUSER) == 0 && chroot(root.c_str()) == 0)) {
            ASSERT_EQ(chdir("/"), 0);
        } else {
            ASSERT_NE(geteuid(), 0U) << "root may do it everywhere";
        }
        // A forked child begins without the module; nothing else is to be logged than what the body does.
        setLogLevel(errorLevel);
        ASSERT_EQ(functions().C_Initialize(nullptr), CKR_OK);
        body();
    });
    removeWhole(runFolder() / "root");
#endif
}

/// Without a temporary folder the log hangs from the root of the current drive. Only one line is written: it makes no
/// more than the first level, or nothing where the root can't be written.
TEST_F(LogFolderTest, AMissingTemporaryFolderIsReported) {
    withOwnRoot([] {
        setTemporaryFolder(runFolder() / "missing");
        EXPECT_EQ(outputOfAnErrorLine(), std::string(unableToGetFolder) + unableToWrite);
        EXPECT_FALSE(fs::exists(runFolder() / "missing"));
    });
}

TEST_F(LogFolderTest, AFileInPlaceOfTheTemporaryFolder) {
    withOwnRoot([] {
        std::ofstream(runFolder() / "file") << "no folder";
        setTemporaryFolder(runFolder() / "file");
        EXPECT_EQ(outputOfAnErrorLine(), std::string(unableToGetFolder) + unableToWrite);
    });
}

#if !defined(_WIN32)
/// The temporary folder may be everybody's; the log is for its user alone, whatever the host lets others do with files.
TEST_F(LogFolderTest, IsForTheUserAlone) {
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

TEST_F(LogFolderTest, ATemporaryFolderWithASlashAtItsEnd) {
    useEmptyTemporaryFolder();
    createLogFolder();
    setEnvironment("TMPDIR", temporaryFolder().string() + "/");
    EXPECT_EQ(outputOfAnErrorLine(), "");
    EXPECT_EQ(parseLog(readLogFiles(logFolder())), onlyError);
}

/// Without the variable it is /tmp.
TEST_F(LogFolderTest, NoTemporaryFolderIsNamed) {
    withOwnRoot([] {
        const fs::path folder = fs::path("/tmp/Dravenko Sentronics") / processName();
        fs::create_directories(folder);
        for (const std::optional<std::string>& value : {std::optional<std::string>(), std::optional<std::string>("")}) {
            const std::string before = readLogFiles(folder);
            setEnvironment("TMPDIR", value);
            EXPECT_EQ(outputOfAnErrorLine(), "");
            EXPECT_EQ(parseLog(readLogFiles(folder).substr(before.size())), onlyError);
        }
        fs::remove_all(folder);
    });
}

/// A path that doesn't fit the room for it is cut; where that leads isn't the point, but nothing may break.
TEST_F(LogFolderTest, AVeryLongTemporaryFolder) {
    fs::path folder = runFolder();
    while (folder.string().size() < 990) folder /= std::string(30, 'd');
    fs::create_directories(folder);
    setTemporaryFolder(folder);
    for (int i = 0; i < 5; ++i) outputOfAnErrorLine();
    EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
}
#endif

// --- The process name -----------------------------------------------------------------------------------------------

class ProcessNameTest : public LogTest {
protected:
    /// Runs the probe under that file name and gives the lines that it logged under `process`.
    static Lines linesOfProbe(const std::string& fileName, const std::string& process,
                              const std::vector<std::string>& arguments = {}) {
        const fs::path copy = programFile().parent_path() / fileName;
        fs::copy_file(probe, copy, fs::copy_options::overwrite_existing);
        useEmptyTemporaryFolder();
        fs::create_directory(temporaryFolder() / "Dravenko Sentronics");
        const ChildResult result = runChild(copy, arguments);
        fs::remove(copy);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.output, "");
        return parseLog(readLogFiles(logFolder(process)));
    }

#if defined(_WIN32)
    static inline const fs::path probe = programFile().parent_path() / "log_probe.exe";
#else
    static inline const fs::path probe = programFile().parent_path() / "log_probe";
#endif
    const Lines expected = {"DEBUG C_GetFunctionList", "DEBUG C_GetInfo", "ERROR C_GetInfo: not initialized"};
};

TEST_F(ProcessNameTest, IsCutAtTheFirstFullStop) {
    const std::string name = processName() + "-setup";
    EXPECT_EQ(linesOfProbe(name + ".2.exe", name), expected);
}

TEST_F(ProcessNameTest, MayHaveBlanks) {
    const std::string name = processName() + " with blanks";
    EXPECT_EQ(linesOfProbe(name + ".exe", name), expected);
}

/// Nothing is left before the full stop: the path has two slashes in a row, and the file lies one level up.
TEST_F(ProcessNameTest, MayBeEmpty) {
    EXPECT_EQ(linesOfProbe("." + processName() + ".exe", ""), expected);
}

#if !defined(_WIN32)
TEST_F(ProcessNameTest, MayHaveNoFullStop) {
    const std::string name = processName() + "-probe";
    EXPECT_EQ(linesOfProbe(name, name), expected);
}

/// The system then tells the path with a mark behind it.
TEST_F(ProcessNameTest, IsKeptWhenTheFileIsReplaced) {
    const std::string name = processName() + "-updated";
    EXPECT_EQ(linesOfProbe(name, name, {"replaced"}), expected);
}

TEST_F(ProcessNameTest, MayEndLikeThatOfADeletedFile) {
    const std::string name = processName() + " (deleted)";
    EXPECT_EQ(linesOfProbe(name, name), expected);
    EXPECT_EQ(linesOfProbe(name, name, {"replaced"}), expected);
}
#endif

/// Programs of one name share the day's file.
TEST_F(ProcessNameTest, ProcessesOfOneNameShareAFile) {
    useEmptyTemporaryFolder();
    fs::create_directories(logFolder("log_probe"));
    EXPECT_EQ(runChild(probe, {}).exitCode, 0);
    EXPECT_EQ(runChild(probe, {}).exitCode, 0);
    Lines twice = expected;
    twice.insert(twice.end(), expected.begin(), expected.end());
    EXPECT_EQ(parseLog(readLogFiles(logFolder("log_probe"))), twice);
}

}  // namespace

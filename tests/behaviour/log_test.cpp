// The diagnostic log: the level, the line, the file and its folder.

#include <chrono>
#include <ctime>
#include <fstream>
#include <iterator>
#include <regex>

#include "child_process.h"
#include "module_test.h"
#include "run_folder.h"
#include "standard_output.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace {

using namespace support;
namespace fs = std::filesystem;

class Log : public ModuleTest {
protected:
    void TearDown() override {
        setTemporaryFolder(runFolder() / "temporary");
        ModuleTest::TearDown();
    }

    /// One DEBUG and one ERROR line when the level lets them through.
    static Lines linesOfARefusal() {
        clear();
        EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
        return log();
    }

    /// A temporary folder with nothing in it.
    static void useEmptyTemporaryFolder() {
        const fs::path folder = runFolder() / "empty";
        fs::remove_all(folder);
        fs::create_directory(folder);
        setTemporaryFolder(folder);
    }

    /// What a call that writes one ERROR line prints on standard output.
    static std::string outputOfAnErrorLine() {
        setLogLevel(errorLevel);
        const StandardOutput output;
        EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
        return output.text();
    }
};

const Lines none = {};
const Lines onlyError = {"ERROR C_GetInfo: pInfo is NULL"};
const Lines both = {"DEBUG C_GetInfo", "ERROR C_GetInfo: pInfo is NULL"};

constexpr const char* unableToWrite = "\nUnable to write log";
constexpr const char* unableToGetFolder = "\nUnable to getLogBaseFolderPath";

// --- The level ------------------------------------------------------------------------------------------------------

TEST_F(Log, levels) {
    const std::pair<int, Lines> linesOfLevel[] = {{0, none},      {1, none},      {2, onlyError},   {3, both},
                                                  {4, onlyError}, {5, onlyError}, {127, onlyError}, {'3', onlyError},
                                                  {0x80, none},   {0xFE, none},   {0xFF, none}};
    for (const auto& [level, lines] : linesOfLevel) {
        setLogLevel(level);
        EXPECT_EQ(linesOfARefusal(), lines) << level;
    }
}

TEST_F(Log, onlyTheFirstByteCounts) {
    setLogLevelBytes(std::string("\3\xFF\xFF\xFF", 4));
    EXPECT_EQ(linesOfARefusal(), both);
    setLogLevelBytes(std::string("\0\3\3\3", 4));
    EXPECT_EQ(linesOfARefusal(), none);
    setLogLevelBytes("\3");
    EXPECT_EQ(linesOfARefusal(), both);
    setLogLevelBytes("3");
    EXPECT_EQ(linesOfARefusal(), onlyError);
}

TEST_F(Log, noValueMeansErrors) {
    removeLogLevel();
    EXPECT_EQ(linesOfARefusal(), onlyError);
}

/// What is read goes over a zeroed buffer.
TEST_F(Log, anEmptyValueMeansZero) {
    setLogLevelBytes("");
    EXPECT_EQ(linesOfARefusal(), none);
}

TEST_F(Log, aValueOfMoreThan32BytesMeansErrors) {
    for (const char first : {'\0', '\3'}) {
        setLogLevelBytes(std::string(32, first));
        EXPECT_EQ(linesOfARefusal(), first == 3 ? both : none);
        setLogLevelBytes(std::string(33, first));
        EXPECT_EQ(linesOfARefusal(), onlyError);
        setLogLevelBytes(std::string(5000, first));
        EXPECT_EQ(linesOfARefusal(), onlyError);
    }
}

TEST_F(Log, theLevelIsReadForEveryLine) {
    // The device library changes it between the name of the function and the line about the result.
    const auto changeTo = [](int level) {
        scripted::Fault fault{"zentak_getConnectedDeviceList"};
        fault.action = [level] { setLogLevel(level); };
        device().addFault(fault);
    };
    device().connectedDevices.clear();
    CK_ULONG count = 0;
    setLogLevel(debugLevel);
    changeTo(0);
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetSlotList"}));
    changeTo(errorLevel);
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(log(), (Lines{"ERROR No valid token found"}));
    changeTo(debugLevel);
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(log(), (Lines{"ERROR No valid token found", "DEBUG C_GetSlotList", "ERROR No valid token found"}));
}

#if defined(_WIN32)
std::string littleEndian(unsigned long long number, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(&number), size);
}

TEST_F(Log, registryValuesOfEveryType) {
    struct Value {
        unsigned long type;
        std::string bytes;
        Lines lines;
    };
    const std::string longText = std::string(31, 'x');
    const Value values[] = {
        {REG_DWORD, littleEndian(0, 4), none},
        {REG_DWORD, littleEndian(1, 4), none},
        {REG_DWORD, littleEndian(2, 4), onlyError},
        {REG_DWORD, littleEndian(3, 4), both},
        {REG_DWORD, littleEndian(4, 4), onlyError},
        {REG_DWORD, littleEndian(255, 4), none},
        {REG_DWORD, littleEndian(256, 4), none},
        {REG_DWORD, littleEndian(256 + 3, 4), both},
        {REG_DWORD, littleEndian(0xFFFFFFFF, 4), none},
        {REG_QWORD, littleEndian(3, 8), both},
        {REG_DWORD_BIG_ENDIAN, littleEndian(0x03000000, 4), none},
        {REG_NONE, std::string("\3"), both},
        {REG_SZ, std::string("3", 2), onlyError},
        {REG_SZ, std::string("0", 2), onlyError},
        {REG_SZ, std::string("\3", 2), both},
        {REG_SZ, std::string("", 1), none},
        {REG_SZ, longText + '\0', onlyError},
        {REG_SZ, longText + std::string("x", 2), onlyError},
        {REG_EXPAND_SZ, std::string("3", 2), onlyError},
        {REG_MULTI_SZ, std::string("3\0", 3), onlyError},
    };
    for (const Value& value : values) {
        setLogLevelValue(value.type, value.bytes);
        EXPECT_EQ(linesOfARefusal(), value.lines) << "type " << value.type << ", first byte " << +value.bytes[0];
    }
}

TEST_F(Log, noRegistryKeyMeansErrors) {
    removeLogLevelKey();
    EXPECT_EQ(linesOfARefusal(), onlyError);
}
#else
TEST_F(Log, noConfigurationFolderMeansErrors) {
    setEnvironment("ZENTAK_CONFIG", (runFolder() / "nowhere").string());
    EXPECT_EQ(linesOfARefusal(), onlyError);
    setEnvironment("ZENTAK_CONFIG", (runFolder() / "config").string());
    EXPECT_EQ(linesOfARefusal(), both);
}

TEST_F(Log, aLevelFileThatIsAFolderMeansErrors) {
    removeLogLevel();
    fs::create_directory(runFolder() / "config" / "logLevel");
    EXPECT_EQ(linesOfARefusal(), onlyError);
    fs::remove(runFolder() / "config" / "logLevel");
}
#endif

// --- The line -------------------------------------------------------------------------------------------------------

std::tm localTime(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    return *std::localtime(&seconds);
}

std::string formatted(std::chrono::system_clock::time_point time, const char* format) {
    const std::tm local = localTime(time);
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, format, &local));
}

int milliseconds(std::chrono::system_clock::time_point time) {
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() %
                            1000);
}

/// The line's time as the clock says it: day before month, two digits each, three for the milliseconds.
TEST_F(Log, theLineToTheByte) {
    useEmptyTemporaryFolder();
    createLogFolder();
    setLogLevel(debugLevel);
    const auto before = std::chrono::system_clock::now();
    ASSERT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    const auto after = std::chrono::system_clock::now();
    const std::string text = readLogFiles(logFolder());

    static const std::regex shape(R"((\d\d/\d\d::\d\d:\d\d:\d\d):(\d\d\d)-> ->DEBUG ::=>C_GetInfo\n)"
                                  R"((\d\d/\d\d::\d\d:\d\d:\d\d):(\d\d\d)-> ->ERROR ::=>C_GetInfo: pInfo is NULL\n)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, shape)) << text;

    // Within one second the comparison of texts is one of times; over its end either second will do.
    const char* const format = "%d/%m::%H:%M:%S";
    for (const std::size_t group : {1U, 3U}) {
        const std::string seconds = match[group].str();
        const int thousandths = std::stoi(match[group + 1].str());
        EXPECT_TRUE(seconds == formatted(before, format) || seconds == formatted(after, format)) << seconds;
        if (formatted(before, format) == formatted(after, format)) {
            EXPECT_GE(thousandths, milliseconds(before) - 20);  // the two clocks tick differently
            EXPECT_LE(thousandths, milliseconds(after) + 20);
        }
    }
}

TEST_F(Log, theFileIsNamedByTheDate) {
    useEmptyTemporaryFolder();
    createLogFolder();
    const auto before = std::chrono::system_clock::now();
    ASSERT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    const auto after = std::chrono::system_clock::now();
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(logFolder())) {
        names.push_back(entry.path().filename().string());
    }
    const std::string today = formatted(before, "%Y-%m-%d.LOG");
    if (today == formatted(after, "%Y-%m-%d.LOG")) {
        EXPECT_EQ(names, (std::vector<std::string>{today}));
    }
}

TEST_F(Log, linesAreAppended) {
    const Lines first = linesOfARefusal();
    EXPECT_EQ(first, both);
    ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    clear();
    const std::string before = readLogFiles(logFolder());
    ASSERT_EQ(functions().C_GetInfo(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    const std::string after = readLogFiles(logFolder());
    EXPECT_EQ(after.substr(0, before.size()), before);
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetInfo", "ERROR C_GetInfo: not initialized"}));
}

/// The file is opened anew for every line, so it can be deleted under a running host.
TEST_F(Log, aDeletedFileComesBack) {
    useEmptyTemporaryFolder();
    createLogFolder();
    ASSERT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    for (const auto& entry : fs::directory_iterator(logFolder())) {
        ASSERT_TRUE(fs::remove(entry.path()));
    }
    ASSERT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(parseLog(readLogFiles(logFolder())), both);
}

/// Others may have the file open, for reading and for writing.
TEST_F(Log, theFileIsShared) {
    linesOfARefusal();
    std::vector<std::fstream> open;
    for (const auto& entry : fs::directory_iterator(logFolder())) {
        open.emplace_back(entry.path(), std::ios::in | std::ios::out | std::ios::app | std::ios::binary);
        ASSERT_TRUE(open.back().is_open());
    }
    EXPECT_EQ(linesOfARefusal(), both);
}

// --- The folder -----------------------------------------------------------------------------------------------------

/// Each line makes only the first level that is missing.
TEST_F(Log, theFolderGrowsByOneLevelALine) {
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

TEST_F(Log, aLineThatIsNotWrittenMakesNoFolder) {
    useEmptyTemporaryFolder();
    setLogLevel(0);
    EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_TRUE(fs::is_empty(temporaryFolder()));
}

TEST_F(Log, theVendorFolderIsThereAlready) {
    useEmptyTemporaryFolder();
    fs::create_directory(temporaryFolder() / "Dravenko Sentronics");
    EXPECT_EQ(outputOfAnErrorLine(), "");
    EXPECT_EQ(parseLog(readLogFiles(logFolder())), onlyError);
}

TEST_F(Log, aFileInPlaceOfTheFolder) {
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
TEST_F(Log, aCallThatCantLogGoesOn) {
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
class LogWithoutTemporaryFolder : public Log {
protected:
    void SetUp() override {
        Log::SetUp();
        vendorFolderWasThere_ = fs::exists(vendorFolder);
    }

    void TearDown() override {
        Log::TearDown();
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
TEST_F(Log, aTemporaryFolderWithASlashAtItsEnd) {
    useEmptyTemporaryFolder();
    createLogFolder();
    setEnvironment("TMPDIR", temporaryFolder().string() + "/");
    EXPECT_EQ(outputOfAnErrorLine(), "");
    EXPECT_EQ(parseLog(readLogFiles(logFolder())), onlyError);
}

/// A path that doesn't fit the room for it is cut; where that leads isn't the point, but nothing may break.
TEST_F(Log, aVeryLongTemporaryFolder) {
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

class ProcessName : public Log {
protected:
    /// Runs the probe under that file name and gives the lines that it logged under `process`.
    static Lines linesOfProbe(const std::string& fileName, const std::string& process) {
#if defined(_WIN32)
        const fs::path original = programFile().parent_path() / "log_probe.exe";
#else
        const fs::path original = programFile().parent_path() / "log_probe";
#endif
        const fs::path copy = programFile().parent_path() / fileName;
        fs::copy_file(original, copy, fs::copy_options::overwrite_existing);
        useEmptyTemporaryFolder();
        fs::create_directory(temporaryFolder() / "Dravenko Sentronics");
        const ChildResult result = runChild(copy, {});
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

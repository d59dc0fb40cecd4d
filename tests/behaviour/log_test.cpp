// The diagnostic log: the level, the line and the file.

#include "log_test.h"

#include <chrono>
#include <ctime>
#include <fstream>
#include <regex>

#include "child_process.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace {

using namespace support;
namespace fs = std::filesystem;

// --- The level ------------------------------------------------------------------------------------------------------

TEST_F(LogTest, Levels) {
    const std::pair<int, Lines> linesOfLevel[] = {{0, noLines},    {1, noLines},    {2, onlyError},   {3, both},
                                                  {4, onlyError},  {5, onlyError},  {127, onlyError}, {'3', onlyError},
                                                  {0x80, noLines}, {0xFE, noLines}, {0xFF, noLines}};
    for (const auto& [level, lines] : linesOfLevel) {
        setLogLevel(level);
        EXPECT_EQ(linesOfARefusal(), lines) << level;
    }
}

TEST_F(LogTest, OnlyTheFirstByteCounts) {
    setLogLevelBytes(std::string("\3\xFF\xFF\xFF", 4));
    EXPECT_EQ(linesOfARefusal(), both);
    setLogLevelBytes(std::string("\0\3\3\3", 4));
    EXPECT_EQ(linesOfARefusal(), noLines);
    setLogLevelBytes("\3");
    EXPECT_EQ(linesOfARefusal(), both);
    setLogLevelBytes("3");
    EXPECT_EQ(linesOfARefusal(), onlyError);
}

TEST_F(LogTest, NoValueMeansErrors) {
    removeLogLevel();
    EXPECT_EQ(linesOfARefusal(), onlyError);
}

/// What is read goes over a zeroed buffer.
TEST_F(LogTest, AnEmptyValueMeansZero) {
    setLogLevelBytes("");
    EXPECT_EQ(linesOfARefusal(), noLines);
}

TEST_F(LogTest, AValueOfMoreThan32BytesMeansErrors) {
    for (const char first : {'\0', '\3'}) {
        setLogLevelBytes(std::string(32, first));
        EXPECT_EQ(linesOfARefusal(), first == 3 ? both : noLines);
        setLogLevelBytes(std::string(33, first));
        EXPECT_EQ(linesOfARefusal(), onlyError);
        setLogLevelBytes(std::string(5000, first));
        EXPECT_EQ(linesOfARefusal(), onlyError);
    }
}

TEST_F(LogTest, TheLevelIsReadForEveryLine) {
    // The device library changes it between the name of the function and the line about the result.
    const auto changeTo = [](int level) {
        device().addFault({.operation = "zentak_getConnectedDeviceList", .action = [level] { setLogLevel(level); }});
    };
    device().connectedDevices.clear();
    CK_ULONG count = 0;
    const auto list = [&] { return functions().C_GetSlotList(CK_TRUE, nullptr, &count); };
    setLogLevel(debugLevel);
    changeTo(0);
    EXPECT_EQ(observe(list).log, (Lines{"DEBUG C_GetSlotList"}));
    changeTo(errorLevel);
    EXPECT_EQ(observe(list).log, (Lines{"ERROR No valid token found"}));
    changeTo(debugLevel);
    EXPECT_EQ(observe(list).log, (Lines{"ERROR No valid token found"}));
    EXPECT_EQ(observe(list).log, (Lines{"DEBUG C_GetSlotList", "ERROR No valid token found"}));
}

#if defined(_WIN32)
std::string littleEndian(unsigned long long number, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(&number), size);
}

TEST_F(LogTest, RegistryValuesOfEveryType) {
    struct Value {
        unsigned long type;
        std::string bytes;
        Lines lines;
    };
    const std::string longText = std::string(31, 'x');
    const Value values[] = {
        {REG_DWORD, littleEndian(0, 4), noLines},
        {REG_DWORD, littleEndian(1, 4), noLines},
        {REG_DWORD, littleEndian(2, 4), onlyError},
        {REG_DWORD, littleEndian(3, 4), both},
        {REG_DWORD, littleEndian(4, 4), onlyError},
        {REG_DWORD, littleEndian(255, 4), noLines},
        {REG_DWORD, littleEndian(256, 4), noLines},
        {REG_DWORD, littleEndian(256 + 3, 4), both},
        {REG_DWORD, littleEndian(0xFFFFFFFF, 4), noLines},
        {REG_QWORD, littleEndian(3, 8), both},
        {REG_NONE, std::string("\3"), both},
        {REG_SZ, std::string("3", 2), onlyError},
        {REG_SZ, std::string("0", 2), onlyError},
        {REG_SZ, std::string("\3", 2), both},
        {REG_SZ, std::string("", 1), noLines},
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

TEST_F(LogTest, NoRegistryKeyMeansErrors) {
    removeLogLevelKey();
    EXPECT_EQ(linesOfARefusal(), onlyError);
}
#else
TEST_F(LogTest, NoConfigurationFolderMeansErrors) {
    setEnvironment("ZENTAK_CONFIG", (runFolder() / "nowhere").string());
    EXPECT_EQ(linesOfARefusal(), onlyError);
    setEnvironment("ZENTAK_CONFIG", (runFolder() / "config").string());
    EXPECT_EQ(linesOfARefusal(), both);
}

TEST_F(LogTest, ALevelFileThatIsAFolderMeansErrors) {
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
TEST_F(LogTest, TheLineToTheByte) {
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

TEST_F(LogTest, TheFileIsNamedByTheDate) {
    useEmptyTemporaryFolder();
    createLogFolder();
    const auto before = std::chrono::system_clock::now();
    ASSERT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    const auto after = std::chrono::system_clock::now();
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(logFolder())) names.push_back(entry.path().filename().string());
    const std::string today = formatted(before, "%Y-%m-%d.LOG");
    if (today == formatted(after, "%Y-%m-%d.LOG")) {
        EXPECT_EQ(names, (std::vector<std::string>{today}));
    }
}

#if defined(_WIN32)
/// Under Wine these tests are started in a zone that is nobody's, so that the two above compare local times.
TEST_F(LogTest, TheZoneIsNotThatOfGreenwich) {
    const char* const zone = std::getenv("TZ");
    if (zone == nullptr || std::string(zone) != "XYZ-5:45") return;  // started by hand
    TIME_ZONE_INFORMATION information = {};
    GetTimeZoneInformation(&information);
    EXPECT_EQ(information.Bias, -(5 * 60 + 45));
}
#else
/// In a zone so far away that it has another date: the line and the file tell the time there.
TEST_F(LogTest, TheTimeIsThatOfTheHostsZone) {
    constexpr std::time_t away = 12 * 3600 + 45 * 60;
    const std::time_t before = std::time(nullptr);
    const bool isMorning = std::gmtime(&before)->tm_hour < 12;
    useEmptyTemporaryFolder();
    fs::create_directories(logFolder("log_probe"));
    const char* const set = std::getenv("TZ");
    const std::optional<std::string> zone = set != nullptr ? std::optional<std::string>(set) : std::nullopt;
    setEnvironment("TZ", isMorning ? "XYZ+12:45" : "XYZ-12:45");
    EXPECT_EQ(runChild(programFile().parent_path() / "log_probe", {}).exitCode, 0);
    setEnvironment("TZ", zone);
    const std::time_t after = std::time(nullptr);

    const auto there = [&](std::time_t time, const char* format) {
        time += isMorning ? -away : away;
        char text[64];
        return std::string(text, std::strftime(text, sizeof text, format, std::gmtime(&time)));
    };
    const std::string text = readLogFiles(logFolder("log_probe"));
    const std::string first = text.substr(0, std::string("dd/mm::HH:MM:SS").size());
    bool matches = false;
    for (std::time_t time = before; time <= after; ++time) matches |= there(time, "%d/%m::%H:%M:%S") == first;
    EXPECT_TRUE(matches) << first << " is not " << there(after, "%d/%m::%H:%M:%S");
    for (const fs::directory_entry& entry : fs::directory_iterator(logFolder("log_probe"))) {
        const std::string name = entry.path().filename().string();
        EXPECT_TRUE(name == there(before, "%Y-%m-%d.LOG") || name == there(after, "%Y-%m-%d.LOG")) << name;
    }
}
#endif

TEST_F(LogTest, LinesAreAppended) {
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
TEST_F(LogTest, ADeletedFileComesBack) {
    useEmptyTemporaryFolder();
    createLogFolder();
    ASSERT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    for (const auto& entry : fs::directory_iterator(logFolder())) ASSERT_TRUE(fs::remove(entry.path()));
    ASSERT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(parseLog(readLogFiles(logFolder())), both);
}

/// Others may have the file open, for reading and for writing.
TEST_F(LogTest, TheFileIsShared) {
    linesOfARefusal();
    std::vector<std::fstream> open;
    for (const auto& entry : fs::directory_iterator(logFolder())) {
        open.emplace_back(entry.path(), std::ios::in | std::ios::out | std::ios::app | std::ios::binary);
        ASSERT_TRUE(open.back().is_open());
    }
    EXPECT_EQ(linesOfARefusal(), both);
}

}  // namespace

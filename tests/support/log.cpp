#include "log.h"

#include <chrono>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <thread>

#include "run_folder.h"

namespace support {
namespace {

std::string readFile(const std::filesystem::path& file, std::size_t begin = 0) {
    std::ifstream stream(file, std::ios::binary);
    stream.seekg(static_cast<std::streamoff>(begin));
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::set<std::filesystem::path> filesIn(const std::filesystem::path& folder) {
    std::set<std::filesystem::path> files;
    if (std::filesystem::exists(folder)) {
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.is_regular_file()) files.insert(entry.path());
        }
    }
    return files;
}

}  // namespace

std::string processName() {
    const std::string file = programFile().filename().string();
    return file.substr(0, file.find('.'));
}

std::filesystem::path logFolder(const std::string& processName) {
    return temporaryFolder() / "Dravenko Sentronics" / processName;
}

std::filesystem::path logFolder() {
    return logFolder(processName());
}

void createLogFolder() {
    std::filesystem::create_directories(logFolder());
}

Lines parseLog(const std::string& text) {
    // Only the part before the message is matched: the standard's regular expressions recurse for each character, and
    // a message of some thousand would exhaust the stack.
    constexpr std::size_t longestPrefix = 64;
    static const std::regex shape(R"((\d\d)/(\d\d)::(\d\d):(\d\d):(\d\d):\d\d\d-> ->(DEBUG|ERROR|EXCEP|INFO ) ::=>)");
    Lines lines;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = text.find('\n', begin);
        if (end == std::string::npos) {
            ADD_FAILURE() << "a log line without its line feed: " << text.substr(begin);
            break;
        }
        const std::string line = text.substr(begin, end - begin);
        const std::string prefix = line.substr(0, longestPrefix);
        std::smatch match;
        const auto number = [&](std::size_t group) { return std::stoi(match[group].str()); };
        if (!std::regex_search(prefix, match, shape, std::regex_constants::match_continuous) || number(1) < 1 ||
            number(1) > 31 || number(2) < 1 || number(2) > 12 || number(3) > 23 || number(4) > 59 || number(5) > 60) {
            ADD_FAILURE() << "a log line of a wrong shape: " << line;
        } else {
            lines.push_back(match[6].str() + " " + line.substr(static_cast<std::size_t>(match.length(0))));
        }
        begin = end + 1;
    }
    return lines;
}

std::string readLogFiles(const std::filesystem::path& folder) {
    std::string text;
    for (const std::filesystem::path& file : filesIn(folder)) text += readFile(file);
    return text;
}

namespace {

bool isMonitorLine(const std::string& line) {
    for (const char* begin : {"DEBUG Session monitor thread ", "ERROR Session monitor",
                              "DEBUG Slot event: ", "DEBUG Device disconnected, clearing userPassword"}) {
        if (line.rfind(begin, 0) == 0) return true;
    }
    return false;
}

/// Lines that have been read and not yet taken.
struct ReadLines {
    Lines host;
    Lines monitor;
};

ReadLines& readNewLines() {
    static std::map<std::filesystem::path, std::size_t> taken;
    static ReadLines lines;
    for (const std::filesystem::path& file : filesIn(logFolder())) {
        std::size_t& done = taken[file];
        std::string text = readFile(file, done);
        // The monitor may be in the middle of a line.
        for (int i = 0; i < 1000 && !text.empty() && text.back() != '\n'; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            text = readFile(file, done);
        }
        for (const std::string& line : parseLog(text)) {
            (isMonitorLine(line) ? lines.monitor : lines.host).push_back(line);
        }
        done += text.size();
    }
    return lines;
}

}  // namespace

Lines takeLog() {
    return std::exchange(readNewLines().host, {});
}

Lines takeMonitorLog() {
    return std::exchange(readNewLines().monitor, {});
}

}  // namespace support

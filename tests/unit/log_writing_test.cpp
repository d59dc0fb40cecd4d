/// Levels that no function of the module writes at, and a path that none of them makes.

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "log/diagnostic_log.h"
#include "run_folder.h"

namespace zentak {
namespace {

namespace fs = std::filesystem;

class LogWritingTest : public ::testing::Test {
protected:
    static fs::path logFolder() {
        char name[logPathSize];
        getProcessName(name);
        return support::temporaryFolder() / "Dravenko Sentronics" / name;
    }

    /// Of all files in the log folder, without the time at the beginning of each line.
    static std::vector<std::string> lines() {
        constexpr std::string_view endOfTime = "-> ->";
        std::vector<std::string> found;
        for (const fs::directory_entry& entry : fs::directory_iterator(logFolder())) {
            std::ifstream file(entry.path());
            for (std::string line; std::getline(file, line);) {
                found.push_back(line.substr(line.find(endOfTime) + endOfTime.size()));
            }
        }
        return found;
    }
};

TEST_F(LogWritingTest, EveryLevelHasATag) {
    fs::create_directories(logFolder());
    for (const int level : {1, 2, 3, 0, 4, -1}) writeLogLine(level, "line " + std::to_string(level));
    EXPECT_EQ(lines(), (std::vector<std::string>{"EXCEP ::=>line 1", "ERROR ::=>line 2", "DEBUG ::=>line 3",
                                                 "INFO  ::=>line 0", "INFO  ::=>line 4", "INFO  ::=>line -1"}));
}

TEST_F(LogWritingTest, NoPathMakesNoFolder) {
    EXPECT_EQ(createLogFolder(""), 0);
    EXPECT_EQ(createLogFolder("/"), 0);
}

}  // namespace
}  // namespace zentak

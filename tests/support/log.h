/// What the module under test has logged.
///
///     setLogLevel(debugLevel);
///     functions().C_GetInfo(nullptr);
///     EXPECT_EQ(takeLog(), (Lines{"DEBUG C_GetInfo", "ERROR C_GetInfo: pInfo is NULL"}));

#ifndef ZENTAK_TESTS_SUPPORT_LOG_H
#define ZENTAK_TESTS_SUPPORT_LOG_H

#include <filesystem>
#include <string>
#include <vector>

#include "log_level.h"

namespace support {

using Lines = std::vector<std::string>;

/// `<temporary folder>/Dravenko Sentronics/<process name>`, with the process name of this program unless another is
/// given.
std::filesystem::path logFolder();
std::filesystem::path logFolder(const std::string& processName);

/// This program's process name as the log sees it: the file name up to its first full stop.
std::string processName();

/// Makes the log folder with its parents, so that the first line is written.
void createLogFolder();

/// The lines since the last call, in order, each as its tag, a blank and the message: "ERROR C_Login: pPin is NULL".
/// A line of another shape fails the test. Reads every file of the folder in name order, so midnight may pass.
///
/// What the module's monitor thread logs comes whenever it likes and is left out.
Lines takeLog();

/// The lines of the monitor thread since the last call, in order.
Lines takeMonitorLog();

/// The lines of a whole log file's text, in the same form.
Lines parseLog(const std::string& text);

/// The files of a log folder in name order as they stand, with their prefixes; empty when there is none.
std::string readLogFiles(const std::filesystem::path& folder);

}  // namespace support

#endif

/// What the system is asked, where a host can't make the difference seen.

#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "platform/operating_system.h"
#include "run_folder.h"

#if !defined(_WIN32)
#include <fcntl.h>
#endif

namespace zentak::platform {
namespace {

/// Room for the folder with its separator and a terminator, and not a byte less.
TEST(PlatformTest, TheTemporaryFolderFitsOrThereIsNone) {
    const std::string folder = temporaryFolder(1024);
    ASSERT_GT(folder.size(), 1U);
    EXPECT_NE(std::string("/\\").find(folder.back()), std::string::npos) << folder;
    EXPECT_EQ(temporaryFolder(folder.size() + 1), folder);
    EXPECT_EQ(temporaryFolder(folder.size()), "");
    EXPECT_EQ(temporaryFolder(folder.size() - 1), "");
    EXPECT_EQ(temporaryFolder(2), "");
}

#if !defined(_WIN32)
/// A program that the host starts while a line is written doesn't get the log.
TEST(PlatformTest, TheLogIsNotHandedOn) {
    const std::string path = temporaryFolder(1024) + "zentak-unit-log";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(openForAppending(path.c_str()), &std::fclose);
    ASSERT_NE(file, nullptr);
    EXPECT_NE(fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC, 0);
    std::remove(path.c_str());
}
#endif

}  // namespace
}  // namespace zentak::platform

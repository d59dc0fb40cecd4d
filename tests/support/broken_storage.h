/// Storage that can't be written: a full disk, and an ordinary user's rights. For Linux. Both concern the whole process
/// or leave a mount behind, so they are used in a child process.

#ifndef ZENTAK_TESTS_SUPPORT_BROKEN_STORAGE_H
#define ZENTAK_TESTS_SUPPORT_BROKEN_STORAGE_H

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

/// Runs the body in a child process; its failures become the test's.
inline void inChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "see the failures above";
}

/// For root no permissions hold: as long as this lives, the process has the rights of an ordinary user.
class OrdinaryUser {
public:
    static constexpr uid_t number = 65534;

    OrdinaryUser() : before_(geteuid()) {
        if (before_ == 0) become(number);
    }
    ~OrdinaryUser() {
        if (before_ == 0) become(before_);
    }
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;

private:
    static void become(uid_t user) { EXPECT_EQ(seteuid(user), 0); }

    uid_t before_;
};

/// Makes the disk of a folder full: a small one in memory where the process may mount one, else a limit for the length
/// of files, at which writes fail half-way in the same manner.
class FullDisk {
public:
    explicit FullDisk(std::filesystem::path mountPoint) : folder_(std::move(mountPoint)) {
        std::filesystem::create_directories(folder_);
        mounted_ = unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("none", folder_.c_str(), "tmpfs", 0, "size=256k,nr_inodes=64,mode=0700") == 0;
    }

    [[nodiscard]] const std::filesystem::path& folder() const { return folder_; }

    void fill() {
        if (!mounted_) {
            std::signal(SIGXFSZ, SIG_IGN);
            limitFiles(100);
            return;
        }
        const int ballast = open((folder_ / "ballast").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::string part(1024, 'x');
        while (write(ballast, part.data(), part.size()) > 0) {
        }
        EXPECT_EQ(errno, ENOSPC);
        close(ballast);
        // Nor is there room for one more file, be it an empty one.
        for (int number = 0, file = 0; file >= 0; ++number) {
            file = open((folder_ / ("file" + std::to_string(number))).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            if (file >= 0) close(file);
        }
        EXPECT_EQ(errno, ENOSPC);
    }

    void makeRoom() {
        if (mounted_) {
            for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
                if (entry.is_regular_file() && entry.path().filename() != "lock") std::filesystem::remove(entry.path());
            }
        } else {
            limitFiles(RLIM_INFINITY);
        }
    }

private:
    static void limitFiles(rlim_t length) {
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = length;
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }

    std::filesystem::path folder_;
    bool mounted_ = false;
};

}  // namespace support

#endif

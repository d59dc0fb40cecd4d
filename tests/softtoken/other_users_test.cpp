// What others prepare in a store: links, pipes and folders that they may write to. And root, who works on somebody's
// store and leaves it that somebody's.

#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "other_process.h"
#include "platform/files.h"
#include "tool_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

class OtherUsersTest : public TokenTest {
protected:
    /// The work fails with the error, and with this text behind the path.
    static void expectFailure(Error error, const fs::path& path, const std::string& text,
                              const std::function<void()>& work) {
        const Failure failure = failureOf(work);
        EXPECT_EQ(failure.error, error);
        EXPECT_NE(std::string(failure.what()).find(path.string() + text), std::string::npos) << failure.what();
    }

    /// The file goes elsewhere, and a link leads there.
    fs::path linkInThePlaceOf(const fs::path& file) {
        const fs::path target = elsewhere_.path() / "target";
        fs::rename(file, target);
        fs::create_symlink(target, file);
        return target;
    }

    TemporaryFolder elsewhere_;
};

TEST_F(OtherUsersTest, LinkInThePlaceOfATokensFileIsNotFollowed) {
    ASSERT_EQ(validate(userPin), 0);
    const fs::path target = linkInThePlaceOf(tokenFile());
    const std::string content = fileContent(target);
    const std::string text = " is a link, which isn't followed";
    expectFailure(Error::tokenDamaged, tokenFile(), text, [&] { static_cast<void>(store_.load(serialNumber_)); });
    expectFailure(Error::tokenDamaged, tokenFile(), text, [&] { store_.change(serialNumber_, [](TokenData&) {}); });
    expectFailure(Error::tokenDamaged, tokenFile(), text, [&] { static_cast<void>(readTokenChecksum(tokenFile())); });
    expectFailure(Error::tokenDamaged, tokenFile(), text, [&] { overwriteFile(tokenFile(), "", Lasting::soon); });
    // What this program has read before doesn't count any more.
    EXPECT_EQ(validate(userPin), number(Error::tokenDamaged));
    EXPECT_EQ(fileContent(target), content);
    EXPECT_TRUE(fs::is_symlink(tokenFile()));
}

TEST_F(OtherUsersTest, LinkInThePlaceOfTheCountersIsNotFollowed) {
    const fs::path attempts = tokenFile().parent_path() / "attempts";
    const fs::path target = linkInThePlaceOf(attempts);
    const std::string content = fileContent(target);
    EXPECT_EQ(validate(userPin), number(Error::tokenDamaged));
    EXPECT_EQ(validate("000000"), number(Error::tokenDamaged));
    expectFailure(Error::tokenDamaged, attempts, " is a link, which isn't followed",
                  [&] { static_cast<void>(store_.checkPin(serialNumber_, Role::user, userPin)); });
    EXPECT_EQ(fileContent(target), content);
}

TEST_F(OtherUsersTest, LinkInThePlaceOfTheLockIsNotFollowed) {
    const fs::path lock = folder_.path() / "lock";
    fs::remove(lock);
    const fs::path target = elsewhere_.path() / "target";
    fs::create_symlink(target, lock);
    for (int round = 0; round < 2; ++round) {
        expectFailure(Error::tokenDamaged, lock, " is a link, which isn't followed",
                      [&] { store_.unplug(serialNumber_); });
        // Neither one that leads nowhere.
        EXPECT_EQ(fs::exists(target), round == 1);
        writeFile(target, "kept");
    }
    EXPECT_EQ(fileContent(target), "kept");
}

TEST_F(OtherUsersTest, LinkInThePlaceOfAFolderIsNotFollowed) {
    for (const fs::path& folder : {tokenFile().parent_path(), tokenFile().parent_path().parent_path()}) {
        const fs::path target = linkInThePlaceOf(folder);
        expectFailure(Error::tokenDamaged, folder, " is a link, which isn't followed",
                      [&] { static_cast<void>(store_.load(serialNumber_)); });
        fs::remove(folder);
        fs::rename(target, folder);
    }
    EXPECT_EQ(validate(userPin), 0);
}

/// It stands in a place that the user names, and may be a link.
TEST_F(OtherUsersTest, StoreMayBeALink) {
    const fs::path link = elsewhere_.path() / "store";
    fs::create_directory_symlink(folder_.path(), link);
    Store store(link);
    EXPECT_EQ(store.plugged(), std::vector<std::string>{serialNumber_});
    EXPECT_NO_THROW(store.checkPin(serialNumber_, Role::user, userPin));
    EXPECT_NO_THROW(createToken(store, cheapToken()));
}

TEST_F(OtherUsersTest, PreparedNewFileIsNotWrittenThrough) {
    const fs::path fresh = tokenFile().parent_path() / "token.new";
    const fs::path target = elsewhere_.path() / "target";
    const std::vector<std::function<void()>> preparations = {
        [&] { fs::create_symlink(target, fresh); },
        [&] { fs::create_hard_link(target, fresh); },
        [&] { ASSERT_EQ(mkfifo(fresh.c_str(), 0666), 0); },
        [&] { writeFile(fresh, "left over"), chmod(fresh.c_str(), 0666); },
    };
    std::string label = "label";
    for (const auto& prepare : preparations) {
        writeFile(target, "kept");
        prepare();
        label += "+";
        store_.change(serialNumber_, [&](TokenData& token) { token.label = label; });
        EXPECT_EQ(store_.load(serialNumber_).label, label);
        EXPECT_EQ(fileContent(target), "kept");
        EXPECT_FALSE(fs::exists(fs::symlink_status(fresh)));
        struct stat status {};
        ASSERT_EQ(lstat(tokenFile().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
        EXPECT_EQ(status.st_nlink, 1U);
    }
}

TEST_F(OtherUsersTest, FoldersThatOthersMayWriteToAreRefused) {
    const fs::path token = tokenFile().parent_path();
    for (const fs::path& folder : {folder_.path(), token.parent_path(), token}) {
        for (const mode_t mode : {0720U, 0702U}) {
            reopen();
            ASSERT_EQ(chmod(folder.c_str(), mode), 0);
            const std::string text = ": chmod go-w '" + folder.string() + "'";
            expectFailure(Error::storeFailed, folder, text, [&] { static_cast<void>(store_.load(serialNumber_)); });
            expectFailure(Error::storeFailed, folder, text, [&] { store_.unplug(serialNumber_); });
            if (folder != token) {
                expectFailure(Error::storeFailed, folder, text, [&] { static_cast<void>(store_.plugged()); });
                expectFailure(Error::storeFailed, folder, text, [&] { createToken(store_, cheapToken()); });
            }
            EXPECT_EQ(zentak_initDevice(device(), true, instance_), number(Error::storeFailed));
            EXPECT_EQ(validate(userPin), number(Error::storeFailed));
            ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
            EXPECT_EQ(validate(userPin), 0);
        }
    }
}

/// Runs the tool from a place that everybody can reach.
class StoreOfAUserTest : public testing::Test {
protected:
    StoreOfAUserTest() {
        fs::permissions(folder_.path(), fs::perms(0755));
        fs::copy_file(programFolder() / "zentak-token", folder_.path() / "zentak-token");
        fs::create_directory(folder_.path() / "home");
        EXPECT_EQ(chown((folder_.path() / "home").c_str(), user(), group()), 0);
        writeFile(folder_.path() / "pin", "123456\n");
        writeFile(folder_.path() / "officer", "98765432\n");
        for (const char* name : {"pin", "officer"}) fs::permissions(folder_.path() / name, fs::perms(0644));
    }

    // Root can become somebody. Whoever else runs the tests is both.
    static uid_t user() { return geteuid() == 0 ? 65534 : geteuid(); }
    static gid_t group() { return geteuid() == 0 ? 65533 : getegid(); }

    int run(const std::string& before, const std::string& arguments) {
        const std::string path = "'" + folder_.path().string() + "/";
        const std::string line = "cd / && env -u ZENTAK_PIN -u ZENTAK_SO_PIN -u ZENTAK_NEW_PIN ZENTAK_TOKENS=" + path +
                                 "home/data/tokens' " + before + path + "zentak-token' " + arguments + " >" + path +
                                 "output' 2>&1 </dev/null";
        const int status = std::system(line.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void expectDone(const std::string& arguments) {
        EXPECT_EQ(run("", arguments), 0) << arguments << "\n" << fileContent(folder_.path() / "output");
        expectUsersAlone();
    }
    void expectDoneByTheUser(const std::string& arguments) {
        const std::string become =
            "setpriv --reuid=" + std::to_string(user()) + " --regid=" + std::to_string(group()) + " --clear-groups ";
        EXPECT_EQ(run(geteuid() == 0 ? become : "", arguments), 0) << arguments << "\n"
                                                                   << fileContent(folder_.path() / "output");
        expectUsersAlone();
    }
    void expectUsersAlone() {
        for (const auto& entry : fs::recursive_directory_iterator(folder_.path() / "home")) {
            struct stat status {};
            ASSERT_EQ(lstat(entry.path().c_str(), &status), 0);
            EXPECT_EQ(status.st_uid, user()) << entry.path();
            EXPECT_EQ(status.st_gid, group()) << entry.path();
            EXPECT_EQ(status.st_mode & 0077U, 0U) << entry.path();
        }
    }
    [[nodiscard]] std::string option(const char* name, const char* file) const {
        return std::string(" ") + name + " '" + (folder_.path() / file).string() + "'";
    }

    TemporaryFolder folder_;
};

TEST_F(StoreOfAUserTest, StaysTheUsersWhatRootDoes) {
    const std::string create =
        "create --kdf-cost 1" + option("--pin-file", "pin") + option("--so-pin-file", "officer") + " --label ";
    const std::string generate = "generate --type p-256" + option("--pin-file", "pin") + " ";
    const std::string setPin = "set-pin" + option("--pin-file", "pin") + option("--new-pin-file", "pin") + " ";
    const std::string unlock = "unlock" + option("--so-pin-file", "officer") + option("--new-pin-file", "pin") + " ";
    const auto everything = [&](const auto& expect, const std::string& label) {
        for (const std::string& command :
             {create + label, "list" + std::string(), generate + label, setPin + label, unlock + label,
              "unplug " + label, "plug " + label, "show " + label, "verify " + label}) {
            expect(command);
        }
    };
    const auto asRoot = [&](const std::string& command) { expectDone(command); };
    const auto asUser = [&](const std::string& command) { expectDoneByTheUser(command); };
    // The first one makes the store too.
    everything(asRoot, "first");
    everything(asUser, "second");
    for (const char* label : {"first", "second"}) {
        asUser(generate + label);
        asRoot(generate + label);
        asRoot(setPin + label);
        asUser(setPin + label);
        asRoot(unlock + label);
        asUser(unlock + label);
    }
    // Counters and locks that are made anew.
    const fs::path store = folder_.path() / "home" / "data" / "tokens";
    fs::remove(store / "lock");
    for (const auto& token : fs::directory_iterator(store / "plugged")) fs::remove(token.path() / "attempts");
    asRoot("repair");
    asUser(setPin + "first");
    asUser("remove --yes first");
    asRoot("remove --yes second");
    everything(asUser, "third");
    asUser("remove --yes third");
}

/// A program with more rights than whoever started it doesn't take that user's word for where the store is.
void expectVariablesIgnored() {
    TemporaryFolder folder;
    const std::string program = (programFolder() / "zentak-token").string();
    const std::string output = (folder.path() / "output").string();
    const std::string store = (folder.path() / "store").string();
    const auto exitCodeWithRealUser = [&](uid_t real) {
        const pid_t child = fork();
        if (child == 0) {
            setenv("ZENTAK_TOKENS", store.c_str(), 1);
            const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            dup2(file, STDOUT_FILENO);
            dup2(file, STDERR_FILENO);
            if (setresuid(real, 0, 0) == 0) execl(program.c_str(), program.c_str(), "list", nullptr);
            _exit(127);
        }
        int status = -1;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(exitCodeWithRealUser(0), 0);
    EXPECT_EQ(exitCodeWithRealUser(65534), 1);
    EXPECT_EQ(fileContent(output), "zentak-token: no folder for tokens: set ZENTAK_TOKENS or HOME\n");
}

class MoreRightsTest : public testing::Test {
    void TestBody() override { expectVariablesIgnored(); }
};

// To nobody but root can such a program be shown without installing one.
[[maybe_unused]] const bool registered =
    geteuid() == 0 &&
    testing::RegisterTest("CallerWithFewerRightsTest", "VariablesAreIgnored", nullptr, nullptr, __FILE__, __LINE__,
                          []() -> MoreRightsTest* { return new MoreRightsTest; }) != nullptr;

}  // namespace

}  // namespace softtoken

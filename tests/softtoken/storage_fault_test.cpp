// A store on a full disk, one that can't be written and one that can't be read. Each test breaks the storage in a child
// process, where limits, mounts and the user's identity may be changed without harm to the other tests.

#include <chrono>
#include <future>
#include <sys/stat.h>
#include <thread>

#include "../support/broken_storage.h"
#include "other_process.h"
#include "platform/files.h"
#include "test_certificates.h"
#include "token_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

using support::FullDisk;
using support::inChild;
using support::OrdinaryUser;

class StorageFaultTest : public TokenTest {
protected:
    ~StorageFaultTest() override { setPermissions(0700, 0600); }

    void setPermissions(int folders, int files) const {
        chmod(folder_.path().c_str(), 0700);
        std::vector<fs::path> paths = {folder_.path()};
        for (const auto& entry : fs::recursive_directory_iterator(folder_.path())) paths.push_back(entry.path());
        // From the bottom up: a folder that is closed hides what lies in it.
        std::sort(paths.rbegin(), paths.rend());
        for (const fs::path& path : paths) {
            chmod(path.c_str(), static_cast<mode_t>(fs::is_directory(path) ? folders : files));
        }
    }

    /// Where the tests run as root; otherwise it is theirs already.
    void giveToOrdinaryUser() const {
        setPermissions(0700, 0600);
        if (geteuid() != 0) return;
        ASSERT_EQ(chown(folder_.path().c_str(), OrdinaryUser::number, OrdinaryUser::number), 0);
        for (const auto& entry : fs::recursive_directory_iterator(folder_.path())) {
            ASSERT_EQ(chown(entry.path().c_str(), OrdinaryUser::number, OrdinaryUser::number), 0);
        }
    }

    /// Goes on with a new token in a new store.
    void useStore(const fs::path& root) {
        store_ = Store(root);
        serialNumber_ = createToken(store_, cheapToken());
        setEnvironment("ZENTAK_TOKENS", root.string());
        reopen();
    }

    /// Changes of the present store are refused, and what needs none goes on.
    void expectNothingChangeable(const KeyPairEntry& key, const fs::path& root) {
        const auto before = filesBelow(root / "plugged");
        EXPECT_EQ(importCertificate(makeCertificate(testKey(6))), number(Error::storeFailed));
        EXPECT_EQ(generateP256(), number(Error::storeFailed));
        EXPECT_EQ(zentak_deleteKeyPair(device(), key.keyId.data(), userPin, false, instance_),
                  number(Error::storeFailed));
        EXPECT_FALSE(changePin(userPin, "654321"));
        Store store(root);
        EXPECT_THROW(createToken(store, cheapToken()), std::exception);
        EXPECT_EQ(signWith(key.keyId), 0);
        EXPECT_EQ(keyPairs().size(), 1U);
        EXPECT_EQ(filesBelow(root / "plugged"), before);
    }
};

TEST_F(StorageFaultTest, FullDiskRefusesChangesAndLosesNothing) {
    testKey(5);
    testKey(6);
    inChild([this] {
        FullDisk disk(folder_.path() / "small disk");
        useStore(disk.folder());
        const KeyPairEntry key = addKey(5);
        ASSERT_EQ(validate(userPin), 0);
        disk.fill();
        expectNothingChangeable(key, disk.folder());
        // Where there is no room at all (a small disk in memory), an attempt is still counted, in place.
        EXPECT_EQ(validate("000000"), number(Error::pinIncorrect));
        EXPECT_EQ(attemptsLeft(), 4);
        EXPECT_EQ(validate(userPin), 0);
        EXPECT_EQ(attemptsLeft(), 5);
        const std::string text =
            failureOf([&] { store_.change(serialNumber_, [](TokenData& token) { token.label = "other"; }); }).what();
        EXPECT_TRUE(text.ends_with("No space left on device") || text.ends_with("File too large")) << text;
        EXPECT_EQ(text.find('\n'), std::string::npos);
        disk.makeRoom();
        EXPECT_EQ(importCertificate(makeCertificate(testKey(6))), 0);
        EXPECT_EQ(generateP256(), 0);
        EXPECT_EQ(validate("000000"), number(Error::pinIncorrect));
        EXPECT_EQ(validate(userPin), 0);
        createToken(store_, cheapToken());
        EXPECT_TRUE(fs::is_empty(disk.folder() / ".zentak-scratch"));
    });
}

/// Nobody had asked for a PIN yet when the disk became full.
TEST_F(StorageFaultTest, FirstLoginOnAFullDisk) {
    inChild([this] {
        FullDisk disk(folder_.path() / "small disk");
        useStore(disk.folder());
        disk.fill();
        EXPECT_EQ(validate(userPin), 0);
        EXPECT_EQ(validate(officerPin, nullptr, 2), 0);
        EXPECT_EQ(validate("000000"), number(Error::pinIncorrect));
        EXPECT_EQ(attemptsLeft(), 4);
    });
}

TEST_F(StorageFaultTest, ReadOnlyStoreCanBeReadAndNotChanged) {
    const KeyPairEntry key = addKey(5);
    testKey(6);
    ASSERT_EQ(validate(userPin), 0);
    ASSERT_EQ(signWith(key.keyId), 0);
    setPermissions(0555, 0444);
    inChild([&] {
        const OrdinaryUser user;
        expectNothingChangeable(key, folder_.path());
        // An attempt that can't be counted isn't given.
        EXPECT_EQ(validate("000000"), number(Error::storeFailed));
        EXPECT_THROW(store_.checkPin(serialNumber_, Role::user, userPin), Failure);
        EXPECT_EQ(attemptsLeft(), 5);
        EXPECT_THROW(store_.unplug(serialNumber_), Failure);
        EXPECT_THROW(store_.remove(serialNumber_), Failure);
    });
    setPermissions(0700, 0600);
    EXPECT_EQ(generateP256(), 0);
}

/// The counters are written over, so a write that ends half-way must not stay.
TEST_F(StorageFaultTest, CounterThatIsWrittenInPartComesBack) {
    inChild([this] {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        rlimit small = limit;
        small.rlim_cur = 50;
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
        for (int i = 0; i < 6; ++i) EXPECT_EQ(validate(userPin), number(Error::storeFailed));
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        EXPECT_EQ(attemptsLeft(), 5);
        EXPECT_EQ(validate(userPin), 0);
    });
}

/// The key derivation takes longest by far, and a process may be stopped in it for hours.
TEST_F(StorageFaultTest, ProcessStoppedInAKeyDerivationKeepsNobodyWaiting) {
    const OpenedToken opened = store_.open(serialNumber_, Role::user, userPin);
    const std::string other = createToken(store_, cheapToken());
    const PinSection cheap = store_.load(serialNumber_).user;
    const auto setSection = [&](const PinSection& section) {
        store_.change(serialNumber_, [&](TokenData& token) { token.user = section; });
    };
    // Takes a minute.
    setSection({KeyDerivation{KeyDerivation::Function::scrypt, 0, 18, 8, 16}, Bytes(16, 1), Bytes(60, 2), 5});
    OtherProcess process("store_changer", {folder_.path().string(), serialNumber_, "login", userPin, "1"});
    const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    // Nothing else of it takes that long.
    while (process.processorTime() < 0.3 && std::chrono::steady_clock::now() < patience) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    process.stop();
    ASSERT_GE(process.processorTime(), 0.3);
    EXPECT_EQ(attemptsLeft(), 5);
    auto work = std::async(std::launch::async, [&] {
        setSection(cheap);
        EXPECT_EQ(validate(userPin), 0);
        EXPECT_EQ(validate("000000"), number(Error::pinIncorrect));
        EXPECT_EQ(validate(officerPin, nullptr, 2), 0);
        EXPECT_EQ(zentak_validatePassword(other.c_str(), userPin, 1, nullptr, instance_), 0);
        store_.unplug(other);
    });
    EXPECT_EQ(work.wait_for(std::chrono::seconds(60)), std::future_status::ready) << "they wait for the process";
    process.kill();
    work.get();
    EXPECT_EQ(attemptsLeft(), 4);
}

TEST_F(StorageFaultTest, LinkInThePlaceOfTheScratchFolderIsNotUsed) {
    const TemporaryFolder others;
    const fs::path scratch = folder_.path() / ".zentak-scratch";
    fs::create_directories(others.path() / "00AA");
    writeFile(others.path() / "00AA" / "thesis.txt", "years of work");
    for (const fs::path& target : {others.path(), others.path() / "missing"}) {
        fs::remove_all(scratch);
        fs::create_directory_symlink(target, scratch);
        const std::string text = scratch.string() + " is a link, and not used: remove it";
        expectFailure(Error::storeFailed, text, [&] { createToken(store_, cheapToken()); });
        expectFailure(Error::storeFailed, text, [&] { store_.remove(serialNumber_); });
        EXPECT_TRUE(store_.isPlugged(serialNumber_));
        EXPECT_EQ(fileContent(others.path() / "00AA" / "thesis.txt"), "years of work");
        EXPECT_FALSE(fs::exists(others.path() / "missing"));
    }
    fs::remove(scratch);
    EXPECT_EQ(validate(userPin), 0);
}

/// Also within what is removed.
TEST_F(StorageFaultTest, LinksInWhatIsRemovedAreNotFollowed) {
    const TemporaryFolder others;
    writeFile(others.path() / "thesis.txt", "years of work");
    const fs::path scratch = folder_.path() / ".zentak-scratch";
    fs::create_directories(scratch / "00AA");
    fs::create_directory_symlink(others.path(), scratch / "00AB");
    fs::create_directory_symlink(others.path(), scratch / "00AA" / "folder");
    fs::create_directory_symlink(others.path(), tokenFile().parent_path() / "folder");
    store_.remove(serialNumber_);
    EXPECT_TRUE(fs::is_empty(scratch));
    EXPECT_EQ(fileContent(others.path() / "thesis.txt"), "years of work");
}

TEST_F(StorageFaultTest, CountersThatCannotBeWrittenAreReplaced) {
    giveToOrdinaryUser();
    chmod((tokenFile().parent_path() / "attempts").c_str(), 0444);
    inChild([this] {
        const OrdinaryUser user;
        EXPECT_EQ(validate("000000"), number(Error::pinIncorrect));
        EXPECT_EQ(attemptsLeft(), 4);
        EXPECT_EQ(validate(userPin), 0);
        EXPECT_EQ(attemptsLeft(), 5);
    });
}

TEST_F(StorageFaultTest, StoreOfSomebodyElseIsNoEmptyStore) {
    setPermissions(0700, 0600);
    for (const char* closed : {"plugged", "."}) {
        chmod(folder_.path().c_str(), 0755);
        chmod((folder_.path() / closed).c_str(), 0000);
        inChild([&] {
            const OrdinaryUser user;
            reopen();
            EXPECT_TRUE(zentak_getConnectedDeviceList(false, instance_).empty());
            EXPECT_NE(zentak_initDevice(device(), true, instance_), 0);
            const Failure failure = failureOf([this] { static_cast<void>(store_.plugged()); });
            EXPECT_EQ(failure.error, Error::storeFailed);
            EXPECT_NE(std::string(failure.what()).find("Permission denied"), std::string::npos) << failure.what();
        });
        chmod((folder_.path() / closed).c_str(), 0700);
    }
}

TEST_F(StorageFaultTest, FilesOfSomebodyElseAreNoDamage) {
    for (const char* name : {"token", "attempts"}) {
        giveToOrdinaryUser();
        chmod((tokenFile().parent_path() / name).c_str(), 0000);
        inChild([&] {
            const OrdinaryUser user;
            reopen();
            EXPECT_EQ(validate(userPin), number(Error::storeFailed));
            EXPECT_EQ(validate("000000"), number(Error::storeFailed));
        });
    }
    setPermissions(0700, 0600);
    EXPECT_EQ(validate(userPin), 0);
    EXPECT_EQ(attemptsLeft(), 5);
}

TEST_F(StorageFaultTest, NewFilesAreTheUsersAlone) {
    const mode_t before = umask(0);
    const fs::path root = folder_.path() / "new" / "store";
    Store store(root);
    createToken(store, cheapToken());
    umask(before);
    for (const auto& entry : fs::recursive_directory_iterator(folder_.path() / "new")) {
        EXPECT_EQ(entry.status().permissions() & (fs::perms::group_all | fs::perms::others_all), fs::perms::none)
            << entry.path();
    }
}

TEST_F(StorageFaultTest, PipeInThePlaceOfAFileKeepsNobodyWaiting) {
    const fs::path attempts = tokenFile().parent_path() / "attempts";
    fs::remove(attempts);
    ASSERT_EQ(mkfifo(attempts.c_str(), 0600), 0);
    EXPECT_EQ(validate(userPin), number(Error::tokenDamaged));
    fs::remove(tokenFile());
    ASSERT_EQ(mkfifo(tokenFile().c_str(), 0600), 0);
    EXPECT_EQ(zentak_initDevice(device(), true, instance_), number(Error::tokenDamaged));
    EXPECT_THROW(static_cast<void>(store_.load(serialNumber_)), Failure);
}

}  // namespace

}  // namespace softtoken

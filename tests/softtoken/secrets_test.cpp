// No PIN and no private key lies open in the store, nor in the memory of a program that lists it.

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "other_process.h"
#include "tool_test.h"

namespace softtoken {

namespace {

constexpr const char* pin = "Kq7-user-pin-3f9";
constexpr const char* officerPin = "Zw2-officer-pin-8d1";
constexpr const char* newPin = "Rb9-new-pin-6e2";
constexpr const char* filePassword = "Hv4-file-password-5c7";

/// What must not be found: the PINs, and the numbers that make a private key.
std::vector<std::string> secretsOf(const std::vector<Key>& keys) {
    std::vector<std::string> secrets = {pin, officerPin, newPin, filePassword};
    for (const Key& key : keys) {
        for (const char* name : {"d", "priv", "rsa-factor1", "rsa-factor2", "rsa-exponent1"}) {
            const Bytes bytes = numberOf(key, name);
            if (bytes.empty()) continue;
            // As bytes, in the order in memory, and as text.
            secrets.emplace_back(bytes.begin(), bytes.begin() + 16);
            secrets.emplace_back(bytes.rbegin(), bytes.rbegin() + 16);
            secrets.push_back(hexText(ByteView(bytes).first(16)));
        }
    }
    return secrets;
}

/// All memory of a process that can be read, as a core would hold it. Nothing when only root may read it.
std::optional<std::string> memoryOf(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process);
    const int memory = open((folder + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
    if (memory < 0) {
        EXPECT_EQ(errno, EACCES);
        EXPECT_NE(geteuid(), 0U);
        return std::nullopt;
    }
    std::ifstream maps(folder + "/maps");
    std::string all;
    for (std::string line; std::getline(maps, line);) {
        std::uintptr_t begin = 0;
        std::uintptr_t end = 0;
        char dash = 0;
        std::istringstream(line) >> std::hex >> begin >> dash >> end;
        // The shadow memory of a sanitizer, which holds none of the program's bytes.
        if (end - begin > std::uintptr_t{1} << 30) continue;
        std::string part(end - begin, '\0');
        const ssize_t count = pread(memory, part.data(), part.size(), static_cast<off_t>(begin));
        if (count > 0) all.append(part, 0, static_cast<std::size_t>(count));
    }
    close(memory);
    return all;
}

class SecretsTest : public ToolTest {
protected:
    SecretsTest() {
        setEnvironment("ZENTAK_PIN", pin);
        setEnvironment("ZENTAK_SO_PIN", officerPin);
        serialNumber_ = create();
        const std::string keys = file("rsa.pem", pemOf(testKey(2))) + " " + file("ec.pem", pemOf(testKey(5)));
        outputOf("import --key " + keys);
        std::filesystem::remove(folder_.path() / "rsa.pem");
        std::filesystem::remove(folder_.path() / "ec.pem");
    }

    static std::string pemOf(const Key& key);

    std::string serialNumber_;
    const std::vector<std::string> secrets_ = secretsOf({testKey(2), testKey(5)});
};

std::string SecretsTest::pemOf(const Key& key) {
    const SecretBytes der = encodePrivateKey(key.get());
    return {der.begin(), der.end()};
}

TEST_F(SecretsTest, StoreShowsNone) {
    outputOf("set-pin --new-pin-file " + file("new", std::string(pin) + "\n"));
    setEnvironment("ZENTAK_PIN", "wrong pin");
    EXPECT_NE(run("generate --type p-256").exitCode, 0);
    std::filesystem::remove(folder_.path() / "new");
    const auto files = filesBelow(folder_.path());
    for (const auto& [file, content] : files) {
        for (const std::string& secret : secrets_) {
            EXPECT_EQ(content.find(secret), std::string::npos) << file << " shows " << hexText(viewOf(secret));
        }
    }
    EXPECT_GE(files.size(), 4U);
}

/// The program stops at its output, because the pipe is full, with all that it has read still in its memory.
TEST_F(SecretsTest, MemoryOfAListingShowsNone) {
    const std::string path = (programFolder() / "zentak-token").string();
    setEnvironment("ZENTAK_NEW_PIN", newPin);
    setEnvironment("ZENTAK_FILE_PASSWORD", filePassword);
    for (const char* command : {"list", "show", "verify", "repair"}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        fcntl(ends[1], F_SETPIPE_SZ, 4096);
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        const std::string part(4096, 'x');
        while (write(ends[1], part.data(), part.size()) > 0) {
        }
        fcntl(ends[1], F_SETFL, 0);
        const pid_t child = fork();
        if (child == 0) {
            dup2(ends[1], STDOUT_FILENO);
            execl(path.c_str(), path.c_str(), command, nullptr);
            _exit(127);
        }
        // When it waits in the pipe it has read the store: nothing else of it takes this long.
        std::string wait;
        for (int i = 0; i < 1000 && wait.find("pipe") == std::string::npos; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            wait = fileContent("/proc/" + std::to_string(child) + "/wchan");
        }
        const auto memory = memoryOf(child);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        close(ends[0]);
        close(ends[1]);
        if (!memory) continue;
        EXPECT_NE(memory->find(serialNumber_), std::string::npos) << wait;
        for (const std::string& secret : secrets_) {
            EXPECT_EQ(memory->find(secret), std::string::npos) << command << " shows " << hexText(viewOf(secret));
        }
    }
}

/// While it waits for its PIN: no other program of the user reads its memory, no crash leaves it in a file, and what
/// OpenSSL takes for secrets isn't swapped out.
TEST_F(SecretsTest, MemoryIsKeptPrivate) {
    std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755));
    const std::string waiting = (folder_.path() / "pipe").string();
    ASSERT_EQ(mkfifo(waiting.c_str(), 0600), 0);
    ASSERT_EQ(chmod(waiting.c_str(), 0644), 0);
    const int program = open((programFolder() / "zentak-token").c_str(), O_RDONLY | O_CLOEXEC);
    const pid_t child = fork();
    if (child == 0) {
        rlimit limit{};
        getrlimit(RLIMIT_CORE, &limit);
        if (geteuid() == 0) limit.rlim_max = RLIM_INFINITY;
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_CORE, &limit);
        if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) _exit(126);
        std::string arguments[] = {"zentak-token", "create", "--label", "x", "--pin-file", waiting};
        std::vector<char*> list;
        for (std::string& argument : arguments) list.push_back(argument.data());
        list.push_back(nullptr);
        fexecve(program, list.data(), environ);
        _exit(127);
    }
    close(program);
    const std::string folder = "/proc/" + std::to_string(child);
    struct stat status {};
    // The files there are root's when a process isn't to be looked into.
    for (int i = 0; i < 1000; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ASSERT_EQ(stat((folder + "/mem").c_str(), &status), 0);
        if (status.st_uid == 0 && fileContent(folder + "/comm").starts_with("zentak-token")) break;
    }
    EXPECT_EQ(status.st_uid, 0U);
    std::ifstream limits(folder + "/limits");
    std::string line;
    while (std::getline(limits, line) && !line.starts_with("Max core file size")) {
    }
    std::string soft;
    std::istringstream(line.substr(18)) >> soft;
    EXPECT_EQ(soft, "0") << line;
    if (geteuid() == 0) {
        bool found = false;
        for (int i = 0; i < 1000 && !found; ++i) {
            std::ifstream maps(folder + "/smaps");
            bool large = false;
            while (std::getline(maps, line)) {
                if (line.starts_with("Size:")) large = line.find(" 4096 kB") != std::string::npos;
                if (line.starts_with("VmFlags:") && large && line.find(" dd") != std::string::npos) found = true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_TRUE(found);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

}  // namespace

}  // namespace softtoken

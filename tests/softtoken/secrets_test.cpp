// No PIN and no private key lies open in the store, nor in the memory of a program that lists it.

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "other_process.h"
#include "tool_test.h"

namespace softtoken {

namespace {

constexpr const char* pin = "Kq7-user-pin-3f9";
constexpr const char* officerPin = "Zw2-officer-pin-8d1";

/// What must not be found: the PINs, and the numbers that make a private key.
std::vector<std::string> secretsOf(const std::vector<Key>& keys) {
    std::vector<std::string> secrets = {pin, officerPin};
    for (const Key& key : keys) {
        for (const char* name : {"d", "priv", "rsa-factor1", "rsa-factor2", "rsa-exponent1"}) {
            BIGNUM* number = nullptr;
            if (EVP_PKEY_get_bn_param(key.get(), name, &number) != 1) continue;
            Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number)));
            BN_bn2bin(number, bytes.data());
            BN_clear_free(number);
            // As bytes, in the order in memory, and as text.
            secrets.emplace_back(bytes.begin(), bytes.begin() + 16);
            secrets.emplace_back(bytes.rbegin(), bytes.rbegin() + 16);
            secrets.push_back(hexText(ByteView(bytes).first(16)));
        }
    }
    return secrets;
}

/// All memory of a process that can be read, as a core would hold it.
std::string memoryOf(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process);
    std::ifstream maps(folder + "/maps");
    const int memory = open((folder + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(memory, 0);
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
        EXPECT_EQ(run("import --key " + keys).exitCode, 0);
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
    EXPECT_EQ(run("set-pin --new-pin-file " + file("new", std::string(pin) + "\n")).exitCode, 0);
    setEnvironment("ZENTAK_PIN", "wrong pin");
    EXPECT_NE(run("generate --type p-256").exitCode, 0);
    std::filesystem::remove(folder_.path() / "new");
    int files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_.path())) {
        if (!entry.is_regular_file()) continue;
        ++files;
        const std::string content = fileContent(entry.path());
        for (const std::string& secret : secrets_) {
            EXPECT_EQ(content.find(secret), std::string::npos) << entry.path() << " shows " << hexText(viewOf(secret));
        }
    }
    EXPECT_GE(files, 4);
}

/// The program stops at its output, because the pipe is full, with all that it has read still in its memory.
TEST_F(SecretsTest, MemoryOfAListingShowsNone) {
    const std::string path = (programFolder() / "zentak-token").string();
    for (const char* command : {"list", "show"}) {
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
        const std::string memory = memoryOf(child);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        close(ends[0]);
        close(ends[1]);
        EXPECT_NE(memory.find(serialNumber_), std::string::npos) << wait;
        for (const std::string& secret : secrets_) {
            EXPECT_EQ(memory.find(secret), std::string::npos) << command << " shows " << hexText(viewOf(secret));
        }
    }
}

}  // namespace

}  // namespace softtoken

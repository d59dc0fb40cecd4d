#include <cstdlib>
#include <cstring>
#include <openssl/crypto.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include "platform/environment.h"
#include "platform/errors.h"

namespace softtoken {

namespace fs = std::filesystem;

void keepMemoryPrivate() {
    const rlimit none{};
    setrlimit(RLIMIT_CORE, &none);
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

std::optional<std::string> environmentText(const char* name) {
    // In a program with more rights than its caller has (set-user-ID) the caller's variables don't count.
    const char* value = secure_getenv(name);
    if (value == nullptr || *value == '\0') {
        return std::nullopt;
    }
    return value;
}

void forgetEnvironment(const char* name) {
    char* const value = std::getenv(name);
    if (value == nullptr) {
        return;
    }
    // The variable's own memory: the process was started with it.
    OPENSSL_cleanse(value, std::strlen(value));
    unsetenv(name);
}

fs::path defaultStoreFolder() {
    if (const auto named = environmentText("ZENTAK_TOKENS")) {
        return fs::absolute(*named);
    }
    if (const auto data = environmentText("XDG_DATA_HOME")) {
        return fs::path(*data) / "zentak" / "tokens";
    }
    if (const auto home = environmentText("HOME")) {
        return fs::path(*home) / ".local" / "share" / "zentak" / "tokens";
    }
    throw Failure(Error::storeFailed, "no folder for tokens: set ZENTAK_TOKENS or HOME");
}

fs::path pathFromUtf8(std::string_view text) {
    return text;
}

std::string utf8FromPath(const fs::path& path) {
    return path.string();
}

fs::path pathFromNarrow(std::string_view text) {
    return text;
}

std::string narrowFromPath(const fs::path& path) {
    return path.string();
}

}  // namespace softtoken

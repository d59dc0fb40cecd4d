#include "tool/pin_source.h"

#include "platform/environment.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/terminal.h"

namespace softtoken::tool {

namespace {

/// Far more than a PIN, or the password of a file, and a name or a comment below it.
constexpr std::size_t largestSecretFile = 64 << 10;

std::string firstLine(const std::string& file) {
    const auto content = readFile(pathFromUtf8(file), largestSecretFile, Links::follow);
    if (!content) {
        throw Failure(Error::storeFailed, "there is no file " + file);
    }
    return content->substr(0, content->find_first_of("\r\n"));
}

/// From the file or the variable.
std::optional<std::string> readSilently(const SecretSource& source) {
    if (!source.file.empty()) {
        return firstLine(source.file);
    }
    return environmentText(source.environment);
}

[[noreturn]] void failWithout(const SecretSource& source) {
    throw Failure(Error::pinRequired, std::string("no ") + source.prompt + ": use " + source.option + ", set " +
                                          source.environment + ", or run this at a terminal");
}

std::optional<std::string> promptTwice(const SecretSource& source, const std::string& hint) {
    auto first = promptOnTerminal(std::string(source.prompt) + hint + ": ", Echo::off);
    if (!first || first->empty()) {
        return first;
    }
    if (promptOnTerminal(std::string(source.prompt) + ", again: ", Echo::off) != first) {
        throw Failure(Error::pinRequired, "the two don't agree");
    }
    return first;
}

}  // namespace

void forgetSecrets() {
    for (const char* name : {"ZENTAK_PIN", "ZENTAK_SO_PIN", "ZENTAK_NEW_PIN", "ZENTAK_FILE_PASSWORD"}) {
        forgetEnvironment(name);
    }
}

std::string readSecret(const SecretSource& source) {
    if (auto secret = readSilently(source)) {
        return *std::move(secret);
    }
    if (auto secret = promptOnTerminal(std::string(source.prompt) + ": ", Echo::off)) {
        return *std::move(secret);
    }
    failWithout(source);
}

std::string readNewSecret(const SecretSource& source) {
    if (auto secret = readSilently(source)) {
        return *std::move(secret);
    }
    if (auto secret = promptTwice(source, "")) {
        return *std::move(secret);
    }
    failWithout(source);
}

std::string readOptionalNewSecret(const SecretSource& source) {
    if (auto secret = readSilently(source)) {
        return *std::move(secret);
    }
    return promptTwice(source, " (empty for none)").value_or("");
}

}  // namespace softtoken::tool

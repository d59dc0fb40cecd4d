/// Where the tool takes PINs and passwords from, so that none has to be on a command line.

#ifndef ZENTAK_SOFTTOKEN_TOOL_PIN_SOURCE_H
#define ZENTAK_SOFTTOKEN_TOOL_PIN_SOURCE_H

#include <optional>
#include <string>

namespace softtoken::tool {

/// One secret that a command needs.
struct SecretSource {
    std::string file;         ///< given as an option; empty for none
    const char* environment;  ///< variable that may hold the secret
    const char* prompt;       ///< what to call it at the terminal
    const char* option;       ///< the option of `file`, for the error's text
};

/// The first line of the file, else the variable, else what is typed at the terminal. Throws Error::pinRequired when
/// there is none of them.
std::string readSecret(const SecretSource& source);

/// The same for a secret that is being chosen, which is typed twice.
std::string readNewSecret(const SecretSource& source);

/// The same for a secret that may be left out: empty at the terminal, or nowhere at all.
std::string readOptionalNewSecret(const SecretSource& source);

/// Takes the secrets out of the environment. A command that needs none starts with this: what it doesn't hold, it can't
/// leave behind in a crash.
void forgetSecrets();

}  // namespace softtoken::tool

#endif

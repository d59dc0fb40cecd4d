/// Every family of the module's functions once, with two tokens, each call in plain sight. The stages are processes of
/// their own, because the world outside has something to do between them; scripts/journey does it.
///
///     ZENTAK_PIN=... zentak-journey MODULE FOLDER keys|use|unplug
///
/// keys    makes an RSA and an EC key pair on the first token and an EC key pair on the second, and writes the public
///         keys to FOLDER, so that a certificate can be made for one.
/// use     imports that certificate, signs, verifies, encrypts, decrypts, digests, derives, renames, deletes.
/// unplug  asks for the first token to be unplugged and plugged in again, and shows what a host sees of it.
///
/// The PIN is the same on both tokens: the module remembers one.

#include <cstdlib>
#include <exception>

#include "journey_stages.h"

namespace {

void loginToAll(const std::vector<Token>& tokens, const std::string& pin) {
    step("Login to both tokens");
    for (const Token& token : tokens) {
        check("C_Login", login(token.session, pin));
        showSessionState(token.session, CKS_RW_USER_FUNCTIONS);
    }
}

void logoutFromAll(const std::vector<Token>& tokens) {
    step("Logout");
    for (const Token& token : tokens) {
        check("C_Logout", cryptoki->C_Logout(token.session));
        showSessionState(token.session, CKS_RW_PUBLIC_SESSION);
        check("C_CloseSession", cryptoki->C_CloseSession(token.session));
    }
}

void run(const std::string& modulePath, const std::string& folder, const std::string& stage, const std::string& pin) {
    startModule(modulePath);
    const std::vector<Token> tokens = openTwoTokens();
    if (stage == "unplug") {
        watchUnplugging(tokens.front(), pin);
        return;
    }
    loginToAll(tokens, pin);
    if (stage == "keys") {
        generateKeys(tokens, folder);
    } else {
        importCertificate(tokens.front(), folder);
        signAndVerify(tokens.front(), folder);
        encryptAndDecrypt(tokens.front(), folder);
        digestDocument(tokens.front(), folder);
        deriveSecrets(tokens, folder);
        drawRandomBytes(tokens.front());
        renameAndDelete(tokens);
    }
    logoutFromAll(tokens);
    endModule();
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const char* pin = std::getenv("ZENTAK_PIN");
    if (arguments.size() != 3 || pin == nullptr ||
        (arguments[2] != "keys" && arguments[2] != "use" && arguments[2] != "unplug")) {
        std::cerr << "Usage: ZENTAK_PIN=<the PIN of both tokens> zentak-journey MODULE FOLDER keys|use|unplug\n"
                     "One stage of the journey through the module's functions with two tokens; what is made goes to\n"
                     "FOLDER. scripts/journey runs all three and does what is due between them.\n";
        return 2;
    }
    try {
        run(arguments[0], arguments[1], arguments[2], pin);
    } catch (const std::exception& problem) {
        std::cout.flush();
        std::cerr << "zentak-journey: " << problem.what() << '\n';
        return 1;
    }
    return 0;
}

/// A process of its own for tools/start_costs.py: does what its argument says and writes the time at which it was done
/// (CLOCK_MONOTONIC, in nanoseconds) and its peak memory (in KiB).
///
///   nothing            starts
///   openssl KEY.pem    loads an RSA key and signs with it
///   module ID          loads the module, logs in, finds the private key with this CKA_ID and signs with it
///   module-all         loads the module, logs in, and signs with every private key

#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <stdexcept>

#include "measurables.h"

namespace {

using namespace bench;

const Bytes hash(32);

void signWithOpenSsl(const std::string& file) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> input(BIO_new_file(file.c_str(), "r"), &BIO_free);
    EVP_PKEY* const key = input ? PEM_read_bio_PrivateKey(input.get(), nullptr, nullptr, nullptr) : nullptr;
    EVP_PKEY_CTX* const context = key == nullptr ? nullptr : EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr);
    unsigned char signature[512];
    std::size_t length = sizeof signature;
    if (context == nullptr || EVP_PKEY_sign_init(context) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context, EVP_sha256()) != 1 ||
        EVP_PKEY_sign(context, signature, &length, hash.data(), hash.size()) != 1) {
        throw std::runtime_error("OpenSSL didn't sign");
    }
}

void signWithModule(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key) {
    CK_KEY_TYPE type = 0;
    CK_ATTRIBUTE wanted = entry(CKA_KEY_TYPE, type);
    require(p11().C_GetAttributeValue(session, key, &wanted, 1), "C_GetAttributeValue");
    sign(session, type == CKK_RSA ? CKM_RSA_PKCS : CKM_ECDSA, key, hash);
}

/// Of the process since it was started, in KiB.
long peakMemory() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word) {
        long amount = 0;
        if (word == "VmHWM:" && status >> amount) return amount;
    }
    throw std::runtime_error("/proc/self/status doesn't tell the peak memory");
}

void report() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::printf("%lld %ld\n", static_cast<long long>(now.tv_sec) * 1'000'000'000 + now.tv_nsec, peakMemory());
}

void run(const std::string& what, std::string argument) {
    if (what == "nothing") return report();
    if (what == "openssl") {
        signWithOpenSsl(argument);
        return report();
    }
    const UserSession session;
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    Template wanted = {entry(CKA_CLASS, objectClass)};
    if (!argument.empty()) wanted.push_back(entry(CKA_ID, argument));
    for (const CK_OBJECT_HANDLE key : find(session.handle(), wanted)) signWithModule(session.handle(), key);
    report();
}

}  // namespace

int main(int argc, char* argv[]) {
    return runProgram("software_token_start", [&] { run(argc > 1 ? argv[1] : "nothing", argc > 2 ? argv[2] : ""); });
}

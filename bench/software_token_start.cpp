/// A process of its own for software_token_benchmark: does what its argument says and writes the time at which it was
/// done (CLOCK_MONOTONIC, in nanoseconds) and its peak memory (in KiB).
///
///   nothing            starts
///   openssl KEY.pem    loads an RSA key and signs with it
///   module ID          loads the module, logs in, finds the private key with this CKA_ID and signs with it
///   module-all         loads the module, logs in, and signs with every private key

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <stdexcept>

#include "module_client.h"

namespace {

void signWithOpenSsl(const char* file) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> input(BIO_new_file(file, "r"), &BIO_free);
    EVP_PKEY* const key = input ? PEM_read_bio_PrivateKey(input.get(), nullptr, nullptr, nullptr) : nullptr;
    EVP_PKEY_CTX* const context = key == nullptr ? nullptr : EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr);
    const unsigned char hash[32] = {};
    unsigned char signature[512];
    std::size_t length = sizeof signature;
    if (context == nullptr || EVP_PKEY_sign_init(context) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context, EVP_sha256()) != 1 ||
        EVP_PKEY_sign(context, signature, &length, hash, sizeof hash) != 1) {
        throw std::runtime_error("OpenSSL didn't sign");
    }
}

void signWithModule(const bench::UserSession& session, CK_OBJECT_HANDLE key) {
    CK_KEY_TYPE type = 0;
    CK_ATTRIBUTE wanted = {CKA_KEY_TYPE, &type, sizeof type};
    bench::require(bench::cryptoki().C_GetAttributeValue(session.handle(), key, &wanted, 1), "C_GetAttributeValue");
    CK_MECHANISM mechanism = {type == CKK_RSA ? CKM_RSA_PKCS : CKM_ECDSA, nullptr, 0};
    CK_BYTE hash[32] = {};
    CK_BYTE signature[1024];
    CK_ULONG length = sizeof signature;
    bench::require(bench::cryptoki().C_SignInit(session.handle(), &mechanism, key), "C_SignInit");
    bench::require(bench::cryptoki().C_Sign(session.handle(), hash, sizeof hash, signature, &length), "C_Sign");
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

void run(const std::string& what, const char* argument) {
    if (what == "nothing") {
        report();
    } else if (what == "openssl") {
        signWithOpenSsl(argument);
        report();
    } else {
        const bench::UserSession session;
        for (const CK_OBJECT_HANDLE key : session.privateKeys(what == "module" ? argument : "")) {
            signWithModule(session, key);
        }
        report();
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        run(argc > 1 ? argv[1] : "nothing", argc > 2 ? argv[2] : "");
    } catch (const std::exception& problem) {
        std::cerr << "software_token_start: " << problem.what() << '\n';
        return 1;
    }
    return 0;
}

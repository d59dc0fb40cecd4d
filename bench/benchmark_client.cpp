/// An application with one PKCS #11 module, as a process of its own for tools/compare_modules.py and
/// tools/start_costs.py. The environment tells the module where its token is.
///
///   benchmark_client MODULE fill KEYS.pem      stores the keys and certificates of the file on the token: pairs, in
///   the
///                                              order of `makeKeys`
///   benchmark_client MODULE measure PAIRS      logs in to a token with so many key pairs and serves the operations
///   that
///                                              are compared (see measurables.h)
///   benchmark_client MODULE start ID           logs in and signs with the private key with this CKA_ID; with every one
///                                              when it is empty
///   benchmark_client MODULE openssl KEYS.pem   signs with the first RSA key of the file, without the module
///   benchmark_client MODULE nothing -          only starts
///
/// The last three write the time at which that was done (CLOCK_MONOTONIC, in nanoseconds) and the process's peak memory
/// (in KiB).

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <stdexcept>

#include "measurables.h"
#include "records.h"

namespace {

using namespace bench;

Bytes numberOf(const EVP_PKEY* key, const char* name) {
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &number) != 1) throw std::runtime_error(std::string("a key without ") + name);
    Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    BN_clear_free(number);
    return bytes;
}

template <typename Object>
Bytes derOf(int (*encode)(const Object*, unsigned char**), const Object* object) {
    Bytes der(static_cast<std::size_t>(encode(object, nullptr)));
    unsigned char* position = der.data();
    encode(object, &position);
    return der;
}

/// The uncompressed point in its OCTET STRING.
Bytes pointOf(const EVP_PKEY* key) {
    Bytes point = derOf(i2d_PublicKey, key);
    point.insert(point.begin(), {0x04, static_cast<unsigned char>(point.size())});
    return point;
}

void addRsaNumbers(support::Template& privateKey, support::Template& publicKey, const EVP_PKEY* key) {
    for (support::Template* half : {&privateKey, &publicKey}) {
        half->addNumber(CKA_KEY_TYPE, CKK_RSA).add(CKA_MODULUS, numberOf(key, OSSL_PKEY_PARAM_RSA_N));
        half->add(CKA_PUBLIC_EXPONENT, numberOf(key, OSSL_PKEY_PARAM_RSA_E));
    }
    for (const auto& [type, name] : {std::pair(CKA_PRIVATE_EXPONENT, OSSL_PKEY_PARAM_RSA_D),
                                     {CKA_PRIME_1, OSSL_PKEY_PARAM_RSA_FACTOR1},
                                     {CKA_PRIME_2, OSSL_PKEY_PARAM_RSA_FACTOR2},
                                     {CKA_EXPONENT_1, OSSL_PKEY_PARAM_RSA_EXPONENT1},
                                     {CKA_EXPONENT_2, OSSL_PKEY_PARAM_RSA_EXPONENT2},
                                     {CKA_COEFFICIENT, OSSL_PKEY_PARAM_RSA_COEFFICIENT1}}) {
        privateKey.add(type, numberOf(key, name));
    }
    privateKey.add(CKA_DECRYPT, true);
    publicKey.add(CKA_ENCRYPT, true);
}

void addEcNumbers(support::Template& privateKey, support::Template& publicKey, const EVP_PKEY* key) {
    for (support::Template* half : {&privateKey, &publicKey}) {
        half->addNumber(CKA_KEY_TYPE, CKK_EC);
        half->add(CKA_EC_PARAMS, {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07});
    }
    privateKey.add(CKA_VALUE, numberOf(key, OSSL_PKEY_PARAM_PRIV_KEY)).add(CKA_DERIVE, true);
    publicKey.add(CKA_EC_POINT, pointOf(key));
}

void store(CK_SESSION_HANDLE session, const EVP_PKEY* key, const X509* certificate, const std::string& id) {
    support::Template privateKey;
    support::Template publicKey;
    support::Template stored;
    for (const auto& [object, objectClass] :
         {std::pair(&privateKey, CKO_PRIVATE_KEY), {&publicKey, CKO_PUBLIC_KEY}, {&stored, CKO_CERTIFICATE}}) {
        object->addNumber(CKA_CLASS, objectClass).add(CKA_TOKEN, true).add(CKA_PRIVATE, object == &privateKey);
        object->add(CKA_ID, id.c_str()).add(CKA_LABEL, ("key " + id).c_str());
    }
    privateKey.add(CKA_SENSITIVE, true).add(CKA_SIGN, true);
    publicKey.add(CKA_VERIFY, true);
    (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA ? addRsaNumbers : addEcNumbers)(privateKey, publicKey, key);
    stored.addNumber(CKA_CERTIFICATE_TYPE, CKC_X_509).add(CKA_VALUE, derOf(i2d_X509, certificate));
    stored.add(CKA_SUBJECT, derOf(i2d_X509_NAME, X509_get_subject_name(certificate)));
    for (support::Template* object : {&privateKey, &publicKey, &stored}) {
        CK_OBJECT_HANDLE made = CK_INVALID_HANDLE;
        require(p11().C_CreateObject(session, object->data(), object->count(), &made), "C_CreateObject");
    }
}

void fill(const std::string& pemFile) {
    const UserSession session;
    const std::unique_ptr<BIO, decltype(&BIO_free)> input(BIO_new_file(pemFile.c_str(), "r"), &BIO_free);
    if (!input) throw std::runtime_error("cannot read " + pemFile);
    for (int number = 1;; ++number) {
        const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
            PEM_read_bio_PrivateKey(input.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
        const std::unique_ptr<X509, decltype(&X509_free)> certificate(
            PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr), &X509_free);
        if (!key || !certificate) break;
        store(session.handle(), key.get(), certificate.get(), std::to_string(number));
    }
}

void measure(std::size_t keyPairs) {
    const UserSession session;
    const Subjects subjects(session, keyPairs, keyPairs);
    std::vector<Measurable> compared;
    for (const Operation& each : operations()) {
        if (each.kind == Kind::stored || each.kind == Kind::changing || each.kind == Kind::other) {
            compared.push_back({each.name, each.kind, {keyPairs, keyPairs}, [&] { return each.prepare(subjects); }});
        }
    }
    serve(compared);
}

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

/// Signs with one private key, or with all without an ID.
void start(std::string id) {
    const UserSession session;
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    Template wanted = {entry(CKA_CLASS, objectClass)};
    if (!id.empty()) wanted.push_back(entry(CKA_ID, id));
    for (const CK_OBJECT_HANDLE key : find(session.handle(), wanted)) signWithModule(session.handle(), key);
    report();
}

void run(const std::string& module, const std::string& what, const std::string& argument) {
    useModule(module);
    if (what == "fill") {
        fill(argument);
    } else if (what == "measure") {
        measure(std::stoul(argument));
    } else if (what == "start") {
        start(argument);
    } else {
        if (what == "openssl") signWithOpenSsl(argument);
        report();
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 4) {
        std::cerr << "usage: benchmark_client MODULE fill|measure|start|openssl|nothing ARGUMENT\n";
        return 2;
    }
    return runProgram("benchmark_client", [&] { run(argv[1], argv[2], argv[3]); });
}

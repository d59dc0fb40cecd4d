/// What the software token costs beside OpenSSL: tools/beside_openssl.py measures by turns what this offers. The module
/// reads its log level for every line of its log, written or not; how often is counted, because on some machines that
/// is much of a short operation.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <openssl/rsa.h>
#include <stdexcept>

#include "device/zentak_dsc_library.h"
#include "log_level.h"
#include "platform/files.h"
#include "platform/operating_system.h"
#include "run_folder.h"
#include "token_stores.h"

namespace {

using namespace bench;

constexpr TokenSize compared = {100, 0};

/// Each way answers its result, a verification a byte 1, and throws when it fails.
struct CryptoWork {
    const char* name;
    std::function<Bytes()> direct;
    std::function<Bytes(const Subjects& subjects)> module;
    std::function<Bytes()> boundary;
};

using softtoken::Key;
using softtoken::KeyContext;

/// What a SHA-256 hash has before it in its DigestInfo.
constexpr std::array<unsigned char, 19> sha256Prefix = {0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                                        0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};

void expect(bool holds, const std::string& what) {
    if (!holds) throw std::runtime_error(what + " failed");
}

/// The same key as a program would have it that loads it from a file, in OpenSSL's default library context.
Key loaded(const Key& key) {
    const softtoken::SecretBytes der = softtoken::encodePrivateKey(key.get());
    const unsigned char* position = der.data();
    return softtoken::ownKey(d2i_AutoPrivateKey(nullptr, &position, static_cast<long>(der.size())));
}

/// An operation of OpenSSL with a key, set up.
KeyContext prepared(const Key& key, int (*init)(EVP_PKEY_CTX*), int padding = 0, bool hashed = false) {
    KeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
    expect(init(context.get()) == 1 && (padding == 0 || EVP_PKEY_CTX_set_rsa_padding(context.get(), padding) == 1) &&
               (!hashed || EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) == 1),
           "setting up OpenSSL");
    return context;
}

int paddingFor(const Key& key) {
    return EVP_PKEY_get_base_id(key.get()) == EVP_PKEY_RSA ? RSA_PKCS1_PADDING : 0;
}

/// What an operation of OpenSSL writes, of at most 512 bytes.
template <typename Operation>
Bytes written(const Operation& operation) {
    Bytes bytes(512);
    std::size_t length = bytes.size();
    expect(operation(bytes.data(), &length) == 1, "an operation of OpenSSL");
    bytes.resize(length);
    return bytes;
}

Bytes signDirectly(const Key& key, const Bytes& hash) {
    const int padding = paddingFor(key);
    const KeyContext context = prepared(key, EVP_PKEY_sign_init, padding, padding != 0);
    return written([&](unsigned char* signature, std::size_t* length) {
        return EVP_PKEY_sign(context.get(), signature, length, hash.data(), hash.size());
    });
}

Bytes verifyDirectly(const Key& key, const Bytes& hash, const Bytes& signature) {
    const int padding = paddingFor(key);
    const KeyContext context = prepared(key, EVP_PKEY_verify_init, padding, padding != 0);
    expect(EVP_PKEY_verify(context.get(), signature.data(), signature.size(), hash.data(), hash.size()) == 1,
           "verifying directly");
    return {1};
}

Bytes decryptDirectly(const Key& key, const Bytes& ciphertext, int padding) {
    const KeyContext context = prepared(key, EVP_PKEY_decrypt_init, padding);
    return written([&](unsigned char* plaintext, std::size_t* length) {
        return EVP_PKEY_decrypt(context.get(), plaintext, length, ciphertext.data(), ciphertext.size());
    });
}

/// From the peer's point as it comes from a peer.
Bytes deriveDirectly(const Key& key, const Bytes& point) {
    const Key peer = softtoken::ownKey(EVP_PKEY_new());
    expect(EVP_PKEY_copy_parameters(peer.get(), key.get()) == 1 &&
               EVP_PKEY_set1_encoded_public_key(peer.get(), point.data(), point.size()) == 1,
           "taking the peer's point directly");
    const KeyContext context = prepared(key, EVP_PKEY_derive_init);
    expect(EVP_PKEY_derive_set_peer(context.get(), peer.get()) == 1, "setting the peer");
    return written(
        [&](unsigned char* secret, std::size_t* length) { return EVP_PKEY_derive(context.get(), secret, length); });
}

int lengthOf(const Bytes& bytes) {
    return static_cast<int>(bytes.size());
}

/// A key pair at the boundary of the device library.
struct DeviceKey {
    std::string device;
    ZentakKeyPair pair;
    void* instance;

    [[nodiscard]] Bytes sign(const Bytes& input) const {
        Bytes signature(1024);
        int length = 1024;
        expect(zentak_signHash(device.c_str(), pair.keyId, userPin, input.data(), lengthOf(input), signature.data(),
                               &length, false, instance, false) == 0,
               "signing at the boundary");
        signature.resize(static_cast<std::size_t>(length));
        return signature;
    }

    [[nodiscard]] Bytes verify(const Bytes& hash, const Bytes& publicKey, const Bytes& signature) const {
        expect(zentak_verifySignatureHash(static_cast<unsigned int>(pair.keyType), device.c_str(), hash.data(),
                                          lengthOf(hash), publicKey.data(), lengthOf(publicKey), signature.data(),
                                          lengthOf(signature), instance, false) == 0,
               "verifying at the boundary");
        return {1};
    }

    [[nodiscard]] Bytes decrypt(const Bytes& ciphertext) const {
        return taken([&](unsigned char** plaintext, int* length) {
            return zentak_decrypt(device.c_str(), pair.keyId, userPin, ciphertext.data(), lengthOf(ciphertext),
                                  plaintext, length, pair.keyFlag, instance);
        });
    }

    [[nodiscard]] Bytes derive(const Bytes& point) const {
        return taken([&](unsigned char** secret, int* length) {
            return zentak_ecdhDerive(device.c_str(), pair.keyId, userPin, point.data(), lengthOf(point), secret, length,
                                     instance);
        });
    }

private:
    template <typename Operation>
    static Bytes taken(const Operation& operation) {
        unsigned char* allocated = nullptr;
        int length = 0;
        expect(operation(&allocated, &length) == 0, "decrypting or deriving at the boundary");
        const Bytes bytes(allocated, allocated + length);
        std::free(allocated);
        return bytes;
    }
};

/// The secret's handle, as bytes.
Bytes deriveByModule(const Subjects& subjects, const Bytes& point) {
    CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, point.size(), const_cast<CK_BYTE_PTR>(point.data())};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
    require(p11().C_DeriveKey(subjects.session, &mechanism, subjects.ecPrivateKey, nullptr, 0, &secret), "C_DeriveKey");
    const auto* const first = reinterpret_cast<const unsigned char*>(&secret);
    return {first, first + sizeof secret};
}

Bytes secretOf(const Subjects& subjects, const Bytes& handle) {
    CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
    std::memcpy(&secret, handle.data(), sizeof secret);
    Bytes value(32);
    CK_ATTRIBUTE wanted = entry(CKA_VALUE, value);
    require(p11().C_GetAttributeValue(subjects.session, secret, &wanted, 1), "C_GetAttributeValue");
    return value;
}

/// On the last RSA key and the last P-256 key of the token that is compared. Throws unless all ways come to the same.
std::vector<CryptoWork> cryptoWork(const Subjects& subjects) {
    void* instance = nullptr;
    zentak_createInstance(&instance);
    CK_TOKEN_INFO token;
    require(p11().C_GetTokenInfo(subjects.slot, &token), "C_GetTokenInfo");
    const std::string device(reinterpret_cast<const char*>(token.serialNumber), sizeof token.serialNumber);
    const std::vector<ZentakKeyPair> pairs = zentak_getKeyPairList(device.c_str(), instance);
    const std::size_t rsaPlace = (compared.keyPairs - 1) / 2 * 2;
    const std::size_t ecPlace = compared.keyPairs / 2 * 2 - 1;
    const DeviceKey deviceRsa = {device, pairs.at(rsaPlace), instance};
    const DeviceKey deviceEc = {device, pairs.at(ecPlace), instance};
    const Key rsa = loaded(allKeys().at(rsaPlace));
    const Key ec = loaded(allKeys().at(ecPlace));

    const Bytes hash(32, 0x5A);
    Bytes input(sha256Prefix.begin(), sha256Prefix.end());
    input.insert(input.end(), hash.begin(), hash.end());
    const Bytes rsaSignature = deviceRsa.sign(hash);
    const Bytes ecSignature = deviceEc.sign(hash);
    const Bytes ecSignatureDer = signDirectly(ec, hash);
    const Bytes ciphertext = encrypt(subjects.session, CKM_RSA_PKCS, subjects.rsaPublicKey, hash);
    const Bytes ciphertextOaep = encrypt(subjects.session, CKM_RSA_PKCS_OAEP, subjects.rsaPublicKey, hash);
    const Bytes point = softtoken::publicKeyBytes(softtoken::generateKey(*softtoken::keyTypeOfCode(5)).get());
    unsigned char* encoded = nullptr;
    const int encodedLength = i2d_PUBKEY(rsa.get(), &encoded);
    const Bytes rsaPublicKey(encoded, encoded + encodedLength);
    OPENSSL_free(encoded);
    const Bytes ecPublicKey(deviceEc.pair.publicKey, deviceEc.pair.publicKey + 65);

    std::vector<CryptoWork> all = {
        {"RSA-2048 signature", [=] { return signDirectly(rsa, hash); },
         [=](const Subjects& on) { return sign(on.session, CKM_RSA_PKCS, on.rsaPrivateKey, input); },
         [=] { return deviceRsa.sign(input); }},
        {"RSA-2048 decryption v1.5", [=] { return decryptDirectly(rsa, ciphertext, RSA_PKCS1_PADDING); },
         [=](const Subjects& on) { return decrypt(on.session, CKM_RSA_PKCS, on.rsaPrivateKey, ciphertext); },
         [=] { return deviceRsa.decrypt(ciphertext); }},
        {"RSA-2048 decryption OAEP", [=] { return decryptDirectly(rsa, ciphertextOaep, RSA_PKCS1_OAEP_PADDING); },
         [=](const Subjects& on) { return decrypt(on.session, CKM_RSA_PKCS_OAEP, on.rsaPrivateKey, ciphertextOaep); },
         [=] { return deviceRsa.decrypt(ciphertextOaep); }},
        {"RSA-2048 verification", [=] { return verifyDirectly(rsa, hash, rsaSignature); },
         [=](const Subjects& on) { return verify(on.session, CKM_RSA_PKCS, on.rsaPublicKey, input, rsaSignature); },
         [=] { return deviceRsa.verify(hash, rsaPublicKey, rsaSignature); }},
        {"P-256 signature", [=] { return signDirectly(ec, hash); },
         [=](const Subjects& on) { return sign(on.session, CKM_ECDSA, on.ecPrivateKey, hash); },
         [=] { return deviceEc.sign(hash); }},
        {"P-256 verification", [=] { return verifyDirectly(ec, hash, ecSignatureDer); },
         [=](const Subjects& on) { return verify(on.session, CKM_ECDSA, on.ecPublicKey, hash, ecSignature); },
         [=] { return deviceEc.verify(hash, ecPublicKey, ecSignature); }},
        {"P-256 ECDH", [=] { return deriveDirectly(ec, point); },
         [=](const Subjects& on) { return deriveByModule(on, point); }, [=] { return deviceEc.derive(point); }},
    };
    for (const CryptoWork& work : all) {
        const std::string name = work.name;
        const Bytes direct = work.direct();
        Bytes module = work.module(subjects);
        if (name == "P-256 ECDH") module = secretOf(subjects, module);
        if (name == "P-256 signature") {
            // No two are the same.
            expect(deviceEc.verify(hash, ecPublicKey, module) == Bytes{1}, name);
        } else {
            expect(module == direct && work.boundary() == direct, name + ": coming to the same");
        }
    }
    return all;
}

std::ptrdiff_t linesOfLog() {
    std::ptrdiff_t lines = 0;
    for (const auto& file : std::filesystem::recursive_directory_iterator(support::temporaryFolder())) {
        if (file.path().extension() != ".LOG") continue;
        std::ifstream log(file.path());
        lines += std::count(std::istreambuf_iterator<char>(log), {}, '\n');
    }
    return lines;
}

/// How often the work looks for the log level, which is how many lines it writes when all are written.
double countLogLevelReads(const Work& work) {
    constexpr int repetitions = 16;
    const LogLevel level(support::debugLevel);
    // The module makes one missing folder of the log with each line, and drops the line.
    for (int i = 0; i < repetitions; ++i) work();
    const std::ptrdiff_t before = linesOfLog();
    for (int i = 0; i < repetitions; ++i) work();
    return static_cast<double>(linesOfLog() - before) / repetitions;
}

/// The operations in their three ways.
void addCryptoWork(std::vector<Measurable>& all) {
    for (const CryptoWork& work : cryptoWork(enterToken(compared))) {
        const std::string name = work.name;
        const auto throughModule = [work]() -> Work {
            return [work, &subjects = enterToken(compared)] { work.module(subjects); };
        };
        all.push_back({name + ", OpenSSL", Kind::other, compared, [work] { return [work] { work.direct(); }; }});
        all.push_back({name + ", module", Kind::other, compared, throughModule});
        all.push_back(
            {name + ", device library", Kind::other, compared, [work] { return [work] { work.boundary(); }; }});
        const double reads = countLogLevelReads(throughModule());
        all.push_back({name + ", reads", Kind::other, compared, {}, reads});
    }
    all.push_back({"look for the log level", Kind::other, compared,
                   [] { return [] { static_cast<void>(zentak::platform::readLogLevelByte()); }; }});
}

/// A change, and the least that it can cost: OpenSSL makes a pair, and a file of the token's size is replaced twice.
void addChanges(std::vector<Measurable>& all, const TokenSize& size) {
    all.push_back({"generate, destroy", Kind::changing, size,
                   [size] { return operation("P-256 pair made, destroyed").prepare(enterToken(size)); }});
    all.push_back({"OpenSSL and two flushed files", Kind::changing, size, [size]() -> Work {
                       enterToken(size);
                       return [content = std::string(tokenFileSize(), 'x')] {
                           softtoken::generateKey(*softtoken::keyTypeOfCode(5));
                           for (int i = 0; i < 2; ++i) softtoken::replaceFile(support::runFolder() / "floor", content);
                       };
                   }});
}

}  // namespace

int main() {
    return runProgram("software_token_benchmark", [] {
        const support::RunFolder folder;
        useUsualConfiguration();
        usePlugIn(plugInSoftwareToken);
        std::vector<Measurable> all;
        addCryptoWork(all);
        addChanges(all, {10, 0});
        addChanges(all, {500, 0});
        serve(all);
        leaveToken();
    });
}

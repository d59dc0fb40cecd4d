#include "peer_token.h"

#include <array>
#include <memory>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <stdexcept>
#include <string>

#include "module_client.h"

namespace bench {

namespace {

using Bytes = std::vector<unsigned char>;

/// An object's template, which owns its values.
class ObjectTemplate {
public:
    explicit ObjectTemplate(CK_OBJECT_CLASS objectClass, const std::string& id) {
        number(CKA_CLASS, objectClass);
        bytes(CKA_ID, {id.begin(), id.end()});
        const std::string label = "key " + id;
        bytes(CKA_LABEL, {label.begin(), label.end()});
        boolean(CKA_TOKEN, true);
    }

    void number(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
        const auto* const first = reinterpret_cast<const unsigned char*>(&value);
        bytes(type, Bytes(first, first + sizeof value));
    }
    void boolean(CK_ATTRIBUTE_TYPE type, bool value) {
        bytes(type, {value ? Bytes::value_type{1} : Bytes::value_type{}});
    }
    void bytes(CK_ATTRIBUTE_TYPE type, const Bytes& value) { values_.emplace_back(type, value); }

    void create(CK_SESSION_HANDLE session) {
        std::vector<CK_ATTRIBUTE> attributes;
        for (auto& [type, value] : values_) {
            attributes.push_back({type, value.data(), static_cast<CK_ULONG>(value.size())});
        }
        CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
        require(
            cryptoki().C_CreateObject(session, attributes.data(), static_cast<CK_ULONG>(attributes.size()), &object),
            "C_CreateObject");
    }

private:
    std::vector<std::pair<CK_ATTRIBUTE_TYPE, Bytes>> values_;
};

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
    Bytes point(67);
    std::size_t length = 0;
    if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, point.data() + 2, 65, &length) != 1 ||
        length != 65) {
        throw std::runtime_error("a key that isn't on P-256");
    }
    point[0] = 0x04;
    point[1] = 65;
    return point;
}

void addRsaNumbers(ObjectTemplate& privateKey, ObjectTemplate& publicKey, const EVP_PKEY* key) {
    for (ObjectTemplate* half : {&privateKey, &publicKey}) {
        half->number(CKA_KEY_TYPE, CKK_RSA);
        half->bytes(CKA_MODULUS, numberOf(key, OSSL_PKEY_PARAM_RSA_N));
        half->bytes(CKA_PUBLIC_EXPONENT, numberOf(key, OSSL_PKEY_PARAM_RSA_E));
    }
    privateKey.bytes(CKA_PRIVATE_EXPONENT, numberOf(key, OSSL_PKEY_PARAM_RSA_D));
    privateKey.bytes(CKA_PRIME_1, numberOf(key, OSSL_PKEY_PARAM_RSA_FACTOR1));
    privateKey.bytes(CKA_PRIME_2, numberOf(key, OSSL_PKEY_PARAM_RSA_FACTOR2));
    privateKey.bytes(CKA_EXPONENT_1, numberOf(key, OSSL_PKEY_PARAM_RSA_EXPONENT1));
    privateKey.bytes(CKA_EXPONENT_2, numberOf(key, OSSL_PKEY_PARAM_RSA_EXPONENT2));
    privateKey.bytes(CKA_COEFFICIENT, numberOf(key, OSSL_PKEY_PARAM_RSA_COEFFICIENT1));
    privateKey.boolean(CKA_DECRYPT, true);
    publicKey.boolean(CKA_ENCRYPT, true);
}

void addEcNumbers(ObjectTemplate& privateKey, ObjectTemplate& publicKey, const EVP_PKEY* key) {
    for (ObjectTemplate* half : {&privateKey, &publicKey}) {
        half->number(CKA_KEY_TYPE, CKK_EC);
        half->bytes(CKA_EC_PARAMS, {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07});
    }
    privateKey.bytes(CKA_VALUE, numberOf(key, OSSL_PKEY_PARAM_PRIV_KEY));
    privateKey.boolean(CKA_DERIVE, true);
    publicKey.bytes(CKA_EC_POINT, pointOf(key));
}

void addObjects(CK_SESSION_HANDLE session, const EVP_PKEY* key, const X509* certificate, const std::string& id) {
    ObjectTemplate privateKey(CKO_PRIVATE_KEY, id);
    ObjectTemplate publicKey(CKO_PUBLIC_KEY, id);
    privateKey.boolean(CKA_PRIVATE, true);
    privateKey.boolean(CKA_SENSITIVE, true);
    privateKey.boolean(CKA_SIGN, true);
    publicKey.boolean(CKA_PRIVATE, false);
    publicKey.boolean(CKA_VERIFY, true);
    (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA ? addRsaNumbers : addEcNumbers)(privateKey, publicKey, key);
    privateKey.create(session);
    publicKey.create(session);
    ObjectTemplate stored(CKO_CERTIFICATE, id);
    stored.number(CKA_CERTIFICATE_TYPE, CKC_X_509);
    stored.boolean(CKA_PRIVATE, false);
    stored.bytes(CKA_SUBJECT, derOf(i2d_X509_NAME, X509_get_subject_name(certificate)));
    stored.bytes(CKA_VALUE, derOf(i2d_X509, certificate));
    stored.create(session);
}

/// The first slot takes a new token.
void initialiseToken() {
    require(cryptoki().C_Initialize(nullptr), "C_Initialize");
    CK_SLOT_ID slots[16];
    CK_ULONG count = std::size(slots);
    require(cryptoki().C_GetSlotList(CK_TRUE, slots, &count), "C_GetSlotList");
    std::string officerPin = "87654321";
    std::string pin = userPin;
    std::string label(32, ' ');
    label.replace(0, 9, "Benchmark");
    const auto text = [](std::string& value) { return reinterpret_cast<CK_UTF8CHAR_PTR>(value.data()); };
    require(cryptoki().C_InitToken(slots[0], text(officerPin), officerPin.size(), text(label)), "C_InitToken");
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    require(cryptoki().C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
            "C_OpenSession");
    require(cryptoki().C_Login(session, CKU_SO, text(officerPin), officerPin.size()), "C_Login");
    require(cryptoki().C_InitPIN(session, text(pin), pin.size()), "C_InitPIN");
    require(cryptoki().C_Finalize(nullptr), "C_Finalize");
}

}  // namespace

void makePeerToken(const std::filesystem::path& pemFile) {
    initialiseToken();
    const UserSession session;
    const std::unique_ptr<BIO, decltype(&BIO_free)> input(BIO_new_file(pemFile.c_str(), "r"), &BIO_free);
    if (!input) throw std::runtime_error("cannot read " + pemFile.string());
    for (int number = 1;; ++number) {
        const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
            PEM_read_bio_PrivateKey(input.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
        const std::unique_ptr<X509, decltype(&X509_free)> certificate(
            PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr), &X509_free);
        if (!key || !certificate) break;
        addObjects(session.handle(), key.get(), certificate.get(), std::to_string(number));
    }
}

}  // namespace bench

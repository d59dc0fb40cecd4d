/// What the signing tests share: the mechanisms as a table, the calls that a signature makes, a session to sign in.

#ifndef ZENTAK_TESTS_BEHAVIOUR_SIGNING_TEST_H
#define ZENTAK_TESTS_BEHAVIOUR_SIGNING_TEST_H

#include "object_test.h"

namespace support {

struct SignMechanism {
    CK_MECHANISM_TYPE type;
    int hashCode;  ///< 0: the data are signed as they are
    bool pss;
    bool onFips = true;  ///< may be used on a FIPS 140-3 token
};

inline const SignMechanism signMechanisms[] = {
    {CKM_RSA_PKCS, 0, false},
    {CKM_SHA1_RSA_PKCS, 2, false, false},
    {CKM_RSA_PKCS_PSS, 0, true},
    {CKM_SHA1_RSA_PKCS_PSS, 2, true, false},
    {CKM_SHA256_RSA_PKCS, 3, false},
    {CKM_SHA384_RSA_PKCS, 4, false},
    {CKM_SHA512_RSA_PKCS, 5, false},
    {CKM_SHA256_RSA_PKCS_PSS, 3, true},
    {CKM_SHA384_RSA_PKCS_PSS, 4, true},
    {CKM_SHA512_RSA_PKCS_PSS, 5, true},
    {CKM_SHA224_RSA_PKCS, 6, false},
    {CKM_SHA224_RSA_PKCS_PSS, 6, true, false},
    {CKM_ECDSA, 0, false},
    {CKM_ECDSA_SHA1, 2, false, false},
    {CKM_ECDSA_SHA224, 6, false, false},
    {CKM_ECDSA_SHA256, 3, false},
    {CKM_ECDSA_SHA384, 4, false},
    {CKM_ECDSA_SHA512, 5, false},
};

inline std::string initHash(int hashCode, const std::string& serial = "SN1") {
    return text("zentak_initHash(\"", serial, "\", ", hashCode, ", out, instance)");
}

/// `context` is a number of creation, 0 for null.
inline std::string contextName(int context) {
    return context == 0 ? "null" : text("context#", context);
}

inline std::string updateHash(int context, const Bytes& data) {
    return text("zentak_updateHash(", contextName(context), ", ", shown(data), ", instance)");
}

inline std::string finalHash(int context) {
    return text("zentak_finalHash(", contextName(context), ", out, *64, instance)");
}

/// Signing with the key pair 5 of `token` by a user who is logged in.
inline std::string signHash(const Bytes& data, bool pss = false, const std::string& token = "SN1",
                            const std::string& pin = "246810") {
    return text("zentak_signHash(\"", token, "\", ", shownKeyReference(5), ", \"", pin, "\", ", shown(data),
                ", out, *1024, false, instance, ", pss ? "true" : "false", ")");
}

/// True for the signing of no bytes; their address means nothing.
inline bool signsNothing(const std::string& call) {
    const std::string withAddress = signHash({});
    std::string withoutAddress = withAddress;
    withoutAddress.replace(withoutAddress.find("<>, 0"), 2, "null");
    return call == withAddress || call == withoutAddress;
}

const Bytes rsaIdentifier = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
const Bytes exponent = {0x02, 0x03, 0x01, 0x00, 0x01};

/// The SubjectPublicKeyInfo of a 256-byte modulus whose top bit is set, written out by hand.
inline Bytes wrapped2048(const Bytes& modulus) {
    return Bytes{0x30, 0x82, 0x01, 0x22} + rsaIdentifier + Bytes{0x03, 0x82, 0x01, 0x0F, 0x00} +
           Bytes{0x30, 0x82, 0x01, 0x0A} + Bytes{0x02, 0x82, 0x01, 0x01, 0x00} + modulus + exponent;
}

/// A session in which a user is logged in; the key pair 5 is on both tokens.
class SigningTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        world.keyPairs["SN2"] = {keyFive};
        session = openSessionIn(CKS_RO_USER_FUNCTIONS);
    }

    Outcome init(const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key) { return initIn(session, mechanism, key); }
    Outcome initIn(CK_SESSION_HANDLE where, const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key) {
        CK_MECHANISM copy = mechanism;
        return observe([&] { return api->C_SignInit(where, &copy, key); });
    }
    void begin(CK_MECHANISM_TYPE type) { signInit(session, type, 5); }
    void beginWith(CK_MECHANISM_TYPE type, const Bytes& part) {
        begin(type);
        ASSERT_EQ(update(part).code, CKR_OK);
    }

    /// C_Sign into `room`.
    Outcome sign(const Bytes& data) { return signIn(session, data); }
    Outcome signIn(CK_SESSION_HANDLE where, const Bytes& data) {
        Bytes copy = data;
        return withRoom([&](CK_BYTE_PTR target) {
            return api->C_Sign(where, copy.data(), static_cast<CK_ULONG>(copy.size()), target, &length);
        });
    }
    /// Calls the function with the session, the data and what else it takes.
    template <typename Function, typename... More>
    Outcome give(Function function, const Bytes& data, More... more) {
        Bytes copy = data;
        return observe([&] { return function(session, copy.data(), static_cast<CK_ULONG>(copy.size()), more...); });
    }
    /// The same for a function that writes into `room`, whose capacity it is told as this one.
    template <typename Function>
    Outcome giveForRoom(Function function, const Bytes& data, CK_ULONG capacity) {
        room = Room(2000);
        length = capacity;
        return give(function, data, static_cast<CK_BYTE_PTR>(room.address()), &length);
    }

    Outcome update(const Bytes& part) { return give(api->C_SignUpdate, part); }
    /// C_SignFinal into `room`.
    Outcome finish() {
        return withRoom([&](CK_BYTE_PTR target) { return api->C_SignFinal(session, target, &length); });
    }
    /// The same two with a null signature pointer.
    Outcome signSize(const Bytes& data) { return give(api->C_Sign, data, nullptr, &length); }
    Outcome finishSize() {
        return observe([&] { return api->C_SignFinal(session, nullptr, &length); });
    }

    /// Lets a search abandon what runs.
    void abandon() {
        ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
        ASSERT_EQ(api->C_FindObjectsFinal(session), CKR_OK);
    }
    /// The code and line of `function` when the session's operation is `activeOperation`.
    static Outcome notInitialised(const std::string& function, int activeOperation = 0) {
        return {CKR_OPERATION_NOT_INITIALIZED,
                {"DEBUG " + function,
                 text("ERROR ", function, ": operation not initialized, activeOperation=", activeOperation)}};
    }
    /// Exactly this was written into `room` by the last call.
    void expectInRoom(const Bytes& result) {
        EXPECT_EQ(length, result.size());
        EXPECT_EQ(room.first(result.size()), result);
        EXPECT_TRUE(room.untouchedFrom(result.size()));
    }
    void setResult(const std::string& operation, int result) { world.results[operation] = result; }

    const Bytes digest = countingBytes(0xD0, 32);      ///< as the scripted library gives it
    const Bytes signature = countingBytes(0x50, 256);  ///< likewise
    CK_SESSION_HANDLE session = 0;
    CK_ULONG length = 0;  ///< written by the last call
    Room room{2000};      ///< the signature of the last call

private:
    template <typename Function>
    Outcome withRoom(Function call) {
        room = Room(2000);
        length = 2000;
        return observe([&] { return call(static_cast<CK_BYTE_PTR>(room.address())); });
    }
};

}  // namespace support

#endif

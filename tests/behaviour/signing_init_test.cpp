// C_SignInit: its checks one by one and in their order.

#include <set>

#include "signing_test.h"

using namespace support;

namespace {

class SigningInitTest : public SigningTest {
protected:
};

const std::string name = "DEBUG C_SignInit";
const Outcome accepted = {CKR_OK, {name}, {listKeyPairs}};

TEST_F(SigningInitTest, TheModuleAndTheSessionComeBeforeTheArguments) {
    const auto expectRefusals = [&](CK_SESSION_HANDLE where, CK_RV code, const std::string& reason) {
        EXPECT_EQ(observe([&] { return api->C_SignInit(where, nullptr, 0); }), refused(code, "C_SignInit" + reason));
        EXPECT_EQ(observe([&] { return api->C_Sign(where, nullptr, 0, nullptr, nullptr); }),
                  refused(code, "C_Sign" + reason));
        EXPECT_EQ(observe([&] { return api->C_SignUpdate(where, nullptr, 0); }),
                  refused(code, "C_SignUpdate" + reason));
        EXPECT_EQ(observe([&] { return api->C_SignFinal(where, nullptr, nullptr); }),
                  refused(code, "C_SignFinal" + reason));
    };
    expectRefusals(1610612889, CKR_SESSION_HANDLE_INVALID, ": invalid hSession=1610612889");
    ASSERT_EQ(api->C_Finalize(nullptr), CKR_OK);
    expectRefusals(1, CKR_CRYPTOKI_NOT_INITIALIZED, ": not initialized");
}

TEST_F(SigningInitTest, OnlyAReadOnlyPublicSessionIsRefused) {
    for (const CK_STATE state : everyState) {
        session = reopen(session, state);
        EXPECT_EQ(init({CKM_RSA_PKCS, nullptr, 0}, privateKey(5)),
                  state == CKS_RO_PUBLIC_SESSION
                      ? refused(CKR_SESSION_HANDLE_INVALID, "C_SignInit: invalid session state=0")
                      : accepted);
    }
}

TEST_F(SigningInitTest, TheStateComesBeforeARunningOperation) {
    begin(CKM_RSA_PKCS);
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    EXPECT_EQ(observe([&] { return api->C_SignInit(session, nullptr, 0); }),
              refused(CKR_SESSION_HANDLE_INVALID, "C_SignInit: invalid session state=0"));
}

TEST_F(SigningInitTest, ARunningOperationComesBeforeTheMechanism) {
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(observe([&] { return api->C_SignInit(session, nullptr, 0); }),
              refused(CKR_OPERATION_ACTIVE, "C_SignInit: operation already active, activeOperation=5"));
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(observe([&] { return api->C_SignInit(session, nullptr, 0); }),
              refused(CKR_OPERATION_ACTIVE, "C_SignInit: operation already active, activeOperation=1"));
}

TEST_F(SigningInitTest, ARefusedSecondStartLeavesTheFirstRunning) {
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(init({CKM_SHA256_RSA_PKCS, nullptr, 0}, privateKey(6)).code, CKR_OPERATION_ACTIVE);
    EXPECT_EQ(sign({1, 2}).device, (Lines{signHash({1, 2})}));
}

TEST_F(SigningInitTest, TheMechanismAndItsParameterComeBeforeTheKey) {
    unsigned char parameter[4] = {};
    EXPECT_EQ(observe([&] { return api->C_SignInit(session, nullptr, 0); }),
              refused(CKR_ARGUMENTS_BAD, "C_SignInit: pMechanism is NULL"));
    EXPECT_EQ(init({CKM_MD5_RSA_PKCS, nullptr, 0}, 0),
              refused(CKR_MECHANISM_INVALID, "C_SignInit: unsupported mechanism=5"));
    EXPECT_EQ(init({CKM_SHA256, parameter, 4}, 0),
              refused(CKR_MECHANISM_INVALID, "C_SignInit: unsupported mechanism=592"));
    EXPECT_EQ(init({CKM_SHA256_RSA_PKCS, parameter, 4}, 0),
              refused(CKR_MECHANISM_PARAM_INVALID, "C_SignInit: mechanism param invalid for mechanism=64"));
}

TEST_F(SigningInitTest, TheUsageComesBeforeTheKeySize) {
    world.keyPairs["SN1"][0].keyType = rsa1024;
    world.keyPairs["SN1"][0].keyUsage = usageEncrypt;
    EXPECT_EQ(init({CKM_RSA_PKCS, nullptr, 0}, privateKey(5)),
              refused(CKR_KEY_FUNCTION_NOT_PERMITTED, "C_SignInit: key usage does not permit signing, keyUsage=2",
                      {listKeyPairs}));
}

TEST_F(SigningInitTest, EverySigningMechanismIsAccepted) {
    for (const SignMechanism& mechanism : signMechanisms) {
        EXPECT_EQ(init({mechanism.type, nullptr, 0}, privateKey(5)), accepted) << mechanism.type;
        abandon();
    }
}

TEST_F(SigningInitTest, EveryOtherMechanismIsRefused) {
    std::set<std::uint64_t> others = {// Ciphers.
                                      CKM_RC2_KEY_GEN, CKM_RC4_KEY_GEN, CKM_DES_ECB, CKM_DES3_CBC_PAD,
                                      CKM_DES3_MAC_GENERAL, CKM_AES_MAC, CKM_AES_CBC_PAD,
                                      // Hashes.
                                      CKM_MD2, CKM_MD5, CKM_MD5_HMAC, CKM_SHA_1, CKM_SHA_1_HMAC, CKM_RIPEMD160,
                                      CKM_SHA224, CKM_SHA256, CKM_SHA256_HMAC, CKM_SHA384, CKM_SHA512, CKM_SHA512_HMAC,
                                      // Protocols, generation and derivation.
                                      CKM_SSL3_MD5_MAC, CKM_TLS_PRF, CKM_PKCS5_PBKD2, CKM_CMS_SIG, CKM_EC_KEY_PAIR_GEN,
                                      CKM_ECDH1_DERIVE, CKM_DSA_PARAMETER_GEN,
                                      // Nobody's.
                                      CKM_VENDOR_DEFINED, 0x80000001, 0xFFFFFFFF};
    for (std::uint64_t type = 0; type <= 0x60; ++type) others.insert(type);
    for (std::uint64_t type = 0x1030; type <= 0x1060; ++type) others.insert(type);
    for (const SignMechanism& mechanism : signMechanisms) others.erase(mechanism.type);
    if constexpr (sizeof(CK_ULONG) == 8) {
        for (const SignMechanism& mechanism : signMechanisms) others.insert((std::uint64_t{1} << 32U) + mechanism.type);
    }
    Lines expected;
    clear();
    for (const std::uint64_t type : others) {
        CK_MECHANISM mechanism = {static_cast<CK_MECHANISM_TYPE>(type), nullptr, 0};
        EXPECT_EQ(api->C_SignInit(session, &mechanism, privateKey(5)), CKR_MECHANISM_INVALID) << type;
        expected.push_back(name);
        expected.push_back(text("ERROR C_SignInit: unsupported mechanism=", type));
    }
    EXPECT_EQ(log(), expected);
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(SigningInitTest, OnlyPssMechanismsTakeAParameter) {
    unsigned char parameter[12] = {};
    void* const nowhere = reinterpret_cast<void*>(std::uintptr_t{1});  // a parameter is never read
    const CK_MECHANISM parameters[] = {
        {0, parameter, sizeof parameter}, {0, parameter, 0}, {0, nullptr, 1}, {0, nowhere, 0xFFFFFFFF}};
    for (const SignMechanism& row : signMechanisms) {
        for (CK_MECHANISM mechanism : parameters) {
            mechanism.mechanism = row.type;
            if (row.pss) {
                EXPECT_EQ(init(mechanism, privateKey(5)), accepted) << row.type;
                abandon();
            } else {
                EXPECT_EQ(init(mechanism, privateKey(5)),
                          refused(CKR_MECHANISM_PARAM_INVALID,
                                  text("C_SignInit: mechanism param invalid for mechanism=", row.type)));
            }
        }
    }
}

TEST_F(SigningInitTest, TheMechanismIsReadAtAnyAddress) {
    if constexpr (alignof(CK_MECHANISM) == 1) {
        const CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
        Room memory(sizeof mechanism);
        std::memcpy(memory.address(), &mechanism, sizeof mechanism);
        EXPECT_EQ(api->C_SignInit(session, static_cast<CK_MECHANISM_PTR>(memory.address()), privateKey(5)), CKR_OK);
    }
}

TEST_F(SigningInitTest, HandlesBelowTheKeysAreRefusedUnasked) {
    for (const CK_OBJECT_HANDLE key : Numbers{0, session, 0x6FFFFFFF}) {
        EXPECT_EQ(init({CKM_RSA_PKCS, nullptr, 0}, key),
                  refused(CKR_OBJECT_HANDLE_INVALID, text("C_SignInit: invalid hKey=", key)));
    }
}

// Every other handle is looked up by its distance from the first private key, so none but a private key's is found.
TEST_F(SigningInitTest, HandlesOfOtherObjectsAreNotFound) {
    for (const CK_OBJECT_HANDLE key : Numbers{privateKey(7), privateKey(0xFFF), publicKey(5), certificate(5),
                                              0x70003000, CK_OBJECT_HANDLE{0x70010005}, CK_OBJECT_HANDLE{0xFFFFFFFF}}) {
        EXPECT_EQ(init({CKM_RSA_PKCS, nullptr, 0}, key),
                  failed(CKR_OBJECT_HANDLE_INVALID, "C_SignInit", text("Invalid input handle in sign : ", key),
                         {listKeyPairs}));
    }
}

TEST_F(SigningInitTest, LargeIdentifiersAreFoundUnderTheHandlesOfOtherObjects) {
    world.keyPairs["SN1"].push_back(labelledKeyPair(0x1005, "large"));
    world.keyPairs["SN1"].push_back(labelledKeyPair(0x8FFFFFFF, "largest"));
    EXPECT_EQ(init({CKM_RSA_PKCS, nullptr, 0}, publicKey(5)), accepted);
    abandon();
    EXPECT_EQ(init({CKM_RSA_PKCS, nullptr, 0}, 0xFFFFFFFF), accepted);
}

TEST_F(SigningInitTest, TheKeyMustBePermittedToSign) {
    for (const std::uint32_t usage : {0U, 1U, 2U, 3U, 4U, 0xFFFFFFFEU, 0x80000001U}) {
        world.keyPairs["SN1"][0].keyUsage = usage;
        EXPECT_EQ(init({CKM_RSA_PKCS, nullptr, 0}, privateKey(5)),
                  (usage & 1U) != 0 ? accepted
                                    : refused(CKR_KEY_FUNCTION_NOT_PERMITTED,
                                              text("C_SignInit: key usage does not permit signing, keyUsage=", usage),
                                              {listKeyPairs}));
        abandon();
    }
}

TEST_F(SigningInitTest, Rsa1024IsRefusedOnEveryToken) {
    world.keyPairs["SN1"][0].keyType = rsa1024;
    world.keyPairs["SN2"][0].keyType = rsa1024;
    const CK_SESSION_HANDLE fips = openSession(CKF_RW_SESSION, fipsSlot);
    for (const auto& [where, serial] : {std::pair{session, "SN1"}, std::pair{fips, "SN2"}}) {
        for (const SignMechanism& mechanism : signMechanisms) {
            if (where == fips && !mechanism.onFips) continue;
            EXPECT_EQ(initIn(where, {mechanism.type, nullptr, 0}, privateKey(5)),
                      refused(CKR_KEY_SIZE_RANGE,
                              "C_SignInit: RSA-1024 signing not allowed \xE2\x80\x94 key size below "
                              "112-bit security strength",
                              {text("zentak_getKeyPairList(\"", serial, "\", instance)")}));
        }
    }
}

// Whether mechanism and key go together is the token's affair.
TEST_F(SigningInitTest, EveryOtherKeyTypeGoesWithEveryMechanism) {
    for (const int keyType : {0, 2, 3, 4, 5, 6, 7, 8, -1}) {
        world.keyPairs["SN1"][0].keyType = keyType;
        for (const CK_MECHANISM_TYPE type : Numbers{CKM_RSA_PKCS, CKM_ECDSA_SHA256}) {
            EXPECT_EQ(init({type, nullptr, 0}, privateKey(5)), accepted) << keyType;
            abandon();
        }
    }
}

TEST_F(SigningInitTest, ARefusedStartIsNoStart) {
    world.keyPairs["SN1"][1].keyUsage = 0;
    world.keyPairs["SN1"].push_back(labelledKeyPair(7, "small"));
    world.keyPairs["SN1"].back().keyType = rsa1024;
    for (const CK_OBJECT_HANDLE key : Numbers{0, privateKey(9), privateKey(6), privateKey(7)}) {
        EXPECT_NE(init({CKM_RSA_PKCS, nullptr, 0}, key).code, CKR_OK);
        EXPECT_EQ(sign({1}), notInitialised("C_Sign"));
        EXPECT_EQ(update({1}), notInitialised("C_SignUpdate"));
        EXPECT_EQ(finish(), notInitialised("C_SignFinal"));
        EXPECT_EQ(init({CKM_RSA_PKCS, nullptr, 0}, privateKey(5)), accepted);
        EXPECT_EQ(sign({1}).code, CKR_OK);
    }
}

}  // namespace

// From a handle to a record of the device library: the ranges, the lists that are asked, the buffer that is shared.

#include <functional>
#include <utility>

#include "object_test.h"

using namespace support;

namespace {

class LookupTest : public ObjectTest {
protected:
    /// Reads one attribute, of at most 4096 bytes.
    Outcome read(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
        value.assign(4096, 0xEE);
        CK_ATTRIBUTE wanted = {type, value.data(), 4096};
        Outcome outcome = observe([&] { return api->C_GetAttributeValue(session, object, &wanted, 1); });
        if (outcome.code == CKR_OK) value.resize(wanted.ulValueLen);
        return outcome;
    }

    Bytes value;  ///< read last
};

TEST_F(LookupTest, AKeyPairIsTwoObjectsWithTheSameIdentifier) {
    world.keyPairs["SN1"] = {keyFive};
    world.certificates["SN1"] = {certificateSeven};
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
    Template all;
    EXPECT_EQ(search(session, all), (Handles{0x70001005, 0x70000005, 0x70002007}));
    for (const auto& [handle, objectClass] : std::vector<std::pair<CK_OBJECT_HANDLE, CK_OBJECT_CLASS>>{
             {0x70000005, CKO_PRIVATE_KEY}, {0x70001005, CKO_PUBLIC_KEY}, {0x70002007, CKO_CERTIFICATE}}) {
        EXPECT_EQ(read(session, handle, CKA_CLASS).code, CKR_OK);
        EXPECT_EQ(value, bytesOf(objectClass));
    }
}

TEST_F(LookupTest, HandlesReachTheEndsOfTheirRanges) {
    world.keyPairs["SN1"] = {labelledKeyPair(0, "first"), labelledKeyPair(0xFFF, "last")};
    world.certificates["SN1"] = {labelledCertificate(0, "zero"), labelledCertificate(1, "first"),
                                 labelledCertificate(0xFFF, "last")};
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    struct Row {
        CK_OBJECT_HANDLE handle;
        CK_OBJECT_CLASS objectClass;
        std::string label;
        std::string list;
    };
    const Row rows[] = {
        {0x70000000, CKO_PRIVATE_KEY, "first", listKeyPairs},
        {0x70000FFF, CKO_PRIVATE_KEY, "last", listKeyPairs},
        {0x70001000, CKO_PUBLIC_KEY, "first", listKeyPairs},
        {0x70001FFF, CKO_PUBLIC_KEY, "last", listKeyPairs},
        {0x70002001, CKO_CERTIFICATE, "first", listCertificates},
        {0x70002FFF, CKO_CERTIFICATE, "last", listCertificates},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.handle);
        EXPECT_EQ(read(session, row.handle, CKA_LABEL).device, (Lines{row.list}));
        EXPECT_EQ(value, charactersOf(row.label));
        EXPECT_EQ(read(session, row.handle, CKA_CLASS).device, (Lines{row.list}));
        EXPECT_EQ(value, bytesOf(row.objectClass));
        EXPECT_EQ(read(session, row.handle, CKA_OBJECT_ID).code, CKR_OK);
        EXPECT_EQ(value, bytesOf(row.handle));
    }
}

TEST_F(LookupTest, TheFirstRecordWithTheIdentifierIsTaken) {
    world.keyPairs["SN1"] = {labelledKeyPair(5, "one"), labelledKeyPair(6, "two"), labelledKeyPair(5, "three")};
    world.certificates["SN1"] = {labelledCertificate(4, "one"), labelledCertificate(7, "two"),
                                 labelledCertificate(7, "three")};
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    read(session, privateKey(5), CKA_LABEL);
    EXPECT_EQ(value, charactersOf("one"));
    read(session, certificate(7), CKA_LABEL);
    EXPECT_EQ(value, charactersOf("two"));
}

TEST_F(LookupTest, EveryLookupListsTheTokenAnew) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(read(session, privateKey(5), CKA_LABEL).device, (Lines{listKeyPairs}));
    setAlias(world.keyPairs["SN1"][0], "Renamed");
    EXPECT_EQ(read(session, publicKey(5), CKA_LABEL).device, (Lines{listKeyPairs}));
    EXPECT_EQ(value, charactersOf("Renamed"));
    world.keyPairs["SN1"].clear();
    EXPECT_EQ(read(session, privateKey(5), CKA_LABEL),
              (Outcome{CKR_OBJECT_HANDLE_INVALID,
                       {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 1",
                        "ERROR Key pair not found in get attribute : 1879048197"},
                       {listKeyPairs}}));
}

// Only a search may set up the device.
TEST_F(LookupTest, ALookupNeverInitialisesTheDevice) {
    world.keyPairs.clear();
    world.certificates.clear();
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(read(session, privateKey(5), CKA_ID).device, (Lines{listKeyPairs}));
    EXPECT_EQ(read(session, certificate(7), CKA_ID).device, (Lines{listCertificates}));
    CK_ULONG size = 0;
    EXPECT_EQ(observe([&] { return api->C_GetObjectSize(session, publicKey(5), &size); }).device,
              (Lines{listKeyPairs}));
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    EXPECT_EQ(observe([&] { return api->C_SignInit(session, &mechanism, privateKey(5)); }).device,
              (Lines{listKeyPairs}));
}

TEST_F(LookupTest, EachSessionLooksAtItsOwnToken) {
    world.keyPairs["SN2"] = {labelledKeyPair(5, "Other five")};
    world.certificates["SN2"] = {labelledCertificate(7, "Other seven")};
    const CK_SESSION_HANDLE first = openSessionIn(CKS_RO_PUBLIC_SESSION);
    const CK_SESSION_HANDLE second = openSession(0, fipsSlot);
    EXPECT_EQ(read(second, privateKey(5), CKA_LABEL).device, (Lines{"zentak_getKeyPairList(\"SN2\", instance)"}));
    EXPECT_EQ(value, charactersOf("Other five"));
    EXPECT_EQ(read(second, certificate(7), CKA_LABEL).device, (Lines{"zentak_getCertificateList(\"SN2\", instance)"}));
    EXPECT_EQ(value, charactersOf("Other seven"));
    read(first, privateKey(5), CKA_LABEL);
    EXPECT_EQ(value, charactersOf("Key five"));
}

// Handles wider than 32 bits are no other handle's second name.
TEST_F(LookupTest, WideHandlesAreNotCut) {
    if constexpr (sizeof(CK_ULONG) == 8) {
        const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
        for (const std::uint64_t low : {0x70000005U, 0x70001005U, 0x70002007U}) {
            const auto handle = static_cast<CK_OBJECT_HANDLE>((std::uint64_t{1} << 32U) + low);
            EXPECT_EQ(read(session, handle, CKA_LABEL),
                      (Outcome{CKR_OBJECT_HANDLE_INVALID,
                               {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 1",
                                text("ERROR C_GetAttributeValue: derived key handle not found=", handle)}}));
            CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
            const Outcome outcome = observe([&] { return api->C_SignInit(session, &mechanism, handle); });
            EXPECT_EQ(outcome.code, CKR_OBJECT_HANDLE_INVALID);
            EXPECT_EQ(outcome.log, (Lines{"DEBUG C_SignInit", text("ERROR Invalid input handle in sign : ", handle)}));
        }
    }
}

TEST_F(LookupTest, SecretKeysThatNobodyDerivedAreNotThere) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
    for (const CK_OBJECT_HANDLE handle : Numbers{0x70013000, 0x70013001, 0xFFFFFFFF}) {
        EXPECT_EQ(read(session, handle, CKA_VALUE),
                  (Outcome{CKR_OBJECT_HANDLE_INVALID,
                           {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 1",
                            text("ERROR C_GetAttributeValue: derived key handle not found=", handle)}}));
    }
}

// One buffer holds the key pair of the last lookup, whichever session made it, and a signature takes its key from
// there.
TEST_F(LookupTest, TheLastKeyPairLookedUpIsTheOneThatSigns) {
    world.keyPairs["SN2"] = {labelledKeyPair(9, "Other nine")};
    const CK_SESSION_HANDLE signing = openSessionIn(CKS_RO_USER_FUNCTIONS);
    const CK_SESSION_HANDLE other = openSession();
    const CK_SESSION_HANDLE otherToken = openSession(CKF_RW_SESSION, fipsSlot);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    CK_ULONG size = 0;
    struct Row {
        const char* what;
        std::function<void()> between;
        std::uint32_t signs;
    };
    const std::vector<Row> rows = {
        {"nothing", [] {}, 5},
        {"an attribute of another key", [&] { read(other, privateKey(6), CKA_ID); }, 6},
        {"an attribute of another public key, same session", [&] { read(signing, publicKey(6), CKA_ID); }, 6},
        {"the size of another key", [&] { api->C_GetObjectSize(other, privateKey(6), &size); }, 6},
        {"a key of another token", [&] { read(otherToken, privateKey(9), CKA_ID); }, 9},
        {"a signature begun elsewhere", [&] { api->C_SignInit(other, &mechanism, privateKey(6)); }, 6},
        {"a signature begun on another token", [&] { api->C_SignInit(otherToken, &mechanism, privateKey(9)); }, 9},
        {"another key and this one again",
         [&] {
             read(other, privateKey(6), CKA_ID);
             read(other, privateKey(5), CKA_ID);
         },
         5},
        {"a key that isn't there", [&] { read(other, privateKey(8), CKA_ID); }, 5},
        {"a certificate", [&] { read(other, certificate(7), CKA_ID); }, 5},
        {"a search", [&] { api->C_FindObjectsInit(other, nullptr, 0); }, 5},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        signInit(signing, CKM_RSA_PKCS, 5);
        row.between();
        Bytes data = {1, 2, 3};
        Bytes signature(256);
        CK_ULONG length = 256;
        EXPECT_EQ(observe([&] { return api->C_Sign(signing, data.data(), 3, signature.data(), &length); }).device,
                  (Lines{"zentak_signHash(\"SN1\", " + shownKeyReference(row.signs) +
                         ", \"246810\", <010203>, 3, out, *1024, false, instance, false)"}));
        api->C_FindObjectsInit(other, nullptr, 0);
        api->C_FindObjectsFinal(other);
        api->C_FindObjectsInit(otherToken, nullptr, 0);
        api->C_FindObjectsFinal(otherToken);
    }
}

TEST_F(LookupTest, ARefusedKeyStillFillsTheSharedBuffer) {
    world.keyPairs["SN1"][1].keyUsage = usageEncrypt;
    const CK_SESSION_HANDLE signing = openSessionIn(CKS_RO_USER_FUNCTIONS);
    const CK_SESSION_HANDLE other = openSession();
    signInit(signing, CKM_ECDSA, 5);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(api->C_SignInit(other, &mechanism, privateKey(6)), CKR_KEY_FUNCTION_NOT_PERMITTED);
    unsigned char data[1] = {0xAB};
    CK_ULONG length = 0;
    EXPECT_EQ(observe([&] { return api->C_Sign(signing, data, 1, nullptr, &length); }).device,
              (Lines{"zentak_signHash(\"SN1\", " + shownKeyReference(6) +
                     ", \"246810\", <AB>, 1, out, *1024, false, instance, false)"}));
}

}  // namespace

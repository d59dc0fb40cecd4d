// C_GetObjectSize.

#include "object_test.h"

using namespace support;

namespace {

class ObjectSizeTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    }

    CK_SESSION_HANDLE session = 0;
};

TEST_F(ObjectSizeTest, ModuleAndSessionComeBeforeTheObject) {
    CK_ULONG size = 77;
    EXPECT_EQ(observe([&] { return api->C_GetObjectSize(1610612889, 0, &size); }),
              refused(CKR_SESSION_HANDLE_INVALID, "C_GetObjectSize: invalid hSession=1610612889"));
    ASSERT_EQ(api->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(observe([&] { return api->C_GetObjectSize(1, 0, &size); }),
              refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_GetObjectSize: not initialized"));
    EXPECT_EQ(size, 77U);
}

TEST_F(ObjectSizeTest, SizesComeFromTheRecords) {
    world.keyPairs["SN1"] = {keyFive, labelledKeyPair(0, ""), labelledKeyPair(0xFFF, "")};
    setPublicKey(world.keyPairs["SN1"][1], countingBytes(0, 65));
    setPublicKey(world.keyPairs["SN1"][2], Bytes(1024, 1));
    world.certificates["SN1"] = {labelledCertificate(0, ""), certificateFive, labelledCertificate(0x1000, ""),
                                 labelledCertificate(0x8FFFE005, "")};
    world.certificates["SN1"][0].derLength = 3072;
    struct Row {
        CK_OBJECT_HANDLE handle;
        CK_ULONG size;
        std::string list;
    };
    const Row rows[] = {
        {0x70000005, 512, listKeyPairs},
        {0x70001005, 256, listKeyPairs},
        {0x70000000, 130, listKeyPairs},
        {0x70001000, 65, listKeyPairs},
        {0x70000FFF, 2048, listKeyPairs},
        {0x70001FFF, 1024, listKeyPairs},
        {0x70002005, 5, listCertificates},
        {0x70002000, 3072, listCertificates},  // unlike the attributes, the size has this handle
        // Whatever is no key is a certificate, its identifier computed in 32 bits.
        {0x70003000, 5, listCertificates},
        {0x00000005, 5, listCertificates},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.handle);
        CK_ULONG size = 0xEEEEEEEE;
        EXPECT_EQ(observe([&] { return api->C_GetObjectSize(session, row.handle, &size); }),
                  succeeded("C_GetObjectSize", {row.list}));
        EXPECT_EQ(size, row.size);
    }
}

TEST_F(ObjectSizeTest, ObjectsThatAreNotThereAreRefused) {
    struct Row {
        CK_OBJECT_HANDLE handle;
        std::string kind;
        std::string list;
    };
    const Row rows[] = {
        {0x70000007, "Private key", listKeyPairs},     {0x70000FFF, "Private key", listKeyPairs},
        {0x70001007, "Public key", listKeyPairs},      {0x70001FFF, "Public key", listKeyPairs},
        {0x70002000, "Certificate", listCertificates}, {0x70002006, "Certificate", listCertificates},
        {0x70002FFF, "Certificate", listCertificates}, {0x70003000, "Certificate", listCertificates},
        {0x6FFFFFFF, "Certificate", listCertificates}, {0, "Certificate", listCertificates},
        {0xFFFFFFFF, "Certificate", listCertificates},
    };
    for (const Row& row : rows) {
        CK_ULONG size = 77;
        EXPECT_EQ(observe([&] { return api->C_GetObjectSize(session, row.handle, &size); }),
                  failed(CKR_OBJECT_HANDLE_INVALID, "C_GetObjectSize",
                         text("", row.kind, " not found in get object size : ", row.handle), {row.list}));
        EXPECT_EQ(size, 77U);
    }
}

TEST_F(ObjectSizeTest, WideHandlesAreCertificatesByTheirLow32Bits) {
    if constexpr (sizeof(CK_ULONG) == 8) {
        CK_ULONG size = 77;
        const auto wide = [](std::uint64_t low) {
            return static_cast<CK_OBJECT_HANDLE>((std::uint64_t{1} << 32U) + low);
        };
        EXPECT_EQ(observe([&] { return api->C_GetObjectSize(session, wide(0x70000005), &size); }),
                  failed(CKR_OBJECT_HANDLE_INVALID, "C_GetObjectSize",
                         "Certificate not found in get object size : 6174015493", {listCertificates}));
        EXPECT_EQ(size, 77U);
        EXPECT_EQ(observe([&] { return api->C_GetObjectSize(session, wide(0x70002005), &size); }),
                  succeeded("C_GetObjectSize", {listCertificates}));
        EXPECT_EQ(size, 5U);
    }
}

// The length is the record's word, right or wrong; only the bytes behind it would be dangerous.
TEST_F(ObjectSizeTest, OddLengthsInARecordAreHarmless) {
    for (const std::int32_t length : {INT32_MIN, -1, 0, 5000, INT32_MAX}) {
        world.keyPairs["SN1"][0].publicKeyLength = length;
        world.certificates["SN1"][0].derLength = length;
        for (const CK_OBJECT_HANDLE handle : Numbers{privateKey(5), publicKey(5), certificate(5)}) {
            CK_ULONG size = 77;
            EXPECT_EQ(api->C_GetObjectSize(session, handle, &size), CKR_OK) << length;
            EXPECT_NE(size, 77U) << length;
        }
    }
}

TEST_F(ObjectSizeTest, EverySessionStateMayAsk) {
    for (const CK_STATE state : everyState) {
        session = reopen(session, state);
        CK_ULONG size = 0;
        EXPECT_EQ(api->C_GetObjectSize(session, privateKey(5), &size), CKR_OK);
        EXPECT_EQ(size, 512U);
    }
}

}  // namespace

// C_GenerateRandom.

#include <climits>

#include "object_test.h"

using namespace support;

namespace {

class RandomTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        session = openSession();  // no login is needed
    }
    Outcome generate(CK_BYTE_PTR target, CK_ULONG count) {
        return observe([&] { return api->C_GenerateRandom(session, target, count); });
    }
    static std::string generateCall(CK_ULONG count, const std::string& token = "SN1") {
        return text("zentak_generateRamdomNumber(\"", token, "\", ", count, ", out, true, null)");
    }

    CK_SESSION_HANDLE session = 0;
};

TEST_F(RandomTest, TheLibraryFillsTheCallersBuffer) {
    Room room(300);
    EXPECT_EQ(generate(static_cast<CK_BYTE_PTR>(room.address()), 258),
              succeeded("C_GenerateRandom", {generateCall(258)}));
    EXPECT_EQ(room.first(258), (countingBytes(0, 256) + Bytes{0, 1}));
    EXPECT_TRUE(room.untouchedFrom(258));
}

TEST_F(RandomTest, OneByteIsEnough) {
    world.random = {0x9A};
    Room room(2);
    EXPECT_EQ(generate(static_cast<CK_BYTE_PTR>(room.address()), 1).device, (Lines{generateCall(1)}));
    EXPECT_EQ(room.first(1), Bytes{0x9A});
    EXPECT_TRUE(room.untouchedFrom(1));
}

TEST_F(RandomTest, TheTokenOfTheSessionIsAsked) {
    session = openSession(CKF_RW_SESSION, fipsSlot);
    Room room(4);
    EXPECT_EQ(generate(static_cast<CK_BYTE_PTR>(room.address()), 4).device, (Lines{generateCall(4, "SN2")}));
}

TEST_F(RandomTest, ChecksInTheirOrder) {
    unsigned char byte = 0x5A;
    const CK_SESSION_HANDLE good = session;
    session = 7;
    EXPECT_EQ(generate(nullptr, 0), refused(CKR_SESSION_HANDLE_INVALID, "C_GenerateRandom: invalid hSession=7"));
    session = good;
    EXPECT_EQ(generate(nullptr, 0), refused(CKR_ARGUMENTS_BAD, "C_GenerateRandom: RandomData is NULL"));
    EXPECT_EQ(generate(nullptr, 8), refused(CKR_ARGUMENTS_BAD, "C_GenerateRandom: RandomData is NULL"));
    EXPECT_EQ(generate(&byte, 0), refused(CKR_ARGUMENTS_BAD, "C_GenerateRandom: ulRandomLen<=0, ulRandomLen=0"));
    EXPECT_EQ(byte, 0x5A);
    api->C_Finalize(nullptr);
    session = 7;
    EXPECT_EQ(generate(nullptr, 0), refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_GenerateRandom: not initialized"));
}

TEST_F(RandomTest, AFailureNamesTheResult) {
    for (const int result : {1, 40, 242, -3}) {
        world.results["zentak_generateRamdomNumber"] = result;
        unsigned char byte = 0x5A;
        Outcome expected =
            refused(CKR_FUNCTION_FAILED, text("C_GenerateRandom: generate random number failed ret=", result));
        expected.device = {generateCall(1)};
        EXPECT_EQ(generate(&byte, 1), expected);
        EXPECT_EQ(byte, 0x5A);
    }
}

/// The count of each recorded call; the calls are compared as wholes on the way.
std::vector<unsigned long long> countsOf(const Lines& calls) {
    const std::string prefix = "zentak_generateRamdomNumber(\"SN1\", ";
    std::vector<unsigned long long> counts;
    for (const std::string& call : calls) {
        EXPECT_EQ(call.substr(0, prefix.size()), prefix);
        const std::string number = call.substr(prefix.size(), call.find(',', prefix.size()) - prefix.size());
        EXPECT_EQ(call, prefix + number + ", out, true, null)");
        if (number.empty() || number.front() == '-') {
            ADD_FAILURE() << call;
            continue;
        }
        counts.push_back(std::stoull(number));
    }
    return counts;
}

// The library's length is an int. It writes nothing here, so the buffer needn't have the size it is said to have.
TEST_F(RandomTest, MoreThanAnIntHoldsIsAskedForInPieces) {
    world.random = {};
    unsigned char byte = 0;
    for (const CK_ULONG count : Numbers{0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}) {
        const Outcome outcome = generate(&byte, count);
        EXPECT_EQ(outcome.code, CKR_OK);
        EXPECT_EQ(outcome.log, (Lines{"DEBUG C_GenerateRandom"}));
        unsigned long long sum = 0;
        for (const unsigned long long piece : countsOf(outcome.device)) {
            EXPECT_GT(piece, 0U);
            EXPECT_LE(piece, static_cast<unsigned long long>(INT_MAX));
            sum += piece;
        }
        EXPECT_EQ(sum, count);
    }
}

TEST_F(RandomTest, AFailingPieceIsTheLast) {
    world.random = {};
    unsigned char byte = 0;
    world.addFault({.operation = "zentak_generateRamdomNumber", .nth = 2, .result = 5});
    const Outcome outcome = generate(&byte, 0xFFFFFFFF);
    EXPECT_EQ(outcome.code, CKR_FUNCTION_FAILED);
    EXPECT_EQ(outcome.log,
              (Lines{"DEBUG C_GenerateRandom", "ERROR C_GenerateRandom: generate random number failed ret=5"}));
    EXPECT_EQ(outcome.device.size(), 2U);
}

}  // namespace

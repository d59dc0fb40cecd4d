// Hashing through contexts.

#include <climits>
#include <cstring>

#include "token_test.h"

namespace softtoken {

namespace {

class HashTest : public TokenTest {
protected:
    void* open(int code) {
        void* context = nullptr;
        EXPECT_EQ(zentak_initHash(device(), code, &context, instance_), 0);
        EXPECT_NE(context, nullptr);
        return context;
    }
    int update(void* context, std::string_view text) {
        return zentak_updateHash(context, viewOf(text).data(), static_cast<int>(text.size()), instance_);
    }
    /// The digest in hexadecimal, "error" and the number when there is none.
    std::string finish(void* context, int capacity = 128) {
        unsigned char digest[128];
        int length = capacity;
        const int result = zentak_finalHash(context, digest, &length, instance_);
        if (result != 0) return "error " + std::to_string(result);
        return hexText({digest, static_cast<std::size_t>(length)});
    }
    std::string hash(int code, std::string_view text) {
        void* const context = open(code);
        EXPECT_EQ(update(context, text), 0);
        return finish(context);
    }
    const std::string unknownContext = "error " + std::to_string(number(Error::unknownContext));
};

// The digests of "abc" as published with the algorithms.
TEST_F(HashTest, CodesStandForTheirAlgorithms) {
    EXPECT_EQ(hash(1, "abc"), "A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_EQ(hash(2, "abc"), "A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_EQ(hash(3, "abc"), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    EXPECT_EQ(hash(4, "abc"),
              "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED8086072BA1E7CC2358BAECA134C825A7");
    EXPECT_EQ(hash(5, "abc"),
              "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A"
              "2192992A274FC1A836BA3C23A3FEEBBD454D4423643CE80E2A9AC94FA54CA49F");
    EXPECT_EQ(hash(6, "abc"), "23097D223405D8228642A477BDA255B32AADBCE4BDA0B3F7E36C9DA7");
}

TEST_F(HashTest, PartsAndNoPartsAtAll) {
    void* const context = open(3);
    EXPECT_EQ(update(context, "a"), 0);
    EXPECT_EQ(update(context, ""), 0);
    EXPECT_EQ(zentak_updateHash(context, nullptr, 0, instance_), 0);
    EXPECT_EQ(update(context, "bc"), 0);
    EXPECT_EQ(finish(context), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    EXPECT_EQ(finish(open(2)), "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
}

TEST_F(HashTest, DigestIsCutToTheArea) {
    void* context = open(4);
    EXPECT_EQ(update(context, "abc"), 0);
    EXPECT_EQ(finish(context, 32), "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED");
    context = open(4);
    int none = 0;
    EXPECT_EQ(zentak_finalHash(context, nullptr, &none, instance_), 0);
    EXPECT_EQ(none, 0);
}

TEST_F(HashTest, NothingBehindTheAreaIsWritten) {
    void* const context = open(5);
    unsigned char digest[64];
    std::memset(digest, 0xEE, sizeof digest);
    int length = 20;
    EXPECT_EQ(zentak_finalHash(context, digest, &length, instance_), 0);
    EXPECT_EQ(length, 20);
    for (int i = 20; i < 64; ++i) EXPECT_EQ(digest[i], 0xEE);
}

TEST_F(HashTest, FinishedContextIsRefusedForGood) {
    void* const context = open(3);
    EXPECT_EQ(finish(context).substr(0, 8), "E3B0C442");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(update(context, "abc"), number(Error::unknownContext));
        EXPECT_EQ(finish(context), unknownContext);
    }
    EXPECT_NE(open(3), context);
}

TEST_F(HashTest, NullAndInventedContextsAreRefused) {
    EXPECT_EQ(update(nullptr, "abc"), number(Error::unknownContext));
    EXPECT_EQ(finish(nullptr), unknownContext);
    int local = 0;
    EXPECT_EQ(update(&local, "abc"), number(Error::unknownContext));
    EXPECT_EQ(finish(&local), unknownContext);
}

TEST_F(HashTest, UnknownCodesAreRefused) {
    for (const int code : {0, 7, -1, INT_MAX, INT_MIN}) {
        int local = 0;
        void* context = &local;
        EXPECT_EQ(zentak_initHash(device(), code, &context, instance_), number(Error::unknownHash));
        EXPECT_EQ(context, nullptr);
    }
}

TEST_F(HashTest, MissingTokenIsADeviceThatDoesNotAnswer) {
    void* context = nullptr;
    EXPECT_EQ(zentak_initHash("00", 3, &context, instance_), 48);
    EXPECT_EQ(zentak_initHash("../plugged", 3, &context, instance_), 48);
    EXPECT_EQ(zentak_initHash(nullptr, 3, &context, instance_), 48);
}

TEST_F(HashTest, BadArgumentsLeaveTheContextAsItIs) {
    void* const context = open(3);
    const unsigned char byte = 'x';
    EXPECT_NE(zentak_updateHash(context, &byte, -1, instance_), 0);
    EXPECT_NE(zentak_updateHash(context, nullptr, 1, instance_), 0);
    EXPECT_NE(zentak_finalHash(context, nullptr, nullptr, instance_), 0);
    unsigned char digest[32];
    int length = -1;
    EXPECT_NE(zentak_finalHash(context, digest, &length, instance_), 0);
    length = 32;
    EXPECT_NE(zentak_finalHash(context, nullptr, &length, instance_), 0);
    EXPECT_NE(zentak_initHash(device(), 3, nullptr, instance_), 0);
    EXPECT_EQ(update(context, "abc"), 0);
    EXPECT_EQ(finish(context), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
}

TEST_F(HashTest, ContextBelongsToItsInstance) {
    void* const context = open(3);
    void* other = nullptr;
    zentak_createInstance(&other);
    EXPECT_EQ(zentak_updateHash(context, nullptr, 0, other), number(Error::unknownContext));
    zentak_releaseInstance(other);
    EXPECT_EQ(update(context, "abc"), 0);
}

TEST_F(HashTest, ForgottenContextsAreBounded) {
    constexpr std::size_t mostOpen = 16384;
    std::vector<void*> contexts;
    for (std::size_t i = 0; i < mostOpen; ++i) contexts.push_back(open(2));
    EXPECT_EQ(update(contexts[0], "ab"), 0);
    // Each further one takes the place of the oldest, and of no other.
    for (std::size_t i = 0; i < 3; ++i) {
        contexts.push_back(open(2));
        EXPECT_EQ(update(contexts[i], "c"), number(Error::unknownContext));
        for (std::size_t alive = i + 1; alive < contexts.size(); ++alive) {
            ASSERT_EQ(update(contexts[alive], ""), 0) << i << " " << alive;
        }
    }
    EXPECT_EQ(update(contexts[3], "abc"), 0);
    EXPECT_EQ(finish(contexts[3]), "A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_EQ(hash(2, "abc"), "A9993E364706816ABA3E25717850C26C9CD0D89D");
}

}  // namespace

}  // namespace softtoken

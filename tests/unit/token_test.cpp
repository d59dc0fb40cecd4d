/// A token's lengths and results. The device library's updating of a hash is this file's own, so that nothing reads two
/// gigabytes.

#include "device/token.h"

#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "scripted_library.h"

namespace {

/// Offset and length of each piece since the last reset, and what the n-th call answers.
std::vector<std::pair<std::ptrdiff_t, int>> pieces;
const unsigned char* start = nullptr;
std::size_t failingCall = 0;

}  // namespace

int zentak_updateHash(void* /*context*/, const unsigned char* data, int length, void* /*instance*/) {
    pieces.emplace_back(data - start, length);
    return pieces.size() == failingCall ? 9 : 0;
}

namespace {

using zentak::device::OutputArea;
using zentak::device::Result;

constexpr std::size_t longest = zentak::device::longestInput;

const std::string serialNumber = "SN1";
const std::string pin = "1234";
const zentak::device::Token token(nullptr, serialNumber, pin);

class HashFeedingTest : public ::testing::Test {
protected:
    HashFeedingTest() {
        pieces.clear();
        failingCall = 0;
        start = area_;
    }
    static int feed(std::size_t length) { return token.updateHash(nullptr, {start, length}).number(); }

    using Pieces = std::vector<std::pair<std::ptrdiff_t, int>>;

private:
    unsigned char area_[1] = {};
};

TEST_F(HashFeedingTest, IsOneCallForAnyLengthAnIntCanHold) {
    EXPECT_EQ(feed(0), 0);
    EXPECT_EQ(feed(1), 0);
    EXPECT_EQ(feed(longest), 0);
    EXPECT_EQ(pieces, (Pieces{{0, 0}, {0, 1}, {0, std::numeric_limits<int>::max()}}));
}

TEST_F(HashFeedingTest, GoesInPiecesBeyondThat) {
    EXPECT_EQ(feed(2 * longest + 5), 0);
    const int most = std::numeric_limits<int>::max();
    EXPECT_EQ(pieces, (Pieces{{0, most}, {most, most}, {2 * static_cast<std::ptrdiff_t>(longest), 5}}));
}

TEST_F(HashFeedingTest, StopsAtTheFirstFailure) {
    failingCall = 2;
    EXPECT_EQ(feed(2 * longest + 5), 9);
    EXPECT_EQ(pieces.size(), 2U);
}

TEST(HashFinishingTest, BeginsWithZerosWhateverTheDigestHeld) {
    scripted::Device& world = scripted::device();
    world.reset();
    world.digest = {7};
    world.reportedLength = 3;
    std::vector<unsigned char> digest(64, 0xAA);
    EXPECT_TRUE(token.finalHash(nullptr, 64, digest));
    EXPECT_EQ(digest, (std::vector<unsigned char>{7, 0, 0}));
    // A failure leaves nothing of its own behind.
    world.results["zentak_finalHash"] = 5;
    EXPECT_EQ(token.finalHash(nullptr, 64, digest).number(), 5);
    EXPECT_EQ(digest, (std::vector<unsigned char>{7, 0, 0}));
    world.reset();
}

std::vector<unsigned char> filled(int reportedLength) {
    OutputArea area(64);
    *area.length() = reportedLength;
    return area.takeFilled();
}

TEST(ReportedLengthTest, MustFitTheArea) {
    EXPECT_EQ(filled(64).size(), 64U);
    EXPECT_EQ(filled(20).size(), 20U);
    EXPECT_TRUE(filled(0).empty());
    EXPECT_THROW(filled(65), std::length_error);
    EXPECT_THROW(filled(-1), std::length_error);
}

TEST(ReportedLengthTest, IsNoMatterForTheWholeArea) {
    OutputArea area(20);
    *area.length() = -1;
    EXPECT_EQ(area.takeWhole(), std::vector<unsigned char>(20, 0));
}

TEST(InputLengthTest, BeyondWhatAnIntHoldsIsRefusedUnread) {
    const ZentakKeyPair keyPair = {};
    const unsigned char byte = 1;
    const zentak::ByteView tooLong(&byte, longest + 1);
    const zentak::ByteView fine(&byte, 1);
    std::vector<unsigned char> output = {7};
    EXPECT_TRUE(token.updateKeyPair(keyPair, "label", tooLong).isInputTooLong());
    EXPECT_TRUE(token.sign(keyPair, tooLong, false, output).isInputTooLong());
    EXPECT_TRUE(token.verify(keyPair, tooLong, fine, fine, false).isInputTooLong());
    EXPECT_TRUE(token.verify(keyPair, fine, tooLong, fine, false).isInputTooLong());
    EXPECT_TRUE(token.verify(keyPair, fine, fine, tooLong, false).isInputTooLong());
    EXPECT_TRUE(token.encrypt(keyPair, tooLong, PaddingMode::pkcs1, fine, output).isInputTooLong());
    EXPECT_TRUE(token.encrypt(keyPair, fine, PaddingMode::pkcs1, tooLong, output).isInputTooLong());
    EXPECT_TRUE(token.decrypt(keyPair, tooLong, output).isInputTooLong());
    EXPECT_TRUE(token.agreeSecret(keyPair, tooLong, output).isInputTooLong());
    EXPECT_EQ(output, std::vector<unsigned char>{7});
}

TEST(DeviceResultTest, TellsSuccessRefusalAndUnaskedApart) {
    EXPECT_TRUE(Result::of(0));
    EXPECT_FALSE(Result::of(5));
    EXPECT_EQ(Result::of(5).number(), 5);
    EXPECT_FALSE(Result::refusal(0));
    EXPECT_FALSE(Result::inputTooLong());
    EXPECT_TRUE(Result::inputTooLong().isInputTooLong());
    EXPECT_FALSE(Result::of(5).isInputTooLong());
    for (const int number : {40, 242}) {
        EXPECT_TRUE(Result::of(number).isDeviceFull()) << number;
    }
    EXPECT_FALSE(Result::of(41).isDeviceFull());
    EXPECT_TRUE(Result::of(48).isDeviceSilent());
    EXPECT_FALSE(Result::of(47).isDeviceSilent());
}

}  // namespace

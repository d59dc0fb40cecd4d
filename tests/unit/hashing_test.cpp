/// Feeding of a hash with more than an int can count. The device library's operation is this file's own, so that
/// nothing reads the two gigabytes.

#include "crypto/hashing.h"

#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
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

constexpr std::size_t longest = std::numeric_limits<int>::max();

class HashFeeding : public ::testing::Test {
protected:
    HashFeeding() {
        pieces.clear();
        failingCall = 0;
        start = area_;
    }
    int feed(std::size_t length) { return zentak::updateHash(nullptr, start, length, nullptr); }

    using Pieces = std::vector<std::pair<std::ptrdiff_t, int>>;

private:
    unsigned char area_[1] = {};
};

TEST_F(HashFeeding, IsOneCallForAnyLengthAnIntCanHold) {
    EXPECT_EQ(feed(0), 0);
    EXPECT_EQ(feed(1), 0);
    EXPECT_EQ(feed(longest), 0);
    EXPECT_EQ(pieces, (Pieces{{0, 0}, {0, 1}, {0, std::numeric_limits<int>::max()}}));
}

TEST_F(HashFeeding, GoesInPiecesBeyondThat) {
    EXPECT_EQ(feed(2 * longest + 5), 0);
    const int most = std::numeric_limits<int>::max();
    EXPECT_EQ(pieces, (Pieces{{0, most}, {most, most}, {2 * static_cast<std::ptrdiff_t>(longest), 5}}));
}

TEST_F(HashFeeding, StopsAtTheFirstFailure) {
    failingCall = 2;
    EXPECT_EQ(feed(2 * longest + 5), 9);
    EXPECT_EQ(pieces.size(), 2U);
}

TEST(HashFinishing, BeginsWithZerosWhateverTheDigestHeld) {
    scripted::Device& world = scripted::device();
    world.reset();
    world.digest = {7};
    world.reportedLength = 3;
    std::vector<unsigned char> digest(64, 0xAA);
    EXPECT_EQ(zentak::finalHash(nullptr, 64, digest, nullptr), 0);
    EXPECT_EQ(digest, (std::vector<unsigned char>{7, 0, 0}));
    // A failure leaves nothing of its own behind.
    world.results["zentak_finalHash"] = 5;
    EXPECT_EQ(zentak::finalHash(nullptr, 64, digest, nullptr), 5);
    EXPECT_EQ(digest, (std::vector<unsigned char>{7, 0, 0}));
    world.reset();
}

TEST(ReportedLength, MustFitTheArea) {
    std::vector<unsigned char> area(64, 0xAA);
    zentak::cutToReportedLength(area, 64);
    EXPECT_EQ(area.size(), 64U);
    zentak::cutToReportedLength(area, 20);
    EXPECT_EQ(area.size(), 20U);
    EXPECT_THROW(zentak::cutToReportedLength(area, 21), std::length_error);
    EXPECT_THROW(zentak::cutToReportedLength(area, -1), std::length_error);
    zentak::cutToReportedLength(area, 0);
    EXPECT_TRUE(area.empty());
}

}  // namespace

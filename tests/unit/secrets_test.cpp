/// Wiping of memory that held a secret.

#include "base/secrets.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

bool isZero(const unsigned char* memory, std::size_t length) {
    return std::all_of(memory, memory + length, [](unsigned char byte) { return byte == 0; });
}

template <typename Container>
bool roomIsZero(const Container& container) {
    return isZero(reinterpret_cast<const unsigned char*>(container.data()), container.capacity());
}

TEST(WipingTest, OverwritesThePartThatIsNamed) {
    unsigned char memory[] = {1, 2, 3, 4};
    zentak::wipe(memory + 1, 2);
    EXPECT_EQ(std::vector<unsigned char>(memory, memory + 4), (std::vector<unsigned char>{1, 0, 0, 4}));
}

TEST(WipingTest, ReachesWhatLongerTextsHaveLeft) {
    for (const std::size_t length : {4U, 15U, 16U, 63U}) {
        std::string text(length, 'p');
        text.resize(2);
        zentak::wipe(text);
        EXPECT_TRUE(text.empty());
        EXPECT_TRUE(roomIsZero(text)) << length;
    }
}

TEST(WipingTest, ReachesTheWholeRoomOfABuffer) {
    std::vector<unsigned char> bytes(40, 0xAA);
    bytes.reserve(100);
    bytes.resize(3);
    zentak::wipe(bytes);
    EXPECT_TRUE(bytes.empty());
    ASSERT_GE(bytes.capacity(), 100U);
    EXPECT_TRUE(roomIsZero(bytes));
    std::vector<unsigned char> nothing;
    zentak::wipe(nothing);
    EXPECT_TRUE(nothing.empty());
}

TEST(WipingTest, ComesWithTheEndOfAScope) {
    std::string text(63, 'p');
    try {
        const zentak::WipedAtEnd wipeText(text);
        throw 1;
    } catch (int) {
    }
    EXPECT_TRUE(text.empty());
    EXPECT_TRUE(roomIsZero(text));
}

}  // namespace

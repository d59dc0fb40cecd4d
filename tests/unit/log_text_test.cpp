#include "log/log_text.h"

#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>

namespace zentak {
namespace {

enum class Number : std::int32_t { minusTwo = -2 };

TEST(LogTextTest, JoinsTextsAndDecimalNumbers) {
    EXPECT_EQ(concatenate("flags=", 6U, " result=", -48), "flags=6 result=-48");
    EXPECT_EQ(concatenate(std::numeric_limits<std::uint32_t>::max()), "4294967295");
    EXPECT_EQ(concatenate(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
}

TEST(LogTextTest, ShowsAnEnumerationAsItsNumber) {
    EXPECT_EQ(concatenate("x=", Number::minusTwo), "x=-2");
}

TEST(LogTextTest, ShowsBytesAsTwoUpperCaseDigitsEach) {
    constexpr std::array<unsigned char, 5> bytes = {0x00, 0x09, 0xAB, 0xF0, 0xFF};
    EXPECT_EQ(concatenate("id ", Hexadecimal{bytes}, "."), "id 0009ABF0FF.");
    EXPECT_EQ(concatenate(Hexadecimal{}), "");
}

}  // namespace
}  // namespace zentak

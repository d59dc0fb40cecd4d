#include "module/slot_table.h"

#include <gtest/gtest.h>

namespace zentak {
namespace {

TokenInfo tokenWithModel(const std::string& model) {
    TokenInfo token;
    token.model = model;
    return token;
}

TEST(FipsRecognitionTest, ExemptsModelsWithAOneInThirdPlace) {
    for (const char* model : {"AB1X", "AB1", "111", "A11X"}) {
        EXPECT_FALSE(isFips140Token(tokenWithModel(model))) << model;
    }
    for (const char* model : {"AB3X", "1X3", "1A", "A1", "1", ""}) {
        EXPECT_TRUE(isFips140Token(tokenWithModel(model))) << model;
    }
}

TEST(SlotLookupTest, ResolvesByPositionInDeviceStringOrder) {
    std::map<std::string, TokenInfo> table;
    table["b"].label = "second";
    table["a"].label = "first";
    ASSERT_NE(findSlot(table, firstSlotId), nullptr);
    EXPECT_EQ(findSlot(table, firstSlotId)->label, "first");
    EXPECT_EQ(findSlot(table, firstSlotId + 1)->label, "second");
}

TEST(SlotLookupTest, FindsNothingOutsideTheTable) {
    std::map<std::string, TokenInfo> table;
    EXPECT_EQ(findSlot(table, firstSlotId), nullptr);
    table["a"];
    EXPECT_EQ(findSlot(table, firstSlotId - 1), nullptr);
    EXPECT_EQ(findSlot(table, firstSlotId + 1), nullptr);
    EXPECT_EQ(findSlot(table, 0), nullptr);
    EXPECT_EQ(findSlot(table, ~CK_SLOT_ID{0}), nullptr);
}

}  // namespace
}  // namespace zentak

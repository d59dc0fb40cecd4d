#include "device/record_views.h"

#include <cstring>
#include <gtest/gtest.h>
#include <limits>

namespace {

using zentak::trimmed;

TEST(TrimmingTest, RemovesTheSixWhiteSpaceCharactersAtBothEnds) {
    EXPECT_EQ(trimmed(" \t\n\r\f\vlabel \t\n\r\f\v"), "label");
    EXPECT_EQ(trimmed("a b"), "a b");
    EXPECT_EQ(trimmed("label"), "label");
}

TEST(TrimmingTest, LeavesNothingOfBlankText) {
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed(" \t\n\r\f\v"), "");
}

TEST(TrimmingTest, LeavesOtherCharactersAlone) {
    EXPECT_EQ(trimmed("\xC2\xA0x\x01"), "\xC2\xA0x\x01");  // a no-break space in UTF-8, and a control character
}

TEST(RecordsTest, ShowAsManyBytesAsTheirLengthSays) {
    ZentakKeyPair keyPair = {};
    keyPair.publicKeyLength = 256;
    keyPair.objectIdLength = 20;
    EXPECT_EQ(zentak::publicKeyOf(keyPair).data(), keyPair.publicKey);
    EXPECT_EQ(zentak::publicKeyOf(keyPair).size(), 256U);
    EXPECT_EQ(zentak::objectIdOf(keyPair).data(), keyPair.objectId);
    EXPECT_EQ(zentak::objectIdOf(keyPair).size(), 20U);
}

TEST(RecordsTest, AreNeverReadBeyondTheirFields) {
    ZentakCertificate certificate = {};
    for (const std::int32_t length : {-1, std::numeric_limits<std::int32_t>::min()}) {
        certificate.derLength = length;
        EXPECT_TRUE(zentak::derOf(certificate).empty()) << length;
    }
    certificate.derLength = 3072;
    EXPECT_EQ(zentak::derOf(certificate).size(), 3072U);
    for (const std::int32_t length : {3073, std::numeric_limits<std::int32_t>::max()}) {
        certificate.derLength = length;
        EXPECT_EQ(zentak::derOf(certificate).size(), 3072U) << length;
    }
    certificate.objectIdLength = 129;
    EXPECT_EQ(zentak::objectIdOf(certificate).size(), 128U);
}

TEST(RecordsTest, TextWithoutTerminatorEndsWithItsField) {
    ZentakKeyPair keyPair = {};
    std::memset(keyPair.alias, 'a', sizeof(keyPair.alias));
    EXPECT_EQ(zentak::storedLabel(keyPair).size(), sizeof(keyPair.alias));
    ZentakCertificate certificate = {};
    std::memset(certificate.label, 'b', sizeof(certificate.label));
    EXPECT_EQ(zentak::storedLabel(certificate).size(), sizeof(certificate.label));
}

TEST(RecordsTest, ComparingBytesLooksAtLengthAndContent) {
    constexpr unsigned char bytes[] = {1, 2, 3};
    const zentak::ByteView view(bytes);
    EXPECT_TRUE(zentak::sameBytes(view, view));
    EXPECT_TRUE(zentak::sameBytes({}, {}));
    EXPECT_FALSE(zentak::sameBytes(view, view.first(2)));
    EXPECT_FALSE(zentak::sameBytes(view.first(2), view.last(2)));
}

}  // namespace

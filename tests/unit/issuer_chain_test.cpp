#include "objects/issuer_chain.h"

#include <gtest/gtest.h>

#include "device/record_views.h"

namespace zentak {
namespace {

TEST(CommonNameTest, EndsAtACommaOrALineEnd) {
    EXPECT_EQ(commonNameIn("CN=Root,O=Org"), "Root");
    EXPECT_EQ(commonNameIn("O=Org,CN=Root"), "Root");
    EXPECT_EQ(commonNameIn("CN=Root CA\nO=Org"), "Root CA");
    EXPECT_EQ(commonNameIn("CN=Root CA\rO=Org"), "Root CA");
    EXPECT_EQ(commonNameIn("CN=A,CN=B"), "A");
    EXPECT_EQ(commonNameIn("XCN=A"), "A");
    EXPECT_EQ(commonNameIn("CN=CN=x"), "CN=x");
}

TEST(CommonNameTest, NeedsSomethingBehindItsKey) {
    EXPECT_EQ(commonNameIn("CN=,CN=B"), "B");
    EXPECT_EQ(commonNameIn("CN="), "CN=");
    EXPECT_EQ(commonNameIn("CN=,O=Org"), "CN=,O=Org");
}

TEST(CommonNameTest, IsTheWholeTextWithoutAKey) {
    EXPECT_EQ(commonNameIn(""), "");
    EXPECT_EQ(commonNameIn("Plain name"), "Plain name");
    EXPECT_EQ(commonNameIn("cn=Root"), "cn=Root");
}

TEST(CommonNameTest, IsFoundInTextsOfAnyLength) {
    const std::string name(1'000'000, 'x');
    EXPECT_EQ(commonNameIn("CN=" + name + ",O=Org"), name);
    EXPECT_EQ(commonNameIn(std::string(1'000'000, ',') + "CN=Root"), "Root");
}

TEST(CertificateRecordTest, CutsItsLabelAndFillsTheRestWithZeros) {
    const std::vector<unsigned char> der(3072, 0xDE);
    const ZentakCertificate record = certificateRecord(der, std::string(200, 'l'));
    EXPECT_EQ(record.derLength, 3072);
    EXPECT_TRUE(sameBytes(record.der, der));
    EXPECT_EQ(storedLabel(record), std::string(128, 'l'));
    EXPECT_EQ(record.objectIdLength, 0);
    EXPECT_EQ(record.id, 0U);
}

}  // namespace
}  // namespace zentak

// Our Cryptoki header against the published one that the distribution carries. A wrong constant or a field at a wrong
// place would go unnoticed by every test that includes our own header on both sides.

#include <gtest/gtest.h>
#include <set>

#include "cryptoki_tables.h"

namespace {

std::set<std::string> everyName() {
    return {
#define NAME(name) name,
#define CONSTANT(name, value)
#include "constants.inc"
#undef NAME
#undef CONSTANT
    };
}

/// What the published header lacks, with the values that the standard's text gives.
const Constants standardsOwn = {{"CKF_EC_F_2M", 0x00200000}, {"CKF_EC_ECPARAMETERS", 0x00400000}};

TEST(CryptokiHeaderTest, EveryConstantIsInTheTables) {
    const Constants ours = ourConstants();
    const Constants windowsForm = windowsFormConstants();
    for (const std::string& name : everyName()) {
        EXPECT_EQ(ours.count(name), 1U) << name;
        EXPECT_EQ(windowsForm.count(name), 1U) << name;
    }
    EXPECT_GT(ours.size(), 300U);
}

TEST(CryptokiHeaderTest, ConstantsAreThePublishedOnes) {
    const Constants theirs = theirConstants();
    std::set<std::string> lacking;
    for (const auto& [name, value] : ourConstants()) {
        if (name == "CRYPTOKI_VERSION_MINOR") {
            EXPECT_EQ(value, 20U);  // theirs is of a later version
        } else if (theirs.count(name) == 1) {
            EXPECT_EQ(value, theirs.at(name)) << name;
        } else {
            lacking.insert(name);
            ASSERT_EQ(standardsOwn.count(name), 1U) << name << " has nothing to be compared with";
            EXPECT_EQ(value, standardsOwn.at(name)) << name;
        }
    }
    EXPECT_EQ(lacking.size(), standardsOwn.size());
}

TEST(CryptokiHeaderTest, EveryStructureIsInTheTables) {
    const std::set<std::string> structures = {
#include "structures.inc"
    };
    std::set<std::string> compared;
    for (const auto& [name, value] : ourLayout()) {
        if (name.find('.') == std::string::npos) compared.insert(name);
    }
    EXPECT_EQ(structures, compared);
}

TEST(CryptokiHeaderTest, StructuresAreThePublishedOnes) {
    const Layout ours = ourLayout();
    const Layout theirs = theirLayout();
    EXPECT_EQ(ours, theirs);
    EXPECT_EQ(ours.at("CK_FUNCTION_LIST"), 69 * sizeof(void*));
}

/// Numbers are the same in both forms, but for the one that is as wide as CK_ULONG.
TEST(CryptokiHeaderTest, ConstantsAreTheSameInTheWindowsForm) {
    Constants expected = ourConstants();
    expected["CK_UNAVAILABLE_INFORMATION"] = 0xFFFFFFFF;
    EXPECT_EQ(windowsFormConstants(), expected);
}

/// Packed to one byte, with numbers of 4 bytes and pointers of 8.
TEST(CryptokiHeaderTest, StructuresOfTheWindowsForm) {
    const Layout sizes = {{"CK_VERSION", 2},
                          {"CK_INFO", 2 + 32 + 4 + 32 + 2},
                          {"CK_SLOT_INFO", 64 + 32 + 4 + 2 + 2},
                          {"CK_TOKEN_INFO", 32 + 32 + 16 + 16 + 4 + 10 * 4 + 2 + 2 + 16},
                          {"CK_SESSION_INFO", 4 * 4},
                          {"CK_ATTRIBUTE", 4 + 8 + 4},
                          {"CK_DATE", 8},
                          {"CK_MECHANISM", 4 + 8 + 4},
                          {"CK_MECHANISM_INFO", 3 * 4},
                          {"CK_RSA_PKCS_OAEP_PARAMS", 3 * 4 + 8 + 4},
                          {"CK_RSA_PKCS_PSS_PARAMS", 3 * 4},
                          {"CK_ECDH1_DERIVE_PARAMS", 4 + 4 + 8 + 4 + 8},
                          {"CK_C_INITIALIZE_ARGS", 4 * 8 + 4 + 8},
                          {"CK_FUNCTION_LIST", 2 + 68 * 8}};
    Layout found;
    for (const auto& [name, value] : windowsFormLayout()) {
        if (name.find('.') == std::string::npos) found[name] = value;
    }
    EXPECT_EQ(found, sizes);
}

/// The fields keep their order, and each begins where the one before ends.
TEST(CryptokiHeaderTest, FieldsOfTheWindowsFormLeaveNoGaps) {
    const Layout ours = ourLayout();
    const Layout packed = windowsFormLayout();
    for (const auto& [field, offset] : ours) {
        if (field.find('.') == std::string::npos || field.back() == '#') continue;
        const std::string structure = field.substr(0, field.find('.'));
        std::size_t before = 0;
        for (const auto& [other, otherOffset] : ours) {
            if (other.rfind(structure + ".", 0) == 0 && other.back() != '#' && otherOffset < offset) {
                before += packed.at(other + "#");
            }
        }
        EXPECT_EQ(packed.at(field), before) << field;
    }
}

}  // namespace

/// The world in which slots are tested: nothing is plugged in until the test says so.

#ifndef ZENTAK_TESTS_BEHAVIOUR_SLOTS_TEST_H
#define ZENTAK_TESTS_BEHAVIOUR_SLOTS_TEST_H

#include <cstring>

#include "module_test.h"

namespace support {

class SlotsTest : public ModuleTest {
protected:
    void plugInTokens() override {}

    /// Makes the named devices the connected ones; each has a token of that serial number.
    static void connect(const std::vector<std::string>& names) {
        device().connectedDevices.clear();
        for (const std::string& name : names) plugIn(makeTokenInfo(name));
    }

    static std::string labelIn(CK_SLOT_ID slot) {
        CK_SLOT_INFO info = {};
        EXPECT_EQ(functions().C_GetSlotInfo(slot, &info), CKR_OK);
        clear();
        return reinterpret_cast<const char*>(info.slotDescription);
    }

    static CK_RV resultFor(CK_SLOT_ID slot) {
        CK_SLOT_INFO info = {};
        const CK_RV result = functions().C_GetSlotInfo(slot, &info);
        clear();
        return result;
    }
};

}  // namespace support

#endif

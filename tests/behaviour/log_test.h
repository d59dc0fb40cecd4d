/// The world in which the log is tested: temporary folders and levels as the test wants them.

#ifndef ZENTAK_TESTS_BEHAVIOUR_LOG_TEST_H
#define ZENTAK_TESTS_BEHAVIOUR_LOG_TEST_H

#include <filesystem>

#include "module_test.h"
#include "run_folder.h"
#include "standard_output.h"

namespace support {

class LogTest : public ModuleTest {
protected:
    void TearDown() override {
        setTemporaryFolder(runFolder() / "temporary");
        ModuleTest::TearDown();
    }

    /// One DEBUG and one ERROR line when the level lets them through.
    static Lines linesOfARefusal() {
        clear();
        EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
        return log();
    }

    /// A temporary folder with nothing in it.
    static void useEmptyTemporaryFolder() {
        const std::filesystem::path folder = runFolder() / "empty";
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
        setTemporaryFolder(folder);
    }

    /// What a call that writes one ERROR line prints on standard output.
    static std::string outputOfAnErrorLine() {
        setLogLevel(errorLevel);
        const StandardOutput output;
        EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
        return output.text();
    }
};

const Lines noLines = {};
const Lines onlyError = {"ERROR C_GetInfo: pInfo is NULL"};
const Lines both = {"DEBUG C_GetInfo", "ERROR C_GetInfo: pInfo is NULL"};

}  // namespace support

#endif

#include <gtest/gtest.h>

#include "log_level.h"
#include "run_folder.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const support::RunFolder folder;
    const int result = RUN_ALL_TESTS();
    support::removeLogLevel();  // on Windows it is the machine's own
    return result;
}

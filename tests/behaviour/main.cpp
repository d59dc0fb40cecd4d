#include <gtest/gtest.h>

#include "run_folder.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const support::RunFolder folder;
    return RUN_ALL_TESTS();
}

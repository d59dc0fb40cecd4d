#include "run_tests.h"

#include <gtest/gtest.h>

#include "run_folder.h"
#include "time_limit.h"

namespace support {

int runTests(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const RunFolder folder;
    limitEachTest();
    return RUN_ALL_TESTS();
}

}  // namespace support

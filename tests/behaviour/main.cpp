#include "log_level.h"
#include "run_tests.h"

int main(int argc, char** argv) {
    const int result = support::runTests(argc, argv);
    support::removeLogLevel();  // on Windows it is the machine's own
    return result;
}

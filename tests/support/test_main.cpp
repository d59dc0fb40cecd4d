#include "run_tests.h"

int main(int argc, char** argv) {
    return support::runTests(argc, argv);
}

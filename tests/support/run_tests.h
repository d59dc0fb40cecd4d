/// What a test program does: it runs the tests in a folder of its own, and ends when one of them hangs.

#ifndef ZENTAK_TESTS_SUPPORT_RUN_TESTS_H
#define ZENTAK_TESTS_SUPPORT_RUN_TESTS_H

namespace support {

/// For `main`; answers its result.
int runTests(int argc, char** argv);

}  // namespace support

#endif

// What the module exports, seen from inside a process: the function list points at the exported functions.
// check_exports.cmake looks at the file itself.

#include <set>

#include "child_process.h"
#include "every_function.h"
#include "module_test.h"
#include "run_folder.h"

namespace {

using namespace support;
using behaviour::AnyFunction;
using behaviour::everyFunction;

TEST(ExportsTest, TheListPointsAtTheExportedFunctions) {
    std::set<void*> different;
    for (const AnyFunction& function : everyFunction()) {
        EXPECT_EQ(moduleSymbol(function.name), function.listed) << function.name;
        different.insert(function.listed);
    }
    EXPECT_EQ(everyFunction().size(), 68U);
    EXPECT_EQ(different.size(), 68U);
}

/// Hosts read the list by offset: the version, then the pointers, in the order of the standard.
TEST(ExportsTest, TheListHasTheStandardLayout) {
    const auto* const begin = reinterpret_cast<const unsigned char*>(&functions());
    std::size_t offset = sizeof(CK_FUNCTION_LIST) - 68 * sizeof(void*);
#if defined(ZENTAK_WINDOWS_CRYPTOKI)
    EXPECT_EQ(offset, 2U);
#else
    EXPECT_EQ(offset, sizeof(void*));
#endif
    for (const AnyFunction& function : everyFunction()) {
        void* pointer = nullptr;
        std::memcpy(&pointer, begin + offset, sizeof pointer);
        EXPECT_EQ(pointer, function.listed) << function.name;
        offset += sizeof pointer;
    }
}

#if !defined(_WIN32)
TEST(ExportsTest, AHostWithFunctionsOfTheSameNamesChangesNothing) {
#if defined(ZENTAK_WINDOWS_CRYPTOKI)
    const ChildResult result = runChild(programFile().parent_path() / "interposing_host_windows_form", {});
#else
    const ChildResult result = runChild(programFile().parent_path() / "interposing_host", {});
#endif
    EXPECT_EQ(result.output, "");  // what lies outside the module
    EXPECT_EQ(result.exitCode, 0);
}
#endif

}  // namespace

/// What the log says of an operation that has thrown although its result doesn't matter.

#ifndef ZENTAK_TESTS_BEHAVIOUR_IGNORED_FAILURE_H
#define ZENTAK_TESTS_BEHAVIOUR_IGNORED_FAILURE_H

#include <string>

#include "scripted_library.h"

namespace support {

/// The one line that the call leaves, after which it goes on.
inline std::string ignoredLine(const std::string& function, const std::string& operation, scripted::Throw thrown) {
    const std::string line = "ERROR " + function + ": " + operation + ": ";
    switch (thrown) {
        case scripted::Throw::badAlloc:
            return line + "out of memory";
        case scripted::Throw::exception:
            return line + "unexpected exception: thrown by the scripted library";
        default:
            return line + "unexpected exception";
    }
}

}  // namespace support

#endif

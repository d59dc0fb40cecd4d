/// Stands between the store and the operating system, and writes down what is asked of the disk and in which order. It
/// takes the place of the system's routines in the whole program.

#ifndef ZENTAK_TESTS_SOFTTOKEN_FLUSH_RECORDER_H
#define ZENTAK_TESTS_SOFTTOKEN_FLUSH_RECORDER_H

#include <filesystem>
#include <string>
#include <vector>

namespace softtoken {

/// From here on what happens to files below the folder is recorded, with paths relative to it.
void recordStepsBelow(const std::filesystem::path& folder);

/// The steps since the last call: "write FILE", "flush FILE", "rename FROM TO"; on Windows also "rename FROM TO
/// through" for one that is flushed by itself. Several writes to a file without anything else in between are one step.
std::vector<std::string> takeSteps();

#ifndef _WIN32
/// Flushing this file or folder fails; an empty path ends that.
void failFlushOf(const std::string& path);
#endif

/// For the two recorders: notes a step at files, of which those elsewhere don't count.
void noteStep(const std::string& what, const std::vector<std::filesystem::path>& files, const std::string& end = "");

}  // namespace softtoken

#endif

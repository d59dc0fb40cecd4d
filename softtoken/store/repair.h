/// Looking a token over without its PIN, and mending what can be mended: lost PIN counters, and a file that lost its
/// name when the power failed.

#ifndef ZENTAK_SOFTTOKEN_STORE_REPAIR_H
#define ZENTAK_SOFTTOKEN_STORE_REPAIR_H

#include <string>
#include <string_view>
#include <vector>

#include "store/store.h"

namespace softtoken {

/// What is wrong with a token, plugged in or not, each as a text of one line; empty when all is in order. Nothing is
/// changed. Private keys stay closed, so that one of them was damaged with a right checksum isn't seen. Throws
/// Error::deviceNotPresent.
std::vector<std::string> faultsOf(const Store& store, std::string_view serialNumber);

/// Mends a token and answers what was done, one line each; empty when there was nothing to do. PIN counters that are
/// lost, damaged or beyond their limit are made anew with one attempt for each PIN. A file `token` that is missing
/// comes back from a whole `token.new`. Throws, and leaves as it is, what can't be mended.
std::vector<std::string> repairToken(const Store& store, std::string_view serialNumber);

}  // namespace softtoken

#endif

/// Finding certificate files in a folder.

#ifndef ZENTAK_SOFTTOKEN_KEYS_FOLDER_SCAN_H
#define ZENTAK_SOFTTOKEN_KEYS_FOLDER_SCAN_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/bytes.h"

namespace softtoken {

/// Name and DER of each certificate in the folder's files with one of the extensions (letter case doesn't matter), in
/// the order of the names; a PEM file with several certificates occurs several times. Files that can't be read, and
/// those beyond 1 MB, are left out. A folder that isn't there holds nothing.
std::vector<std::pair<std::string, Bytes>> scanFolder(std::string_view folder,
                                                      const std::vector<std::string>& extensions);

}  // namespace softtoken

#endif

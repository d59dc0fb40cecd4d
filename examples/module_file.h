/// Loading a PKCS #11 module from a file, the one thing a host does differently on each system.

#ifndef ZENTAK_EXAMPLES_MODULE_FILE_H
#define ZENTAK_EXAMPLES_MODULE_FILE_H

#include <string>

#include "module/cryptoki.h"

/// Loads the module file at `path` and asks it for its functions. The module stays loaded until the process ends.
/// Throws std::runtime_error with the system's reason if the file can't be loaded or is no PKCS #11 module.
CK_FUNCTION_LIST_PTR loadModule(const std::string& path);

#endif

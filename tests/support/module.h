/// The module under test, loaded by path as a host loads it.
///
///     EXPECT_EQ(functions().C_GetInfo(&info), CKR_OK);

#ifndef ZENTAK_TESTS_SUPPORT_MODULE_H
#define ZENTAK_TESTS_SUPPORT_MODULE_H

#include <filesystem>
#include <string>

#include "module/cryptoki.h"

namespace support {

/// The function list of the module, which is loaded by the first call and stays loaded. Throws when it can't be.
const CK_FUNCTION_LIST& functions();

/// An exported symbol of the module; null when there is none.
void* moduleSymbol(const std::string& name);

/// The symbol under which a vendor extension is exported, from its name and its parameters in the Itanium C++ ABI with
/// CK_ULONG as `m`: ("C_EjectToken", "m").
std::string vendorSymbol(const std::string& name, std::string parameters);

/// The module's file.
std::filesystem::path moduleFile();

/// Loads the module, or a copy of it, and counts as one more user of it; `unloadModule` takes that back. For programs
/// that test the loading itself.
void* loadModule(const std::filesystem::path& file = moduleFile());
void unloadModule(void* handle);
const CK_FUNCTION_LIST& functionsOf(void* handle);

}  // namespace support

#endif

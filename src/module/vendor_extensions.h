/// Functions beside the standard's. They have C++ linkage, so their exported names carry their parameter types, and the
/// function list doesn't hold them.

#ifndef ZENTAK_MODULE_VENDOR_EXTENSIONS_H
#define ZENTAK_MODULE_VENDOR_EXTENSIONS_H

#include "module/cryptoki.h"

#define CRYPTOKI_FUNCTION(name, parameters)
#define VENDOR_EXTENSION(name, parameters, mangled) CK_RV name parameters;
#include "module/function_table.inc"
#undef VENDOR_EXTENSION
#undef CRYPTOKI_FUNCTION

#endif

/// Functions beside the standard's. They have C++ linkage, so their exported names carry their parameter types, and the
/// function list doesn't hold them.

#ifndef ZENTAK_FRAME_VENDOR_EXTENSIONS_H
#define ZENTAK_FRAME_VENDOR_EXTENSIONS_H

#include "frame/cryptoki.h"

#define CRYPTOKI_FUNCTION(name, parameters)
#define VENDOR_EXTENSION(name, parameters, mangled) CK_RV name parameters;
#include "frame/function_table.inc"
#undef VENDOR_EXTENSION
#undef CRYPTOKI_FUNCTION

#endif

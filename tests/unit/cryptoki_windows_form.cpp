#define ZENTAK_WINDOWS_CRYPTOKI
#include "cryptoki_tables.h"
#include "module/cryptoki.h"

#define CONSTANTS windowsFormConstants
#define LAYOUT windowsFormLayout
#include "make_tables.inc"

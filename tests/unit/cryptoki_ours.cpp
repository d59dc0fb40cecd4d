#include "cryptoki_tables.h"
#include "module/cryptoki.h"

#define CONSTANTS ourConstants
#define LAYOUT ourLayout
#include "make_tables.inc"

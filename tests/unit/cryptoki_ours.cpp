#include "cryptoki_tables.h"
#include "frame/cryptoki.h"

#define CONSTANTS ourConstants
#define LAYOUT ourLayout
#include "make_tables.inc"

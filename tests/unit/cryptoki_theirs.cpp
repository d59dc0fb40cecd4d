#define CRYPTOKI_COMPAT 1
#include <p11-kit/pkcs11.h>

#include "cryptoki_tables.h"

#define CONSTANTS theirConstants
#define LAYOUT theirLayout
#include "make_tables.inc"

// Logs one line and ends. A test copies this program to names with full stops in them and looks for the log folder.

#include "module.h"

int main() {
    CK_INFO info;
    return support::functions().C_GetInfo(&info) == CKR_CRYPTOKI_NOT_INITIALIZED ? 0 : 1;
}

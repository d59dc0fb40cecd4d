/// C_GetFunctionList and the list that it hands out.

#include "module/entry_frame.h"

using namespace zentak;

namespace {

const CK_FUNCTION_LIST functionList = {
    {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR},
#define CRYPTOKI_FUNCTION(name, parameters) name,
#include "module/function_table.inc"
#undef CRYPTOKI_FUNCTION
};

}  // namespace

CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList) {
    logDebug("C_GetFunctionList");
    if (ppFunctionList == nullptr) {
        return refuse(CKR_ARGUMENTS_BAD, "C_GetFunctionList: ppFunctionList is NULL");
    }
    // The standard's type isn't const, but the list is nobody's to change.
    *ppFunctionList = const_cast<CK_FUNCTION_LIST_PTR>(&functionList);
    return CKR_OK;
}

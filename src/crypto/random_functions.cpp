/// C_GenerateRandom.

#include "module/entry_frame.h"

using namespace zentak;

CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR RandomData, CK_ULONG ulRandomLen) {
    return sessionEntryPoint(
        "C_GenerateRandom", hSession, [&](const ModuleState& state, const SessionRecord& session) -> CK_RV {
            if (RandomData == nullptr) {
                return refuse(CKR_ARGUMENTS_BAD, "C_GenerateRandom: RandomData is NULL");
            }
            if (ulRandomLen == 0) {
                return refuse(CKR_ARGUMENTS_BAD, "C_GenerateRandom: ulRandomLen<=0, ulRandomLen=", ulRandomLen);
            }
            const device::Result filled = tokenOf(state, session).fillRandom({RandomData, ulRandomLen});
            if (!filled) {
                return refuse(CKR_FUNCTION_FAILED,
                              "C_GenerateRandom: generate random number failed ret=", filled.number());
            }
            return CKR_OK;
        });
}

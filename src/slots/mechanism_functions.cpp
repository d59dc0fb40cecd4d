/// C_GetMechanismList and C_GetMechanismInfo.

#include <algorithm>
#include <vector>

#include "module/entry_frame.h"
#include "module/mechanisms.h"
#include "module/slot_table.h"

using namespace zentak;

namespace {

/// A slot ID that names no token is treated like a token without the FIPS policy.
bool isFipsSlot(const ModuleState& state, CK_SLOT_ID slotID) {
    const TokenInfo* token = findSlot(state.slotTable, slotID);
    return token != nullptr && isFips140Token(*token);
}

}  // namespace

CK_RV C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList, CK_ULONG_PTR pulCount) {
    return entryPoint("C_GetMechanismList", [&](ModuleState& state) -> CK_RV {
        if (pulCount == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GetMechanismList: pulCount is NULL");
        }
        const bool fips = isFipsSlot(state, slotID);
        std::vector<CK_MECHANISM_TYPE> offered;
        for (const Mechanism& mechanism : allMechanisms()) {
            if (!fips || !mechanism.refusedOnFips) {
                offered.push_back(mechanism.type);
            }
        }
        const auto count = static_cast<CK_ULONG>(offered.size());
        const CK_ULONG capacity = *pulCount;
        *pulCount = count;
        if (pMechanismList == nullptr) {
            return CKR_OK;
        }
        if (capacity < count) {
            return refuse(CKR_BUFFER_TOO_SMALL, "C_GetMechanismList: buffer too small, *pulCount=", capacity,
                          " mechanismCount=", count);
        }
        std::copy(offered.begin(), offered.end(), pMechanismList);
        return CKR_OK;
    });
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo) {
    return entryPoint("C_GetMechanismInfo", [&](ModuleState& state) -> CK_RV {
        if (pInfo == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GetMechanismInfo: pInfo is NULL");
        }
        logDebug("C_GetMechanismInfo -- type : ", type);
        const Mechanism* mechanism = findMechanism(type);
        if (mechanism == nullptr) {
            return refuse(CKR_MECHANISM_INVALID, "C_GetMechanismInfo: unsupported mechanism type=", type);
        }
        pInfo->ulMinKeySize = mechanism->minimumBits;
        pInfo->ulMaxKeySize = mechanism->maximumBits;
        pInfo->flags = mechanism->use;
        if (mechanism->refusedOnFips && isFipsSlot(state, slotID)) {
            // Without a line in the log: applications ask for each mechanism they know.
            return CKR_MECHANISM_INVALID;
        }
        pInfo->flags |= CKF_HW;
        logDebug("C_GetMechanismInfo -- exit");
        return CKR_OK;
    });
}

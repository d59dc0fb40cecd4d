/// C_GetMechanismList and C_GetMechanismInfo: what hosts are told of the mechanisms. What an operation really accepts
/// is decided where the operation is.

#include <algorithm>
#include <array>
#include <vector>

#include "module/entry_frame.h"
#include "module/mechanism_table.h"
#include "module/slot_table.h"

using namespace zentak;

namespace {

struct MechanismEntry {
    CK_MECHANISM_TYPE type;
    CK_ULONG minimumBits;
    CK_ULONG maximumBits;
    CK_FLAGS use;  ///< without CKF_HW, which all of them have
    bool withheldOnFips;
};

constexpr CK_FLAGS signature = CKF_SIGN | CKF_VERIFY;

/// In the order in which hosts get them. The FIPS column is uneven on purpose.
constexpr std::array<MechanismEntry, 27> mechanisms = {{
    {CKM_RSA_PKCS_KEY_PAIR_GEN, 2048, 4096, CKF_GENERATE_KEY_PAIR, false},
    {CKM_RSA_PKCS, 2048, 4096, signature, false},
    {CKM_RSA_PKCS_OAEP, 2048, 4096, CKF_ENCRYPT | CKF_DECRYPT, false},
    {CKM_RSA_PKCS_PSS, 2048, 4096, signature, false},
    {CKM_SHA1_RSA_PKCS, 2048, 4096, signature, true},
    {CKM_SHA224_RSA_PKCS, 2048, 4096, signature, false},
    {CKM_SHA256_RSA_PKCS, 2048, 4096, signature, false},
    {CKM_SHA384_RSA_PKCS, 2048, 4096, signature, false},
    {CKM_SHA512_RSA_PKCS, 2048, 4096, signature, false},
    {CKM_SHA1_RSA_PKCS_PSS, 2048, 4096, signature, true},
    {CKM_SHA224_RSA_PKCS_PSS, 2048, 4096, signature, true},
    {CKM_SHA256_RSA_PKCS_PSS, 2048, 4096, signature, false},
    {CKM_SHA384_RSA_PKCS_PSS, 2048, 4096, signature, false},
    {CKM_SHA512_RSA_PKCS_PSS, 2048, 4096, signature, false},
    {CKM_EC_KEY_PAIR_GEN, 256, 521, CKF_GENERATE_KEY_PAIR, false},
    {CKM_ECDH1_DERIVE, 256, 521, CKF_DERIVE, false},
    {CKM_ECDSA, 256, 521, signature, false},
    {CKM_ECDSA_SHA1, 256, 521, signature, true},
    {CKM_ECDSA_SHA224, 256, 521, signature, true},
    {CKM_ECDSA_SHA256, 256, 521, signature, false},
    {CKM_ECDSA_SHA384, 256, 521, signature, false},
    {CKM_ECDSA_SHA512, 256, 521, signature, false},
    {CKM_SHA_1, 0, 0, CKF_DIGEST, true},
    {CKM_SHA224, 0, 0, CKF_DIGEST, false},
    {CKM_SHA256, 0, 0, CKF_DIGEST, false},
    {CKM_SHA384, 0, 0, CKF_DIGEST, false},
    {CKM_SHA512, 0, 0, CKF_DIGEST, false},
}};

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
        for (const MechanismEntry& mechanism : mechanisms) {
            if (!fips || !mechanism.withheldOnFips) {
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
        const MechanismEntry* mechanism = findMechanism(mechanisms, type);
        if (mechanism == nullptr) {
            return refuse(CKR_MECHANISM_INVALID, "C_GetMechanismInfo: unsupported mechanism type=", type);
        }
        pInfo->ulMinKeySize = mechanism->minimumBits;
        pInfo->ulMaxKeySize = mechanism->maximumBits;
        pInfo->flags = mechanism->use;
        if (mechanism->withheldOnFips && isFipsSlot(state, slotID)) {
            // Without a line in the log: hosts ask for each mechanism they know.
            return CKR_MECHANISM_INVALID;
        }
        pInfo->flags |= CKF_HW;
        logDebug("C_GetMechanismInfo -- exit");
        return CKR_OK;
    });
}

/// C_GetSlotList, C_GetSlotInfo and C_GetTokenInfo.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "device/library.h"
#include "module/entry_frame.h"
#include "module/slot_table.h"

using namespace zentak;

namespace {

constexpr std::string_view manufacturer = "Dravenko Sentronics";
constexpr CK_VERSION hardwareVersion = {1, 0};

/// Copies as much of `text` as the field holds, into a field of zeros.
template <std::size_t FieldSize>
void writeField(unsigned char (&field)[FieldSize], std::string_view text) {
    std::memcpy(field, text.data(), std::min(text.size(), FieldSize));
}

/// "3.6" as a version; a piece that is missing or no number is 0.
CK_VERSION parseVersion(const std::string& text) {
    const auto number = [](const char* piece) { return static_cast<CK_BYTE>(std::strtol(piece, nullptr, 10)); };
    const std::size_t stop = text.find('.');
    return {number(text.c_str()), stop == std::string::npos ? CK_BYTE{0} : number(text.c_str() + stop + 1)};
}

CK_FLAGS tokenFlags(const TokenInfo& token) {
    CK_FLAGS flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
    if (token.userPinChanged != 1) {
        flags |= CKF_USER_PIN_TO_BE_CHANGED;
    }
    switch (token.userPinAttemptsLeft) {
        case 0:
            return flags | CKF_USER_PIN_LOCKED;
        case 1:
            return flags | CKF_USER_PIN_FINAL_TRY;
        case 2:
            return flags | CKF_USER_PIN_COUNT_LOW;
        default:
            return flags;
    }
}

/// Number of sessions in a state, over all slots.
CK_ULONG countSessions(const ModuleState& state, CK_STATE sessionState) {
    return static_cast<CK_ULONG>(std::count_if(state.sessionTable.begin(), state.sessionTable.end(),
                                               [&](const auto& entry) { return entry.second.state == sessionState; }));
}

}  // namespace

CK_RV C_GetSlotList(CK_BBOOL /*tokenPresent*/, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount) {
    return entryPoint("C_GetSlotList", [&](ModuleState& state) -> CK_RV {
        if (pulCount == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GetSlotList: pulCount is NULL");
        }
        const std::vector<std::string> devices = device::connectedDevices(state.instance);
        const auto deviceCount = static_cast<CK_ULONG>(devices.size());
        if (devices.empty()) {
            state.slotTable.clear();
            logError("No valid token found");
        }
        if (pSlotList == nullptr) {
            *pulCount = deviceCount;
            return CKR_OK;
        }
        if (*pulCount < deviceCount) {
            const CK_ULONG offered = *pulCount;
            *pulCount = deviceCount;
            return refuse(CKR_BUFFER_TOO_SMALL, "C_GetSlotList: buffer too small, *pulCount=", offered,
                          " slotCount=", deviceCount);
        }
        state.slotTable.clear();
        CK_ULONG slotCount = 0;
        for (const std::string& device : devices) {
            TokenInfo token = device::tokenInfo(device, state.instance);
            if (token.serialNumber.empty()) {
                continue;
            }
            // A device named twice keeps its first entry, but takes a slot ID each time.
            state.slotTable.try_emplace(device, std::move(token));
            pSlotList[slotCount] = firstSlotId + slotCount;
            ++slotCount;
        }
        *pulCount = slotCount;
        return CKR_OK;
    });
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo) {
    return entryPoint("C_GetSlotInfo", [&](ModuleState& state) -> CK_RV {
        const TokenInfo* token = findSlot(state.slotTable, slotID);
        if (token == nullptr) {
            return refuse(CKR_SLOT_ID_INVALID, "C_GetSlotInfo: invalid slotID=", slotID);
        }
        if (pInfo == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GetSlotInfo: pInfo is NULL");
        }
        *pInfo = {};
        writeField(pInfo->slotDescription, token->label.c_str());
        writeField(pInfo->manufacturerID, manufacturer);
        pInfo->flags = CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
        pInfo->hardwareVersion = hardwareVersion;
        pInfo->firmwareVersion = parseVersion(token->firmwareVersion);
        return CKR_OK;
    });
}

CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo) {
    return entryPoint("C_GetTokenInfo", [&](ModuleState& state) -> CK_RV {
        const TokenInfo* token = findSlot(state.slotTable, slotID);
        if (token == nullptr) {
            return refuse(CKR_SLOT_ID_INVALID, "C_GetTokenInfo: invalid slotID=", slotID);
        }
        if (pInfo == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GetTokenInfo: pInfo is NULL");
        }
        *pInfo = {};
        // A label that fills the field or less is cut to 30, a longer one to the whole field: applications compare
        // with what they have stored.
        const std::string_view label = token->label;
        writeField(pInfo->label, label.size() <= sizeof(pInfo->label) ? label.substr(0, 30) : label);
        writeField(pInfo->manufacturerID, manufacturer);
        writeField(pInfo->model, token->model);
        writeField(pInfo->serialNumber, token->serialNumber);
        pInfo->flags = tokenFlags(*token);
        pInfo->ulMaxSessionCount = CK_EFFECTIVELY_INFINITE;
        // Only public sessions are counted, those of every slot.
        pInfo->ulSessionCount = countSessions(state, CKS_RO_PUBLIC_SESSION);
        pInfo->ulMaxRwSessionCount = CK_EFFECTIVELY_INFINITE;
        pInfo->ulRwSessionCount = countSessions(state, CKS_RW_PUBLIC_SESSION);
        pInfo->ulMaxPinLen = 63;
        pInfo->ulMinPinLen = 4;
        pInfo->ulTotalPublicMemory = CK_UNAVAILABLE_INFORMATION;
        pInfo->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
        pInfo->ulTotalPrivateMemory = CK_UNAVAILABLE_INFORMATION;
        pInfo->ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
        pInfo->hardwareVersion = hardwareVersion;
        pInfo->firmwareVersion = parseVersion(token->firmwareVersion);
        std::memset(pInfo->utcTime, ' ', sizeof(pInfo->utcTime));
        logDebug("C_GetTokenInfo -- exit");
        return CKR_OK;
    });
}

// Operations on instances, devices and PINs.

#include "boundary/boundary.h"
#include "device/zentak_dsc_library.h"
#include "token/instance_handles.h"

using namespace softtoken;

void zentak_createInstance(void** instance) {
    if (instance == nullptr) {
        return;
    }
    *instance = valueOf([] { return openInstance(); });
}

void zentak_releaseInstance(void* instance) {
    statusOf([&] { closeInstance(instance); });
}

std::vector<std::string> zentak_getConnectedDeviceList(bool /*flag*/, void* instance) {
    return valueOf([&] { return findInstance(instance)->store().plugged(); });
}

TokenInfo zentak_getTokenInfo(const char* device, void* instance) {
    return valueOf([&] {
        const auto found = findInstance(instance);
        const auto snapshot = found->snapshot(textOf(device));
        const TokenData& token = *snapshot->token;
        TokenInfo info;
        info.userPinAttemptsLeft = found->attempts(token.serialNumber).user;
        info.serialNumber = token.serialNumber;
        info.label = token.label;
        info.model = token.model;
        info.firmwareVersion = token.firmwareVersion;
        info.userPinChanged = token.userPinChanged ? 1 : 0;
        return info;
    });
}

int zentak_initDevice(const char* deviceId, bool /*flag*/, void* instance) {
    return statusOf([&] { findInstance(instance)->snapshot(textOf(deviceId)); });
}

int zentak_validatePassword(const char* deviceId, const char* pin, int userKind, int* attemptsLeft, void* instance) {
    return statusOf([&] {
        requireArgument(userKind == 1 || userKind == 2);
        const Role role = userKind == 1 ? Role::user : Role::officer;
        const auto found = findInstance(instance);
        const auto report = [&](int left) {
            if (attemptsLeft != nullptr) {
                *attemptsLeft = left;
            }
        };
        const auto present = [&] {
            const Attempts attempts = found->attempts(textOf(deviceId));
            return role == Role::user ? attempts.user : attempts.officer;
        };
        try {
            found->login(textOf(deviceId), role, textOf(pin));
            report(present());
        } catch (const PinFailure& failure) {
            report(failure.attemptsLeft);
            throw;
        } catch (const Failure& failure) {
            // A text that can't be a PIN costs nothing, and must not look like a locked token.
            if (failure.error == Error::pinRequired || failure.error == Error::pinLength) {
                report(present());
            }
            throw;
        }
    });
}

bool zentak_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin, int* failureCount,
                               bool /*flag1*/, bool /*flag2*/, void* instance) {
    return statusOf([&] {
               const auto found = findInstance(instance);
               try {
                   found->changeUserPin(textOf(deviceId), textOf(oldPin), textOf(newPin));
                   if (failureCount != nullptr) {
                       *failureCount = 0;
                   }
               } catch (const PinFailure& failure) {
                   const int maximum = found->snapshot(textOf(deviceId))->token->user.maximumAttempts;
                   if (failureCount != nullptr) {
                       *failureCount = maximum - failure.attemptsLeft;
                   }
                   throw;
               }
           }) == 0;
}

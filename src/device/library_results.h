/// Results of the device library that the module tells apart.

#ifndef ZENTAK_DEVICE_LIBRARY_RESULTS_H
#define ZENTAK_DEVICE_LIBRARY_RESULTS_H

namespace zentak {

/// Of zentak_validatePassword: the device doesn't answer.
inline constexpr int deviceDoesNotAnswer = 48;

/// Of the operations that store something: there is no room for it.
inline bool isDeviceFull(int result) {
    return result == 40 || result == 242;
}

}  // namespace zentak

#endif

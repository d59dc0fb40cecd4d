/// The error numbers of the software token and the exception that carries them to the boundary.

#ifndef ZENTAK_SOFTTOKEN_PLATFORM_ERRORS_H
#define ZENTAK_SOFTTOKEN_PLATFORM_ERRORS_H

#include <stdexcept>
#include <string>

namespace softtoken {

/// What the library's operations answer. 40, 48 and 242 have a meaning that callers know; the rest is ours.
enum class Error : int {
    none = 0,
    internal = 1,             ///< something that isn't foreseen
    outOfMemory = 2,          ///< no memory
    invalidArgument = 3,      ///< null pointer, negative length, or a field beyond its record
    unknownInstance = 4,      ///< the instance is null, released or was never one
    tokenDamaged = 5,         ///< the token's file can't be read or was tampered with
    unknownVersion = 6,       ///< the token's file is of a version this program doesn't know
    storeFailed = 7,          ///< the store couldn't be read or written
    pinRequired = 8,          ///< an empty PIN for an operation that needs one
    pinIncorrect = 9,         ///< wrong PIN
    pinLocked = 10,           ///< no attempts left
    pinLength = 11,           ///< a PIN shorter than 4 or longer than 63 bytes
    keyNotFound = 12,         ///< no key pair with that reference
    usageNotPermitted = 13,   ///< the key's usage bits forbid the operation
    keyTypeMismatch = 14,     ///< the operation needs a key of the other family
    unsupportedKey = 15,      ///< a key of a kind or size the token doesn't hold, or numbers that are no key
    keyExists = 16,           ///< the token holds this key pair already
    dataLength = 17,          ///< data too long, too short, or of a length the operation has no rule for
    bufferTooSmall = 18,      ///< the output area can't hold the result
    unknownContext = 19,      ///< a hash context that is null, finished or was never one
    unknownHash = 20,         ///< a hash code outside 1 to 6
    signatureInvalid = 21,    ///< the signature doesn't verify
    certificateInvalid = 22,  ///< not a certificate in DER
    cryptoFailed = 23,        ///< the crypto library refused, for instance a padding error
    keyStorageFull = 40,
    deviceNotPresent = 48,
    certificateStorageFull = 242,
};

/// Leaves every routine of the software token that can't do its work; the boundary turns it into its number, the tool
/// into its text.
class Failure : public std::runtime_error {
public:
    Failure(Error failureError, const std::string& text) : std::runtime_error(text), error(failureError) {}

    Error error;
};

/// A PIN that wasn't accepted.
class PinFailure : public Failure {
public:
    PinFailure(Error failureError, int left, const std::string& text)
        : Failure(failureError, text), attemptsLeft(left) {}

    int attemptsLeft;
};

}  // namespace softtoken

#endif

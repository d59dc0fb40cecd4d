/// A token as the module speaks to it. Every operation of the device library on a token is called here and nowhere
/// else: with the token's serial number, the library's instance and the remembered PIN, with lengths that fit an int,
/// and with output cut to the length that the library reports.
///
/// Nothing here knows Cryptoki's return codes. Operations throw what the library throws, std::bad_alloc, and
/// std::length_error when the library reports an output length that can't be.

#ifndef ZENTAK_DEVICE_TOKEN_H
#define ZENTAK_DEVICE_TOKEN_H

#include <span>
#include <string>
#include <vector>

#include "base/byte_view.h"
#include "device/output.h"
#include "device/result.h"
#include "device/zentak_dsc_library.h"

namespace zentak::device {

/// Whose PIN is validated.
enum class PinOwner : int { user = 1, securityOfficer = 2 };

/// Lives for one call: it refers to the texts that it was made from.
class Token {
public:
    /// `pin` is the user's, empty while nobody is logged in. The library sees both texts up to their first zero byte.
    Token(void* instance, const std::string& serialNumber, const std::string& pin)
        : instance_(instance), serialNumber_(serialNumber.c_str()), pin_(pin.c_str()) {}

    // The device

    /// Starts the device anew.
    Result initialise() const;

    struct PinVerdict {
        Result result;
        int attemptsLeft;  ///< as the library reports it when it refuses
    };
    PinVerdict validatePin(PinOwner owner, const std::string& pin) const;

    struct PinChange {
        bool succeeded;
        int failureCount;
    };
    PinChange changeUserPin(const std::string& oldPin, const std::string& newPin) const;

    /// Fills `output` with random bytes, in pieces if it is longer than an int can tell.
    Result fillRandom(std::span<unsigned char> output) const;

    // Objects. A list is the library's own and good until the library is called again, perhaps by another thread as
    // soon as the module's lock is released.

    const std::vector<ZentakKeyPair>& keyPairs() const;
    const std::vector<ZentakCertificate>& certificates() const;

    /// An empty label or an empty identifier leaves that one as it is.
    Result updateKeyPair(const ZentakKeyPair& keyPair, const std::string& label, ByteView objectId) const;
    Result deleteKeyPair(const ZentakKeyPair& keyPair) const;
    /// Fills the record's `certId`.
    Result importCertificate(ZentakCertificate& certificate) const;
    /// Fills the details' `keyId`.
    Result importPrivateKey(ImportPFXDetails& details) const;
    /// Takes label, identifier, usage and key type from the record and fills in the rest.
    Result generateKeyPair(ZentakKeyPair& keyPair) const;

    // Hashing. A context is the library's; nobody releases it.

    Result initHash(int hashCode, void*& context) const;
    /// Feeds data of any length, in pieces if it is longer than an int can tell. Stops at the first refusal.
    Result updateHash(void* context, ByteView data) const;
    Result finalHash(void* context, OutputArea& area) const;
    /// The digest, at most `capacity` bytes; unchanged on a refusal.
    Result finalHash(void* context, std::size_t capacity, std::vector<unsigned char>& digest) const;

    // Operations with a key. Output is unchanged on a refusal.

    Result sign(const ZentakKeyPair& keyPair, ByteView input, bool pss, std::vector<unsigned char>& signature) const;
    /// `publicKey` is that of `keyPair`, in the record's own form or wrapped.
    Result verify(const ZentakKeyPair& keyPair, ByteView publicKey, ByteView hash, ByteView signature, bool pss) const;
    /// `publicKeyInfo` is a SubjectPublicKeyInfo (RFC 5280). At most 1024 bytes of output.
    Result encrypt(const ZentakKeyPair& keyPair, ByteView publicKeyInfo, PaddingMode padding, ByteView data,
                   std::vector<unsigned char>& output) const;
    Result decrypt(const ZentakKeyPair& keyPair, ByteView data, std::vector<unsigned char>& output) const;
    /// The secret agreed by ECDH with the other side's public key. An empty secret is a refusal.
    Result agreeSecret(const ZentakKeyPair& keyPair, ByteView publicData, std::vector<unsigned char>& secret) const;

private:
    void* instance_;
    const char* serialNumber_;
    const char* pin_;
};

}  // namespace zentak::device

#endif

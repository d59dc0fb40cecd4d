/// What the tests of objects and of signing share: a world of two tokens, and texts for what is logged and called.

#ifndef ZENTAK_TESTS_BEHAVIOUR_OBJECT_TEST_H
#define ZENTAK_TESTS_BEHAVIOUR_OBJECT_TEST_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "module_test.h"

namespace support {

using Handles = std::vector<CK_OBJECT_HANDLE>;

template <typename Item>
std::vector<Item> operator+(std::vector<Item> left, const std::vector<Item>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The arguments one after the other, as one text.
template <typename... Parts>
std::string text(const Parts&... parts) {
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

/// Upper-case hexadecimal digits.
std::string hexadecimal(const Bytes& bytes);

/// Bytes and their length as a recorded call shows them: "<0A1B>, 2".
std::string shown(const Bytes& bytes);

inline Bytes charactersOf(std::string_view characters) {
    return Bytes(characters.begin(), characters.end());
}

/// A label as a search template needs it.
inline Bytes terminated(std::string_view label) {
    return charactersOf(label) + Bytes{0};
}

constexpr CK_OBJECT_HANDLE privateKey(std::uint32_t id) {
    return static_cast<CK_OBJECT_HANDLE>(privateKeyBase + id);
}
constexpr CK_OBJECT_HANDLE publicKey(std::uint32_t id) {
    return static_cast<CK_OBJECT_HANDLE>(publicKeyBase + id);
}
constexpr CK_OBJECT_HANDLE certificate(std::uint32_t id) {
    return static_cast<CK_OBJECT_HANDLE>(certificateBase + id);
}

/// An RSA 2048-bit key pair with both usages, a modulus of its own and the object id A0 <id>.
ZentakKeyPair labelledKeyPair(std::uint32_t id, std::string_view label);

/// A certificate with a DER of its own and the object id C0 <id>.
ZentakCertificate labelledCertificate(std::uint32_t id, std::string_view label);

inline Bytes derOf(const ZentakCertificate& record) {
    return Bytes(record.der, record.der + record.derLength);
}

// Calls of the device library as they are recorded.
inline const std::string listKeyPairs = "zentak_getKeyPairList(\"SN1\", instance)";
inline const std::string listCertificates = "zentak_getCertificateList(\"SN1\", instance)";
inline std::string askDetails(const ZentakCertificate& record) {
    return "zentak_getCertificateDetails(" + shown(derOf(record)) + ", out, null)";
}

/// Two tokens: "SN1", which isn't FIPS 140-3, with two key pairs and two certificates, and "SN2", which is, with
/// nothing on it.
class ObjectTest : public ModuleTest {
protected:
    static constexpr CK_SLOT_ID fipsSlot = firstSlot + 1;
    static constexpr const char* userPin = "246810";

    const ZentakKeyPair keyFive = labelledKeyPair(5, "Key five");
    const ZentakKeyPair keySix = labelledKeyPair(6, "Key six");
    const ZentakCertificate certificateFive = labelledCertificate(5, "Certificate five");
    const ZentakCertificate certificateSeven = labelledCertificate(7, "Certificate seven");

    scripted::Device& world = device();
    const CK_FUNCTION_LIST* api = nullptr;

    void plugInTokens() override;

    /// A new session in this state, which logs in where the state needs it.
    static CK_SESSION_HANDLE openSessionIn(CK_STATE state, CK_SLOT_ID slot = firstSlot);
    /// Logs out if somebody is in, and closes every session.
    void closeEverything(CK_SESSION_HANDLE session);
    /// The same, and a new session in this state.
    CK_SESSION_HANDLE reopen(CK_SESSION_HANDLE session, CK_STATE state, CK_SLOT_ID slot = firstSlot);

    Outcome findInit(CK_SESSION_HANDLE session, Template& wanted);
    /// The next handles, at most `count`.
    Handles next(CK_SESSION_HANDLE session, CK_ULONG count);
    /// A whole search.
    Handles search(CK_SESSION_HANDLE session, Template& wanted);

    void signInit(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, std::uint32_t keyPairId);
};

/// Room for one attribute value, filled with a pattern and starting at an odd address.
class Room {
public:
    static constexpr unsigned char pattern = 0xEE;

    explicit Room(std::size_t capacity) : memory_(capacity + 2, pattern) {}

    void* address() { return memory_.data() + 1; }
    Bytes first(std::size_t length) const;
    /// Nothing was written from `position` of the room on, nor right before the room.
    bool untouchedFrom(std::size_t position) const;

private:
    Bytes memory_;
};

}  // namespace support

#endif

/// What the stages of zentak-journey begin with and ask again and again: the module, the slots with their tokens,
/// sessions and logins, searches and attributes.

#ifndef ZENTAK_EXAMPLES_JOURNEY_SESSION_H
#define ZENTAK_EXAMPLES_JOURNEY_SESSION_H

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "example_support.h"

/// The functions of the module, from startModule on.
extern CK_FUNCTION_LIST_PTR cryptoki;

/// A token in a slot, and our read-write session with it.
struct Token {
    CK_SLOT_ID slot;
    std::string serialNumber;
    CK_SESSION_HANDLE session;
};

/// The identifiers (CKA_ID) that the journey's key pairs bear.
inline const Bytes rsaKeyId = {0x01};
inline const Bytes ecKeyId = {0x02};

/// Prints the headline of a step, numbered within the process.
void step(std::string_view title);

/// Throws std::runtime_error when what the text claims isn't so; prints it otherwise.
void require(bool isSo, std::string_view claim);

/// The length of something in memory, as Cryptoki takes it.
template <typename Sequence>
CK_ULONG lengthOf(const Sequence& sequence) {
    return static_cast<CK_ULONG>(sequence.size());
}

void startModule(const std::string& path);
void endModule();

/// The slots that hold a token.
std::vector<CK_SLOT_ID> slotsWithToken();

/// The tokens of the first two slots, each with a session. Throws std::runtime_error if there are fewer.
std::vector<Token> openTwoTokens();

CK_SESSION_HANDLE openSession(CK_SLOT_ID slot, CK_FLAGS moreFlags = CKF_RW_SESSION);
CK_RV login(CK_SESSION_HANDLE session, std::string pin);
void showSessionState(CK_SESSION_HANDLE session, CK_STATE expected);

std::vector<CK_OBJECT_HANDLE> findObjects(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass);

/// The one object of the class with the identifier. Throws std::runtime_error if there is none or more than one.
CK_OBJECT_HANDLE findObject(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, Bytes id);

/// The values of an object's attributes, in the order asked for; empty where the object has no such attribute.
std::vector<Bytes> readAttributes(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                  std::initializer_list<CK_ATTRIBUTE_TYPE> types);

std::string readLabel(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object);

/// The point of an EC public key, as CKM_ECDH1_DERIVE takes it: without the OCTET STRING around CKA_EC_POINT.
Bytes readPoint(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE publicKey);

#endif

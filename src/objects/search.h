/// The search for objects: what a template asks for, and which records of a token match it.

#ifndef ZENTAK_OBJECTS_SEARCH_H
#define ZENTAK_OBJECTS_SEARCH_H

#include <string_view>
#include <vector>

#include "base/byte_view.h"
#include "device/token.h"
#include "module/cryptoki.h"
#include "module/module_state.h"

namespace zentak {

/// The class of a template without CKA_CLASS.
inline constexpr CK_OBJECT_CLASS anyClass = 0x80000000;

/// What a template asks for. The views point into the caller's template; an empty one means that it isn't asked.
struct SearchCriteria {
    CK_OBJECT_CLASS objectClass = anyClass;
    std::string_view label;
    ByteView value;
    ByteView subject;
    ByteView id;
    ByteView modulus;
};

/// What a search needs of both lists of a token. A list of the library's is good until the library is called again,
/// perhaps by the monitor's thread a moment later: what is needed of it is copied before anything else happens.
struct TokenObjects {
    bool oneListIsEmpty = false;
    std::vector<ZentakCertificate> certificates;
    std::vector<ZentakKeyPair> keyPairs;
};

/// Lists the records that may match; if a list is empty the device is started anew and asked once more.
TokenObjects listCandidates(const device::Token& token, const SearchCriteria& criteria);

/// Fills the session's found records and flags with what matches. Takes the records from `objects`.
void findMatches(const SearchCriteria& criteria, TokenObjects& objects, SessionRecord& session);

}  // namespace zentak

#endif

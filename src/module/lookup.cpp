#include "module/lookup.h"

#include <algorithm>

namespace zentak {

namespace {

/// Copies the first record with the identifier into `buffer` and returns that, or null. `records` is the library's own
/// list: it is good until the library is called again, so nobody keeps it, and a copy of it would cost more than the
/// search.
template <typename Record>
Record* keepRecord(const std::vector<Record>& records, CK_ULONG id, Record& buffer) {
    const auto found =
        std::find_if(records.begin(), records.end(), [&](const Record& record) { return record.id == id; });
    if (found == records.end()) {
        return nullptr;
    }
    buffer = *found;
    return &buffer;
}

}  // namespace

ZentakKeyPair* findKeyPair(ModuleState& state, const SessionRecord& session, CK_ULONG id) {
    return keepRecord(tokenOf(state, session).keyPairs(), id, state.keyPairBuffer);
}

ZentakCertificate* findCertificate(ModuleState& state, const SessionRecord& session, CK_ULONG id) {
    return keepRecord(tokenOf(state, session).certificates(), id, state.certificateBuffer);
}

}  // namespace zentak

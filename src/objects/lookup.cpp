#include "objects/lookup.h"

#include <algorithm>

namespace zentak {

namespace {

/// Copies the first record with the identifier into `buffer` and returns that, or null. `records` is a copy of the
/// library's list.
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

ZentakKeyPair* findKeyPair(ModuleState& state, const char* deviceId, CK_ULONG id) {
    const std::vector<ZentakKeyPair> records = zentak_getKeyPairList(deviceId, state.instance);
    return keepRecord(records, id, state.keyPairBuffer);
}

ZentakCertificate* findCertificate(ModuleState& state, const char* deviceId, CK_ULONG id) {
    const std::vector<ZentakCertificate> records = zentak_getCertificateList(deviceId, state.instance);
    return keepRecord(records, id, state.certificateBuffer);
}

}  // namespace zentak

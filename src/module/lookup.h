/// From the identifier in an object handle to the device library's record.

#ifndef ZENTAK_MODULE_LOOKUP_H
#define ZENTAK_MODULE_LOOKUP_H

#include "module/module_state.h"

namespace zentak {

/// The key pair with this identifier on the session's token, null if there is none. The record is in the module's one
/// buffer for key pairs: it stays until the next lookup of a key pair, by any session.
ZentakKeyPair* findKeyPair(ModuleState& state, const SessionRecord& session, CK_ULONG id);

/// The same for certificates, with a buffer of their own.
ZentakCertificate* findCertificate(ModuleState& state, const SessionRecord& session, CK_ULONG id);

}  // namespace zentak

#endif

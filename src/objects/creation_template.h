/// What a creation template says, collected before anything is done.

#ifndef ZENTAK_OBJECTS_CREATION_TEMPLATE_H
#define ZENTAK_OBJECTS_CREATION_TEMPLATE_H

#include "module/template_reader.h"

namespace zentak {

/// The views point into the caller's template.
struct CreationTemplate {
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_KEY_TYPE keyType = CKK_RSA;
    ByteView label;
    ByteView value;
    ByteView id;
    std::uint32_t usage = 0;
    ByteView modulus;
    ByteView privateExponent;
    ByteView prime1;
};

/// Logs each entry that has a value. Of several entries with one type the last counts. Without any word on usage the
/// key may do everything.
CreationTemplate readCreationTemplate(const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount);

}  // namespace zentak

#endif

/// What a creation template says, collected before anything is done.

#ifndef ZENTAK_OBJECTS_CREATION_TEMPLATE_H
#define ZENTAK_OBJECTS_CREATION_TEMPLATE_H

#include "objects/template_reader.h"

namespace zentak {

/// The values as they lie in the caller's template, empty where it doesn't give them. None is looked into yet: each is
/// for the one who uses it to measure.
struct CreationTemplate {
    ByteView objectClass;
    ByteView keyType;
    ByteView label;
    ByteView value;
    ByteView id;
    ByteView decrypt;
    ByteView sign;
    ByteView modulus;
    ByteView privateExponent;
    ByteView prime1;

    /// Without any word on usage the key may do everything.
    std::uint32_t usage() const {
        return decrypt.empty() && sign.empty() ? keyUsageSign | keyUsageEncrypt : usageIn(sign, decrypt);
    }
};

/// Logs each entry that has a value. Of several entries with one type the last counts.
CreationTemplate readCreationTemplate(const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount);

}  // namespace zentak

#endif

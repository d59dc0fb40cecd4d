#include "objects/creation_template.h"

namespace zentak {

CreationTemplate readCreationTemplate(const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount) {
    CreationTemplate read;
    forEachValue(pTemplate, ulCount, [&](CK_ATTRIBUTE_TYPE type, ByteView value) {
        logDebug("C_CreateObject - attrip type : ", type);
        switch (type) {
            case CKA_CLASS:
                read.objectClass = value;
                break;
            case CKA_KEY_TYPE:
                read.keyType = value;
                break;
            case CKA_LABEL:
                read.label = value;
                break;
            case CKA_VALUE:
                read.value = value;
                break;
            case CKA_ID:
                read.id = value;
                break;
            case CKA_DECRYPT:
                read.decrypt = value;
                break;
            case CKA_SIGN:
                read.sign = value;
                break;
            case CKA_MODULUS:
                read.modulus = value;
                break;
            case CKA_PRIVATE_EXPONENT:
                read.privateExponent = value;
                break;
            case CKA_PRIME_1:
                read.prime1 = value;
                break;
            default:
                break;
        }
    });
    return read;
}

}  // namespace zentak

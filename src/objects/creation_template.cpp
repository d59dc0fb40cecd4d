#include "objects/creation_template.h"

#include "device/codes.h"
#include "log/diagnostic_log.h"

namespace zentak {

CreationTemplate readCreationTemplate(const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount) {
    CreationTemplate read;
    bool usageGiven = false;
    forEachValue(pTemplate, ulCount, [&](CK_ATTRIBUTE_TYPE type, ByteView value) {
        logDebug("C_CreateObject - attrip type : ", type);
        switch (type) {
            case CKA_CLASS:
                read.objectClass = numberIn(value);
                break;
            case CKA_KEY_TYPE:
                read.keyType = numberIn(value);
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
                usageGiven = true;
                setUsage(read.usage, keyUsageEncrypt, value);
                break;
            case CKA_SIGN:
                usageGiven = true;
                setUsage(read.usage, keyUsageSign, value);
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
    if (!usageGiven) {
        read.usage = keyUsageSign | keyUsageEncrypt;
    }
    return read;
}

}  // namespace zentak

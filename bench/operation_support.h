/// What the operations of a host (see host_operations.h) are put together from.

#ifndef ZENTAK_BENCH_OPERATION_SUPPORT_H
#define ZENTAK_BENCH_OPERATION_SUPPORT_H

#include <string>
#include <vector>

#include "host_operations.h"

namespace bench {

using Bytes = std::vector<unsigned char>;
using Work = std::function<void()>;
using Template = std::vector<CK_ATTRIBUTE>;

inline const CK_FUNCTION_LIST& p11() {
    return cryptoki();
}

template <typename Value>
CK_ATTRIBUTE entry(CK_ATTRIBUTE_TYPE type, Value& value) {
    return {type, &value, sizeof value};
}

inline CK_ATTRIBUTE entry(CK_ATTRIBUTE_TYPE type, std::string& text) {
    return {type, text.data(), static_cast<CK_ULONG>(text.size())};
}

inline CK_ULONG sizeOf(const Bytes& bytes) {
    return static_cast<CK_ULONG>(bytes.size());
}

inline CK_ATTRIBUTE entry(CK_ATTRIBUTE_TYPE type, Bytes& bytes) {
    return {type, bytes.data(), sizeOf(bytes)};
}

/// What a search finds, handed out `step` at a time.
std::vector<CK_OBJECT_HANDLE> find(CK_SESSION_HANDLE session, Template wanted, CK_ULONG step);

/// Throws std::runtime_error unless there is one such object.
CK_OBJECT_HANDLE findOne(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, std::string id);

/// The slot of their session.
CK_SLOT_ID slotOf(const Subjects& subjects);

// The operations by what they are about; `hostOperations` has them all.
std::vector<Operation> objectOperations();
std::vector<Operation> cryptoOperations();
std::vector<Operation> sessionOperations();

}  // namespace bench

#endif

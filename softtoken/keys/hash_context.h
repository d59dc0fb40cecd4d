/// Hash contexts behind handles. A finished context leaves the table, so that neither using it again nor forgetting to
/// finish one can do harm.

#ifndef ZENTAK_SOFTTOKEN_KEYS_HASH_CONTEXT_H
#define ZENTAK_SOFTTOKEN_KEYS_HASH_CONTEXT_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "platform/openssl_support.h"

namespace softtoken {

class HashTable {
public:
    /// Opens a context for a hash code of the boundary. Throws Error::unknownHash.
    void* open(int hashCode);
    /// Throws Error::unknownContext.
    void update(void* handle, ByteView data);
    /// Ends the context. Throws Error::unknownContext.
    Bytes finish(void* handle);

private:
    struct Context {
        std::mutex mutex;
        DigestContext digest;
    };

    std::shared_ptr<Context> find(void* handle, bool take);

    std::mutex mutex_;
    /// In the order of opening.
    std::map<std::uintptr_t, std::shared_ptr<Context>> contexts_;
};

}  // namespace softtoken

#endif

/// The public keys that callers verified or encrypted with last: whoever checks one signature often checks more with
/// the same key.

#ifndef ZENTAK_SOFTTOKEN_KEYS_PUBLIC_KEY_CACHE_H
#define ZENTAK_SOFTTOKEN_KEYS_PUBLIC_KEY_CACHE_H

#include <deque>

#include "base/mutex.h"
#include "keys/keys.h"

namespace softtoken {

/// Thread-safe.
class PublicKeyCache {
public:
    /// The key of these bytes, which are as decodePublicKey takes them. Null when they are none.
    Key find(int keyType, ByteView bytes);

private:
    struct Entry {
        int keyType;
        Bytes bytes;
        Key key;
    };

    zentak::Mutex mutex_;
    std::deque<Entry> entries_ ZENTAK_THREAD_SAFETY(guarded_by(mutex_));  ///< the last one first
};

}  // namespace softtoken

#endif

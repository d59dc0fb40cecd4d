#include "keys/public_key_cache.h"

#include <algorithm>

namespace softtoken {

namespace {

constexpr std::size_t rememberedKeys = 32;

}  // namespace

Key PublicKeyCache::find(int keyType, ByteView bytes) {
    {
        const zentak::MutexLock lock(mutex_);
        for (const Entry& entry : entries_) {
            if (entry.keyType == keyType &&
                std::equal(bytes.begin(), bytes.end(), entry.bytes.begin(), entry.bytes.end())) {
                return entry.key;
            }
        }
    }
    Key key = decodePublicKey(keyTypeOfCode(keyType), bytes);
    if (key) {
        const zentak::MutexLock lock(mutex_);
        entries_.push_front(Entry{keyType, Bytes(bytes.begin(), bytes.end()), key});
        if (entries_.size() > rememberedKeys) {
            entries_.pop_back();
        }
    }
    return key;
}

}  // namespace softtoken

#include "keys/hash_context.h"

#include <atomic>

#include "platform/errors.h"

namespace softtoken {

namespace {

/// Contexts that callers gave up without finishing them; beyond this many the oldest goes.
constexpr std::size_t mostOpenContexts = 16384;

/// Digest lengths in bytes by hash code. Code 1 comes from key derivation and serves as SHA-1 too.
constexpr std::array<std::size_t, 7> digestLengths = {0, 20, 20, 32, 48, 64, 28};

/// Handles are never given twice, over all tables, so an old one can't hit somebody else's context.
void* newHandle() {
    static std::atomic<std::uintptr_t> last{0x1000};
    return reinterpret_cast<void*>(last.fetch_add(16) + 16);
}

}  // namespace

void* HashTable::open(int hashCode) {
    if (hashCode < 1 || static_cast<std::size_t>(hashCode) >= digestLengths.size()) {
        throw Failure(Error::unknownHash, "there is no hash with this code");
    }
    const auto context = std::make_shared<Context>();
    context->digest.reset(EVP_MD_CTX_new());
    const EVP_MD* const digest = digestOfLength(digestLengths[static_cast<std::size_t>(hashCode)]);
    requireCrypto(context->digest && EVP_DigestInit_ex2(context->digest.get(), digest, nullptr) == 1, "hashing");
    void* const handle = newHandle();
    const std::lock_guard lock(mutex_);
    if (contexts_.size() >= mostOpenContexts) {
        contexts_.erase(contexts_.begin());
    }
    contexts_.emplace(reinterpret_cast<std::uintptr_t>(handle), context);
    return handle;
}

void HashTable::update(void* handle, ByteView data) {
    const auto context = find(handle, false);
    const std::lock_guard lock(context->mutex);
    requireCrypto(EVP_DigestUpdate(context->digest.get(), data.data(), data.size()) == 1, "hashing");
}

Bytes HashTable::finish(void* handle) {
    const auto context = find(handle, true);
    const std::lock_guard lock(context->mutex);
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    requireCrypto(EVP_DigestFinal_ex(context->digest.get(), digest.data(), &length) == 1, "hashing");
    digest.resize(length);
    return digest;
}

std::shared_ptr<HashTable::Context> HashTable::find(void* handle, bool take) {
    const std::lock_guard lock(mutex_);
    const auto found = contexts_.find(reinterpret_cast<std::uintptr_t>(handle));
    if (found == contexts_.end()) {
        throw Failure(Error::unknownContext, "there is no such hash context");
    }
    auto context = found->second;
    if (take) {
        contexts_.erase(found);
    }
    return context;
}

}  // namespace softtoken

/// Byte containers of the software token: plain ones, and one that wipes what it held.

#ifndef ZENTAK_SOFTTOKEN_PLATFORM_BYTES_H
#define ZENTAK_SOFTTOKEN_PLATFORM_BYTES_H

#include <array>
#include <cstddef>
#include <memory>
#include <openssl/crypto.h>
#include <span>
#include <string_view>
#include <vector>

namespace softtoken {

using Bytes = std::vector<unsigned char>;
using ByteView = std::span<const unsigned char>;

/// The reference of a key pair or certificate as it crosses the boundary.
using Reference = std::array<unsigned char, 16>;

/// Overwrites memory before it is given back. Where the program has set up OpenSSL's secure heap, which is kept out of
/// dumps and of the swap space, memory comes from there as long as there is room.
template <typename T>
struct CleansingAllocator {
    using value_type = T;

    CleansingAllocator() = default;
    template <typename U>
    explicit CleansingAllocator(const CleansingAllocator<U>& /*other*/) noexcept {}

    T* allocate(std::size_t count) {
        if (CRYPTO_secure_malloc_initialized() == 1) {
            if (void* const memory = OPENSSL_secure_malloc(count * sizeof(T))) {
                return static_cast<T*>(memory);
            }
        }
        return std::allocator<T>().allocate(count);
    }
    void deallocate(T* memory, std::size_t count) noexcept {
        if (CRYPTO_secure_allocated(memory) == 1) {
            OPENSSL_secure_clear_free(memory, count * sizeof(T));
            return;
        }
        OPENSSL_cleanse(memory, count * sizeof(T));
        std::allocator<T>().deallocate(memory, count);
    }
    friend bool operator==(const CleansingAllocator& /*a*/, const CleansingAllocator& /*b*/) { return true; }
};

/// Keys and private key material.
using SecretBytes = std::vector<unsigned char, CleansingAllocator<unsigned char>>;

inline ByteView viewOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

}  // namespace softtoken

#endif

/// Byte containers of the software token: plain ones, and one that wipes what it held.

#ifndef ZENTAK_SOFTTOKEN_BYTES_H
#define ZENTAK_SOFTTOKEN_BYTES_H

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

/// Overwrites memory before it is given back.
template <typename T>
struct CleansingAllocator {
    using value_type = T;

    CleansingAllocator() = default;
    template <typename U>
    explicit CleansingAllocator(const CleansingAllocator<U>& /*other*/) noexcept {}

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* memory, std::size_t count) noexcept {
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

/// Secrets in memory (a PIN, a plaintext, an agreed secret) are overwritten before their memory is left to others.

#ifndef ZENTAK_BASE_SECRETS_H
#define ZENTAK_BASE_SECRETS_H

#include <atomic>
#include <cstddef>

namespace zentak {

/// Overwrites `length` bytes with zeros. The writes are volatile: a compiler that sees that nobody reads the memory
/// afterwards must make them all the same.
inline void wipe(void* memory, std::size_t length) noexcept {
    auto* const bytes = static_cast<volatile unsigned char*>(memory);
    for (std::size_t index = 0; index < length; ++index) {
        bytes[index] = 0;
    }
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

/// Overwrites all that a text or byte array has room for, also where longer content was before, and empties it. The
/// room stays its own.
template <typename Container>
void wipe(Container& container) noexcept {
    container.resize(container.capacity());
    wipe(container.data(), container.size() * sizeof(*container.data()));
    container.clear();
}

/// Wipes a text or byte array when it goes out of scope, by a return or by an exception. Stands behind the declaration
/// of what it wipes.
template <typename Container>
class WipedAtEnd {
public:
    explicit WipedAtEnd(Container& container) : container_(container) {}
    ~WipedAtEnd() { wipe(container_); }
    WipedAtEnd(const WipedAtEnd&) = delete;
    WipedAtEnd& operator=(const WipedAtEnd&) = delete;

private:
    Container& container_;
};

}  // namespace zentak

#endif

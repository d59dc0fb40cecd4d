/// A buffer that the device library allocates for its caller.

#ifndef ZENTAK_DEVICE_LIBRARY_BUFFER_H
#define ZENTAK_DEVICE_LIBRARY_BUFFER_H

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/secrets.h"

namespace zentak {

/// Owns what zentak_decrypt or zentak_ecdhDerive hands out, also when the operation fails or throws afterwards. The C
/// runtime's `free` releases it, and what was copied of it is wiped before: it is a plaintext or an agreed secret.
class LibraryBuffer {
public:
    LibraryBuffer() = default;
    ~LibraryBuffer() {
        wipe(bytes_, copied_);
        std::free(bytes_);
    }
    LibraryBuffer(const LibraryBuffer&) = delete;
    LibraryBuffer& operator=(const LibraryBuffer&) = delete;

    /// Where the library puts its pointer.
    unsigned char** address() { return &bytes_; }

    bool isNull() const { return bytes_ == nullptr; }

    /// The first `length` bytes. Throws std::length_error for a length that no buffer has.
    std::vector<unsigned char> copy(int length) {
        if (length < 0 || (length > 0 && isNull())) {
            throw std::length_error("the device library reports an output length of " + std::to_string(length));
        }
        copied_ = static_cast<std::size_t>(length);
        return {bytes_, bytes_ + copied_};
    }

private:
    unsigned char* bytes_ = nullptr;
    std::size_t copied_ = 0;
};

}  // namespace zentak

#endif

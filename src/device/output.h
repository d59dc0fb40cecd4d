/// Output of the device library: an area of the caller's that it fills, or a buffer that it allocates.

#ifndef ZENTAK_DEVICE_OUTPUT_H
#define ZENTAK_DEVICE_OUTPUT_H

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/secrets.h"

namespace zentak::device {

/// An area for the library to fill, zero bytes at first, and the length that it reports. What nobody takes is wiped.
class OutputArea {
public:
    /// `length` is what the library finds in its length argument: for most operations the area's size.
    OutputArea(std::size_t capacity, int length) : bytes_(capacity), length_(length) {}
    explicit OutputArea(std::size_t capacity) : OutputArea(capacity, static_cast<int>(capacity)) {}
    ~OutputArea() { wipe(bytes_); }
    OutputArea(const OutputArea&) = delete;
    OutputArea& operator=(const OutputArea&) = delete;

    unsigned char* data() { return bytes_.data(); }
    int* length() { return &length_; }

    /// The bytes that the library has filled. Throws std::length_error if it reports a length that the area can't hold.
    std::vector<unsigned char> takeFilled() {
        if (length_ < 0 || static_cast<std::size_t>(length_) > bytes_.size()) {
            throw std::length_error("the device library reports an output length of " + std::to_string(length_));
        }
        bytes_.resize(static_cast<std::size_t>(length_));
        return std::move(bytes_);
    }
    /// The whole area, whatever the library reports.
    std::vector<unsigned char> takeWhole() { return std::move(bytes_); }

private:
    std::vector<unsigned char> bytes_;
    int length_;
};

/// A buffer that the library hands out, owned from then on, even if the operation fails or throws afterwards. The C
/// runtime's `free` releases it, and what was copied of it is wiped first: it is a plaintext or an agreed secret.
class LibraryBuffer {
public:
    LibraryBuffer() = default;
    ~LibraryBuffer() {
        wipe(bytes_, copied_);
        std::free(bytes_);
    }
    LibraryBuffer(const LibraryBuffer&) = delete;
    LibraryBuffer& operator=(const LibraryBuffer&) = delete;

    /// Where the library puts its pointer and its length.
    unsigned char** address() { return &bytes_; }
    int* length() { return &length_; }

    bool isEmpty() const { return bytes_ == nullptr || length_ < 1; }

    /// A copy of the bytes. Throws std::length_error for a length that no buffer has.
    std::vector<unsigned char> copy() {
        if (length_ < 0 || (length_ > 0 && bytes_ == nullptr)) {
            throw std::length_error("the device library reports an output length of " + std::to_string(length_));
        }
        copied_ = static_cast<std::size_t>(length_);
        return {bytes_, bytes_ + copied_};
    }

private:
    unsigned char* bytes_ = nullptr;
    int length_ = 0;
    std::size_t copied_ = 0;
};

}  // namespace zentak::device

#endif

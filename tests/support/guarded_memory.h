/// Memory with nothing behind it: whoever reads one byte too many ends the process.

#ifndef ZENTAK_TESTS_SUPPORT_GUARDED_MEMORY_H
#define ZENTAK_TESTS_SUPPORT_GUARDED_MEMORY_H

#include <cstddef>
#include <vector>

namespace support {

class GuardedMemory {
public:
    /// Room for `content`, which ends where the page ends and the next one can't be read. At most a page; throws
    /// std::bad_alloc without memory.
    explicit GuardedMemory(const std::vector<unsigned char>& content);
    ~GuardedMemory();
    GuardedMemory(const GuardedMemory&) = delete;
    GuardedMemory& operator=(const GuardedMemory&) = delete;

    unsigned char* data() const { return data_; }

private:
    unsigned char* pages_;  ///< one that is there and one that isn't
    unsigned char* data_;
};

}  // namespace support

#endif

#include "guarded_memory.h"

#include <algorithm>
#include <new>

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/mman.h>
#endif

namespace support {
namespace {

constexpr std::size_t pageSize = 65536;  // a multiple of every system's

#if defined(_WIN32)
unsigned char* takePages() {
    void* const pages = VirtualAlloc(nullptr, 2 * pageSize, MEM_RESERVE, PAGE_NOACCESS);
    if (pages == nullptr || VirtualAlloc(pages, pageSize, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
        throw std::bad_alloc();
    }
    return static_cast<unsigned char*>(pages);
}
void givePages(unsigned char* pages) {
    VirtualFree(pages, 0, MEM_RELEASE);
}
#else
unsigned char* takePages() {
    void* const pages = mmap(nullptr, 2 * pageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED || mprotect(pages, pageSize, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
    return static_cast<unsigned char*>(pages);
}
void givePages(unsigned char* pages) {
    munmap(pages, 2 * pageSize);
}
#endif

}  // namespace

GuardedMemory::GuardedMemory(const std::vector<unsigned char>& content)
    : pages_(takePages()), data_(pages_ + pageSize - content.size()) {
    std::copy(content.begin(), content.end(), data_);
}

GuardedMemory::~GuardedMemory() {
    givePages(pages_);
}

}  // namespace support

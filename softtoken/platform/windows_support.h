/// What several files here need of Windows.

#ifndef ZENTAK_SOFTTOKEN_PLATFORM_WINDOWS_SUPPORT_H
#define ZENTAK_SOFTTOKEN_PLATFORM_WINDOWS_SUPPORT_H

#include <string>
#include <string_view>

#include <windows.h>

namespace softtoken {

/// Closes its handle.
class Handle {
public:
    explicit Handle(HANDLE handle) : handle_(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() {
        if (valid()) {
            CloseHandle(handle_);
        }
    }
    [[nodiscard]] bool valid() const { return handle_ != INVALID_HANDLE_VALUE; }
    [[nodiscard]] HANDLE get() const { return handle_; }

private:
    HANDLE handle_;
};

/// Of a file that others may have open too.
inline constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

/// UTF-16 from text in a code page.
std::wstring wide(std::string_view text, UINT codePage);
/// The reverse; characters that the code page doesn't have are lost.
std::string narrow(std::wstring_view text, UINT codePage);

}  // namespace softtoken

#endif

#include <functional>

#include <windows.h>

#include "platform/environment.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/windows_support.h"

namespace softtoken {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void failStore(const char* what, const fs::path& path, DWORD number) {
    throw Failure(Error::storeFailed,
                  std::string("cannot ") + what + " " + utf8FromPath(path) + ": error " + std::to_string(number));
}

/// Another process, or a virus scanner, may have a file open for a moment, which forbids to replace or rename it, and a
/// file that is being replaced can't be opened for a moment. Answers 0 or the error that remained.
DWORD retryWhileInUse(const std::function<bool()>& attempt) {
    for (int left = 200; !attempt(); --left) {
        const DWORD number = GetLastError();
        const bool passing = number == ERROR_ACCESS_DENIED || number == ERROR_SHARING_VIOLATION;
        if (!passing || left == 0) {
            return number;
        }
        Sleep(10);
    }
    return 0;
}

[[noreturn]] void refuseLink(const fs::path& path) {
    throw Failure(Error::tokenDamaged, utf8FromPath(path) + " is a link, which isn't followed");
}

/// Opens as CreateFileW does, and tries again while the file is in use. Answers INVALID_HANDLE_VALUE and the error.
HANDLE openRetrying(const fs::path& file, DWORD access, DWORD shared, DWORD disposition, Links links, DWORD& number) {
    if (links == Links::refuse && isLink(file)) {
        refuseLink(file);
    }
    HANDLE opened = INVALID_HANDLE_VALUE;
    number = retryWhileInUse([&] {
        opened = CreateFileW(file.c_str(), access, shared, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
        return opened != INVALID_HANDLE_VALUE;
    });
    return opened;
}

/// Writes a file from its beginning. `disposition` says whether it is made or there, as that of CreateFileW.
void writeFile(const fs::path& file, DWORD shared, DWORD disposition, std::string_view content, Lasting lasting) {
    DWORD number = 0;
    const Handle handle(openRetrying(file, GENERIC_WRITE, shared, disposition, Links::refuse, number));
    if (!handle.valid()) {
        failStore("write", file, number);
    }
    while (!content.empty()) {
        DWORD count = 0;
        const DWORD wanted = static_cast<DWORD>(std::min<std::size_t>(content.size(), 1 << 20));
        if (!WriteFile(handle.get(), content.data(), wanted, &count, nullptr)) {
            failStore("write", file, GetLastError());
        }
        content.remove_prefix(count);
    }
    if (lasting == Lasting::atOnce && !FlushFileBuffers(handle.get())) {
        failStore("flush", file, GetLastError());
    }
}

/// INVALID_HANDLE_VALUE when there is no such file.
HANDLE openForReading(const fs::path& file, Links links) {
    DWORD number = 0;
    const HANDLE opened = openRetrying(file, GENERIC_READ, shareAll, OPEN_EXISTING, links, number);
    const bool missing = number == ERROR_FILE_NOT_FOUND || number == ERROR_PATH_NOT_FOUND;
    if (opened == INVALID_HANDLE_VALUE && !missing) {
        failStore("open", file, number);
    }
    return opened;
}

/// Whether the file has more names than one (hard links).
bool isShared(const fs::path& file) {
    const Handle handle(openForReading(file, Links::refuse));
    BY_HANDLE_FILE_INFORMATION information{};
    return handle.valid() && GetFileInformationByHandle(handle.get(), &information) && information.nNumberOfLinks > 1;
}

/// Since 1970. FILETIME counts steps of 100 ns since 1601, which in nanoseconds are more than the type holds.
std::int64_t nanoseconds(const FILETIME& time) {
    constexpr std::int64_t stepsUntil1970 = 116'444'736'000'000'000;
    const std::int64_t steps = (static_cast<std::int64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    return (steps - stepsUntil1970) * 100;
}

}  // namespace

bool isFolder(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool isLink(const fs::path& path) {
    // Other reparse points than links and junctions (compressed or deduplicated files) are files like any.
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
        return false;
    }
    WIN32_FIND_DATAW data{};
    const HANDLE search = FindFirstFileW(path.c_str(), &data);
    if (search == INVALID_HANDLE_VALUE) {
        return true;
    }
    FindClose(search);
    return IsReparseTagNameSurrogate(data.dwReserved0);
}

void createPrivateFolders(const fs::path& folder) {
    // The user's application data is private by inheritance.
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        failStore("make the folder", folder, static_cast<DWORD>(error.value()));
    }
}

void requirePrivateFolder(const fs::path& folder, Links links) {
    // Who may write to it is inherited from the folder above, as with all of the user's data.
    if (links == Links::refuse && isLink(folder)) {
        refuseLink(folder);
    }
}

FileLock::FileLock(const fs::path& file) : handle_(0) {
    if (isLink(file)) {
        refuseLink(file);
    }
    HANDLE handle = CreateFileW(file.c_str(), GENERIC_READ | GENERIC_WRITE, shareAll, nullptr, OPEN_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        failStore("open the lock file", file, GetLastError());
    }
    OVERLAPPED place{};
    if (!LockFileEx(handle, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &place)) {
        const DWORD number = GetLastError();
        CloseHandle(handle);
        failStore("lock", file, number);
    }
    handle_ = reinterpret_cast<std::intptr_t>(handle);
}

FileLock::~FileLock() {
    OVERLAPPED place{};
    UnlockFileEx(reinterpret_cast<HANDLE>(handle_), 0, 1, 0, &place);
    CloseHandle(reinterpret_cast<HANDLE>(handle_));
}

std::optional<FileStamp> fileStamp(const fs::path& file) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    const DWORD number =
        retryWhileInUse([&] { return GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &data) != 0; });
    if (number == ERROR_FILE_NOT_FOUND || number == ERROR_PATH_NOT_FOUND) {
        return std::nullopt;
    }
    if (number != 0) {
        failStore("look at", file, number);
    }
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && isLink(file)) {
        refuseLink(file);
    }
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        return std::nullopt;
    }
    // No identity: it would cost opening the file, and the creation time of a replaced file is passed on to the new
    // one.
    return FileStamp{nanoseconds(data.ftLastWriteTime),
                     (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow, 0};
}

std::int64_t fileClockNow() {
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    return nanoseconds(now);
}

std::optional<std::string> readFile(const fs::path& file, std::size_t largest, Links links) {
    const Handle handle(openForReading(file, links));
    if (!handle.valid()) {
        return std::nullopt;
    }
    std::string content;
    std::vector<char> part(65536);
    for (;;) {
        DWORD count = 0;
        if (!ReadFile(handle.get(), part.data(), static_cast<DWORD>(part.size()), &count, nullptr)) {
            failStore("read", file, GetLastError());
        }
        if (count == 0) {
            return content;
        }
        content.append(part.data(), count);
        if (content.size() > largest) {
            throw Failure(Error::storeFailed,
                          utf8FromPath(file) + " is larger than " + std::to_string(largest) + " bytes");
        }
    }
}

std::optional<std::string> readFileEnd(const fs::path& file, std::size_t length) {
    const Handle handle(openForReading(file, Links::refuse));
    if (!handle.valid()) {
        return std::nullopt;
    }
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(handle.get(), &size)) {
        failStore("look at", file, GetLastError());
    }
    LARGE_INTEGER start{};
    start.QuadPart = size.QuadPart - static_cast<LONGLONG>(length);
    if (start.QuadPart < 0) {
        return std::nullopt;
    }
    std::string content(length, '\0');
    DWORD count = 0;
    if (!SetFilePointerEx(handle.get(), start, nullptr, FILE_BEGIN) ||
        !ReadFile(handle.get(), content.data(), static_cast<DWORD>(length), &count, nullptr)) {
        failStore("read", file, GetLastError());
    }
    if (count != length) {
        return std::nullopt;
    }
    return content;
}

void replaceFile(const fs::path& file, std::string_view content) {
    fs::path fresh = file;
    fresh += L".new";
    // What is there is never written through: it may be a left-over, or a link that somebody prepared.
    retryWhileInUse([&] { return DeleteFileW(fresh.c_str()) != 0; });
    try {
        writeFile(fresh, 0, CREATE_NEW, content, Lasting::atOnce);
        constexpr DWORD flags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
        const DWORD number = retryWhileInUse([&] { return MoveFileExW(fresh.c_str(), file.c_str(), flags) != 0; });
        if (number != 0) {
            failStore("replace", file, number);
        }
    } catch (...) {
        // On a full disk it would keep the space that the next attempt needs.
        DeleteFileW(fresh.c_str());
        throw;
    }
}

void overwriteFile(const fs::path& file, std::string_view content, Lasting lasting) {
    if (isShared(file)) {
        replaceFile(file, content);
    } else {
        writeFile(file, shareAll, OPEN_EXISTING, content, lasting);
    }
}

void moveFolder(const fs::path& from, const fs::path& to) {
    const DWORD number =
        retryWhileInUse([&] { return MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_WRITE_THROUGH) != 0; });
    if (number != 0) {
        failStore("move", from, number);
    }
}

}  // namespace softtoken

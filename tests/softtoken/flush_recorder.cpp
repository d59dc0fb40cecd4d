#include "flush_recorder.h"

#include <utility>

#ifdef _WIN32
#include <windows.h>
#else
#include <cerrno>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace softtoken {

namespace fs = std::filesystem;

namespace {

fs::path recordedFolder;
std::vector<std::string> steps;

}  // namespace

void recordStepsBelow(const fs::path& folder) {
    recordedFolder = fs::canonical(folder);
    steps.clear();
}

std::vector<std::string> takeSteps() {
    return std::exchange(steps, {});
}

void noteStep(const std::string& what, const std::vector<fs::path>& files, const std::string& end) {
    if (recordedFolder.empty()) return;
    std::string step = what;
    for (const fs::path& file : files) {
        const std::string name = file.lexically_relative(recordedFolder).generic_string();
        if (name.empty() || name.starts_with("..")) return;
        step += " " + name;
    }
    step += end;
    if (what != "write" || steps.empty() || steps.back() != step) steps.push_back(step);
}

}  // namespace softtoken

// The definitions below are those that the program is linked with.

#ifdef _WIN32

namespace {

template <typename Function>
Function* systemRoutine(const char* name) {
    return reinterpret_cast<Function*>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), name)));
}

std::filesystem::path pathOf(HANDLE file) {
    wchar_t path[1024];
    const DWORD length = GetFinalPathNameByHandleW(file, path, 1024, 0);
    std::wstring text(path, length);
    if (text.starts_with(L"\\\\?\\")) text.erase(0, 4);
    return text;
}

BOOL WINAPI recordedFlush(HANDLE file) {
    softtoken::noteStep("flush", {pathOf(file)});
    return systemRoutine<decltype(recordedFlush)>("FlushFileBuffers")(file);
}

BOOL WINAPI recordedWrite(HANDLE file, LPCVOID bytes, DWORD count, LPDWORD written, LPOVERLAPPED place) {
    softtoken::noteStep("write", {pathOf(file)});
    return systemRoutine<decltype(recordedWrite)>("WriteFile")(file, bytes, count, written, place);
}

BOOL WINAPI recordedMove(LPCWSTR from, LPCWSTR to, DWORD flags) {
    const BOOL result = systemRoutine<decltype(recordedMove)>("MoveFileExW")(from, to, flags);
    const DWORD error = GetLastError();
    if (result) softtoken::noteStep("rename", {from, to}, (flags & MOVEFILE_WRITE_THROUGH) != 0 ? " through" : "");
    SetLastError(error);
    return result;
}

}  // namespace

// Calls of the system go through these pointers, which otherwise come from its import library.
extern "C" {
extern decltype(&recordedFlush) importedFlush __asm__("__imp_FlushFileBuffers");
extern decltype(&recordedWrite) importedWrite __asm__("__imp_WriteFile");
extern decltype(&recordedMove) importedMove __asm__("__imp_MoveFileExW");
decltype(&recordedFlush) importedFlush = &recordedFlush;
decltype(&recordedWrite) importedWrite = &recordedWrite;
decltype(&recordedMove) importedMove = &recordedMove;
}

#else

namespace {

std::string failing;

std::filesystem::path pathOf(int descriptor) {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
}

int recordedFlush(int descriptor, long systemCall) {
    softtoken::noteStep("flush", {pathOf(descriptor)});
    if (!failing.empty() && pathOf(descriptor) == failing) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(systemCall, descriptor));
}

}  // namespace

namespace softtoken {

void failFlushOf(const std::string& path) {
    failing = path;
}

}  // namespace softtoken

extern "C" {

int fsync(int descriptor) {
    return recordedFlush(descriptor, SYS_fsync);
}

int fdatasync(int descriptor) {
    return recordedFlush(descriptor, SYS_fdatasync);
}

ssize_t write(int descriptor, const void* bytes, size_t count) {
    const int error = errno;
    softtoken::noteStep("write", {pathOf(descriptor)});
    errno = error;
    return syscall(SYS_write, descriptor, bytes, count);
}

int rename(const char* from, const char* to) noexcept {
    const long result = syscall(SYS_rename, from, to);
    if (result == 0) softtoken::noteStep("rename", {from, to});
    return static_cast<int>(result);
}
}

#endif

#include "run_folder.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#endif

namespace support {
namespace {

namespace fs = std::filesystem;

/// A lock that says that a folder is in use. It ends with the process, however that ends; its file lies beside the
/// folder.
class FolderLock {
public:
    explicit FolderLock(const fs::path& folder) : file_(folder.string() + ".lock") {
#if defined(_WIN32)
        handle_ = CreateFileW(file_.c_str(), GENERIC_WRITE, FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
        isOurs_ = handle_ != INVALID_HANDLE_VALUE;
#else
        handle_ = open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        isOurs_ = handle_ >= 0 && flock(handle_, LOCK_EX | LOCK_NB) == 0;
#endif
    }
    ~FolderLock() {
#if defined(_WIN32)
        if (isOurs_) CloseHandle(handle_);
#else
        if (handle_ >= 0) close(handle_);
#endif
    }
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

    bool isOurs() const {
        return isOurs_;
    }
    void removeFile() const {
        std::error_code ignored;
        fs::remove(file_, ignored);
    }

private:
    fs::path file_;
#if defined(_WIN32)
    HANDLE handle_ = nullptr;
#else
    int handle_ = -1;
#endif
    bool isOurs_ = false;
};

std::filesystem::path& theRunFolder() {
    static std::filesystem::path folder;
    return folder;
}

std::filesystem::path& theTemporaryFolder() {
    static std::filesystem::path folder;
    return folder;
}

#if !defined(_WIN32)
/// Some tests go on as another user, who must get to the folder.
bool isOpenToOthers(const fs::path& folder) {
    for (fs::path level = folder; level.has_relative_path(); level = level.parent_path()) {
        if ((fs::status(level).permissions() & fs::perms::others_exec) == fs::perms::none) return false;
    }
    return true;
}
#endif

/// Where the folders of all runs lie: in the build tree, so that a killed run leaves nothing anywhere else.
fs::path folderOfRuns() {
    const fs::path folder = programFile().parent_path() / "run";
    fs::create_directory(folder);
#if !defined(_WIN32)
    if (geteuid() == 0 && !isOpenToOthers(folder)) {
        const fs::path elsewhere = fs::temp_directory_path() / "zentak-test-runs";
        fs::create_directory(elsewhere);
        return elsewhere;
    }
#endif
    return folder;
}

void removeFoldersOfKilledRuns(const fs::path& runs, const std::string& program) {
    for (const fs::directory_entry& entry : fs::directory_iterator(runs)) {
        if (!entry.is_directory() || entry.path().filename().string().rfind(program + "-", 0) != 0) continue;
        const FolderLock lock(entry.path());
        if (lock.isOurs()) {
            removeWhole(entry.path());
            lock.removeFile();
        }
    }
}

std::optional<FolderLock>& lockOfRunFolder() {
    static std::optional<FolderLock> lock;
    return lock;
}

}  // namespace

void removeWhole(const fs::path& path) {
    std::error_code ignored;
    if (fs::is_directory(fs::symlink_status(path, ignored))) {
        fs::permissions(path, fs::perms::owner_all, ignored);
        for (const fs::directory_entry& entry : fs::directory_iterator(path, ignored)) removeWhole(entry.path());
    }
    fs::remove(path, ignored);
}

RunFolder::RunFolder() {
    const fs::path runs = folderOfRuns();
    const std::string program = programFile().stem().string();
    removeFoldersOfKilledRuns(runs, program);
#if defined(_WIN32)
    const unsigned long process = GetCurrentProcessId();
#else
    const long process = static_cast<long>(getpid());
#endif
    theRunFolder() = runs / (program + "-" + std::to_string(process));
    lockOfRunFolder().emplace(runFolder());
    fs::create_directory(runFolder());
    fs::create_directory(runFolder() / "temporary");
    setTemporaryFolder(runFolder() / "temporary");
#if !defined(_WIN32)
    fs::create_directory(runFolder() / "config");
    setEnvironment("ZENTAK_CONFIG", (runFolder() / "config").string());
#endif
}

RunFolder::~RunFolder() {
    removeWhole(runFolder());
    lockOfRunFolder()->removeFile();
    lockOfRunFolder().reset();
}

const std::filesystem::path& runFolder() {
    return theRunFolder();
}

void setTemporaryFolder(const std::filesystem::path& folder) {
    theTemporaryFolder() = folder;
#if defined(_WIN32)
    setEnvironment("TMP", folder.string());
    setEnvironment("TEMP", folder.string());
#else
    setEnvironment("TMPDIR", folder.string());
#endif
}

const std::filesystem::path& temporaryFolder() {
    return theTemporaryFolder();
}

std::filesystem::path programFile() {
#if defined(_WIN32)
    std::vector<wchar_t> name(32768);
    const DWORD length = GetModuleFileNameW(nullptr, name.data(), static_cast<DWORD>(name.size()));
    return std::wstring(name.data(), length);
#else
    return std::filesystem::read_symlink("/proc/self/exe");
#endif
}

void setEnvironment(const std::string& name, const std::optional<std::string>& value) {
#if defined(_WIN32)
    // The C runtime keeps a copy of its own; _putenv_s changes both, and an empty value removes.
    _putenv_s(name.c_str(), value ? value->c_str() : "");
#else
    if (value) {
        setenv(name.c_str(), value->c_str(), 1);
    } else {
        unsetenv(name.c_str());
    }
#endif
}

#if !defined(_WIN32)

namespace {

/// Whether a thread of this process isn't on its way out. A thread stays listed for a moment after it was joined, on a
/// busy machine long enough to be counted; the kernel has marked it before it lets the joining thread go on.
bool isAlive(const fs::directory_entry& task) {
    std::string line;
    std::getline(std::ifstream(task.path() / "stat"), line);
    const std::size_t endOfName = line.rfind(')');
    if (endOfName == std::string::npos) return false;  // gone meanwhile
    // proc(5): state, parent, process group, session, terminal, its group, and the kernel's flags.
    std::istringstream fields(line.substr(endOfName + 1));
    std::string other;
    unsigned long flags = 0;
    for (int i = 0; i < 6; ++i) fields >> other;
    fields >> flags;
    constexpr unsigned long exiting = 4;  // PF_EXITING
    return (flags & exiting) == 0;
}

}  // namespace

#endif

std::pair<std::size_t, std::size_t> threadsAndFiles() {
#if defined(_WIN32)
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    return {0, handles};
#else
    const fs::directory_iterator tasks("/proc/self/task");
    const fs::directory_iterator files("/proc/self/fd");
    return {static_cast<std::size_t>(std::count_if(begin(tasks), end(tasks), isAlive)),
            static_cast<std::size_t>(std::distance(begin(files), end(files)))};
#endif
}

}  // namespace support

#include "keys/folder_scan.h"

#include <algorithm>
#include <filesystem>

#include "keys/certificates.h"
#include "platform/environment.h"
#include "platform/errors.h"
#include "platform/files.h"

namespace softtoken {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t largestFile = 1 << 20;

std::string lowerCase(std::string text) {
    for (char& character : text) {
        if (character >= 'A' && character <= 'Z') {
            character = static_cast<char>(character - 'A' + 'a');
        }
    }
    return text;
}

std::vector<Bytes> readCertificates(const fs::path& file) {
    std::error_code error;
    const std::uintmax_t size = fs::file_size(file, error);
    if (error || size == 0 || size > largestFile) {
        return {};
    }
    try {
        const auto content = readFile(file, largestFile, Links::follow);
        return content ? certificatesOfFile(*content) : std::vector<Bytes>();
    } catch (const Failure&) {
        return {};
    }
}

}  // namespace

std::vector<std::pair<std::string, Bytes>> scanFolder(std::string_view folder,
                                                      const std::vector<std::string>& extensions) {
    std::string path(folder);
#ifndef _WIN32
    // Callers compose the folder's path with the separators of Windows.
    std::replace(path.begin(), path.end(), '\\', '/');
#endif
    std::vector<std::string> wanted;
    wanted.reserve(extensions.size());
    for (const std::string& extension : extensions) {
        wanted.push_back(lowerCase(extension));
    }
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator entry(pathFromNarrow(path), error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        const std::string extension = lowerCase(utf8FromPath(entry->path().extension()));
        if (std::find(wanted.begin(), wanted.end(), extension) != wanted.end() && entry->is_regular_file(ignored)) {
            files.push_back(entry->path());
        }
    }
    std::sort(files.begin(), files.end());
    std::vector<std::pair<std::string, Bytes>> result;
    for (const fs::path& file : files) {
        for (Bytes& der : readCertificates(file)) {
            result.emplace_back(narrowFromPath(file.filename()), std::move(der));
        }
    }
    return result;
}

}  // namespace softtoken

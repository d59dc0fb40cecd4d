// The version stands once, in the project's CMakeLists.txt, and everything that tells one tells that.

#include <filesystem>
#include <sstream>

#include "module_test.h"
#include "run_folder.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace {

using namespace support;
namespace fs = std::filesystem;

/// The numbers of the project's version.
std::vector<int> projectVersion() {
    std::vector<int> numbers;
    std::istringstream text(ZENTAK_PROJECT_VERSION);
    for (std::string number; std::getline(text, number, '.');) numbers.push_back(std::stoi(number));
    return numbers;
}

class VersionTest : public ModuleTest {};

TEST_F(VersionTest, TheModuleTellsTheProjects) {
    const std::vector<int> version = projectVersion();
    ASSERT_EQ(version.size(), 3U);
    CK_INFO info = {};
    ASSERT_EQ(functions().C_GetInfo(&info), CKR_OK);
    EXPECT_EQ(+info.libraryVersion.major, version[0]);
    EXPECT_EQ(+info.libraryVersion.minor, version[1]);
}

#if defined(_WIN32)
/// What Windows Explorer shows of a file.
class FileProperties {
public:
    explicit FileProperties(const fs::path& file) {
        DWORD unused = 0;
        area_.resize(GetFileVersionInfoSizeW(file.c_str(), &unused));
        EXPECT_FALSE(area_.empty()) << file << " has no version";
        if (!area_.empty()) {
            EXPECT_TRUE(GetFileVersionInfoW(file.c_str(), 0, static_cast<DWORD>(area_.size()), area_.data()));
        }
    }

    std::string text(const std::string& name) const {
        const auto* const value = static_cast<const char*>(query("\\StringFileInfo\\040904B0\\" + name));
        return value != nullptr ? value : "";
    }

    /// Four numbers for the file, and the same for the product; then the kind of file.
    std::vector<int> numbers() const {
        const auto* const fixed = static_cast<const VS_FIXEDFILEINFO*>(query("\\"));
        if (fixed == nullptr) return {};
        std::vector<int> all;
        for (const DWORD pair :
             {fixed->dwFileVersionMS, fixed->dwFileVersionLS, fixed->dwProductVersionMS, fixed->dwProductVersionLS}) {
            all.push_back(HIWORD(pair));
            all.push_back(LOWORD(pair));
        }
        all.push_back(static_cast<int>(fixed->dwFileType));
        return all;
    }

private:
    const void* query(const std::string& name) const {
        void* value = nullptr;
        UINT length = 0;
        const bool found = !area_.empty() && VerQueryValueA(area_.data(), name.c_str(), &value, &length);
        return found ? value : nullptr;
    }

    std::vector<char> area_;
};

TEST_F(VersionTest, EveryFileTellsTheProjects) {
    const std::pair<std::string, std::string> descriptions[] = {
        {"ZentakPKCS11.dll", "Zentak PKCS11 Library"},      {"ZentakDSCLibrary.dll", "Zentak software token"},
        {"zentak-token.exe", "Zentak software token tool"}, {"zentak-example.exe", "Zentak example program"},
        {"zentak-first.exe", "Zentak example program"},     {"zentak-hello.exe", "Zentak example program"},
        {"zentak-journey.exe", "Zentak example program"},
    };
    for (const auto& [name, description] : descriptions) {
        SCOPED_TRACE(name);
        const FileProperties properties(programFile().parent_path().parent_path() / name);
        const std::vector<int> version = projectVersion();
        const int kind = fs::path(name).extension() == ".dll" ? VFT_DLL : VFT_APP;
        EXPECT_EQ(properties.numbers(), (std::vector<int>{version[0], version[1], version[2], 0, version[0], version[1],
                                                          version[2], 0, kind}));
        const std::string text = std::string(ZENTAK_PROJECT_VERSION) + ".0";
        EXPECT_EQ(properties.text("FileVersion"), text);
        EXPECT_EQ(properties.text("ProductVersion"), text);
        EXPECT_EQ(properties.text("FileDescription"), description);
        EXPECT_EQ(properties.text("OriginalFilename"), name);
        EXPECT_EQ(properties.text("InternalName"), fs::path(name).stem().string());
        EXPECT_EQ(properties.text("CompanyName"), "Dravenko Sentronics");
        EXPECT_EQ(properties.text("ProductName"), "Zentak PKCS11 Library");
    }
}
#endif

}  // namespace

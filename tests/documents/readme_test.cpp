// README.md: the code that it shows is the code that is built and run, and what it names is there.

#include <filesystem>
#include <gtest/gtest.h>
#include <regex>

#include "document_tables.h"

namespace {

/// What stands between two lines of a text, these not included.
std::string between(const std::string& text, const std::string& first, const std::string& last) {
    const std::size_t begin = text.find(first + '\n');
    const std::size_t end = text.find('\n' + last + '\n', begin);
    if (begin == std::string::npos || end == std::string::npos) return "";
    const std::size_t content = begin + first.size() + 1;
    return text.substr(content, end + 1 - content);
}

TEST(ReadmeTest, ShowsTheTenLinesOfTheFirstExample) {
    const std::string shown = between(documents::textOf("README.md"), "```cpp", "```");
    EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 10);
    const std::string built =
        between(documents::textOf("examples/zentak_first.cpp"), "    // --- The ten lines", "    // ---");
    EXPECT_EQ(shown, std::regex_replace(built, std::regex("(^|\n)    "), "$1"));
}

/// Relative links of this page and of all pages in docs/ lead to files.
TEST(ReadmeTest, LinksOfTheDocumentsLeadSomewhere) {
    namespace fs = std::filesystem;
    const fs::path folder = ZENTAK_SOURCE_FOLDER;
    std::vector<fs::path> pages;
    for (const char* name : {"README.md", "CHANGELOG.md", "CONTRIBUTING.md", "SECURITY.md"}) {
        pages.push_back(folder / name);
    }
    for (const auto& entry : fs::recursive_directory_iterator(folder / "docs")) {
        if (entry.path().extension() == ".md") pages.push_back(entry.path());
    }
    const std::regex link(R"(\]\(([^)#:\s]+)(#[^)]*)?\))");
    int links = 0;
    for (const fs::path& page : pages) {
        const std::string text = documents::textOf(fs::relative(page, folder).string());
        for (std::sregex_iterator found(text.begin(), text.end(), link), end; found != end; ++found) {
            ++links;
            EXPECT_TRUE(fs::exists(page.parent_path() / (*found)[1].str())) << page << " names " << (*found)[1].str();
        }
    }
    EXPECT_GT(links, 50);
}

}  // namespace

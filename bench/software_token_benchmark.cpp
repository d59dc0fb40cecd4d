/// What the software token costs beside OpenSSL: tools/beside_openssl.py measures by turns what this offers. The module
/// reads its log level for every line of its log, written or not; how often is counted, because on some machines that
/// is much of a short operation.

#include <fstream>

#include "crypto_work.h"
#include "log_level.h"
#include "platform/files.h"
#include "platform/operating_system.h"
#include "run_folder.h"

namespace {

using namespace bench;

constexpr TokenSize compared = {100, 0};

std::size_t linesOfLog() {
    std::size_t lines = 0;
    for (const auto& file : std::filesystem::recursive_directory_iterator(support::temporaryFolder())) {
        if (file.path().extension() != ".LOG") continue;
        std::ifstream log(file.path());
        for (std::string line; std::getline(log, line);) ++lines;
    }
    return lines;
}

/// How often the work looks for the log level, which is how many lines it writes when all are written.
double countLogLevelReads(const Work& work) {
    constexpr int repetitions = 16;
    const LogLevel level(support::debugLevel);
    // The module makes one missing folder of the log with each line, and drops the line.
    for (int i = 0; i < repetitions; ++i) work();
    const std::size_t before = linesOfLog();
    for (int i = 0; i < repetitions; ++i) work();
    return static_cast<double>(linesOfLog() - before) / repetitions;
}

/// The operations in their three ways.
void addCryptoWork(std::vector<Measurable>& all) {
    for (const CryptoWork& work : cryptoWork(compared, enterToken(compared))) {
        const std::string name = work.name;
        const auto throughModule = [work]() -> Work {
            return [work, &subjects = enterToken(compared)] { work.module(subjects); };
        };
        all.push_back({name + ", OpenSSL", Kind::other, compared, [work] { return [work] { work.direct(); }; }});
        all.push_back({name + ", module", Kind::other, compared, throughModule});
        all.push_back(
            {name + ", device library", Kind::other, compared, [work] { return [work] { work.boundary(); }; }});
        const double reads = countLogLevelReads(throughModule());
        all.push_back({name + ", reads", Kind::other, compared, {}, reads});
    }
    all.push_back({"look for the log level", Kind::other, compared,
                   [] { return [] { static_cast<void>(zentak::platform::readLogLevelByte()); }; }});
}

/// A change, and the least that it can cost: OpenSSL makes a pair, and a file of the token's size is replaced twice.
void addChanges(std::vector<Measurable>& all, const TokenSize& size) {
    all.push_back({"generate, destroy", Kind::changing, size,
                   [size] { return operation("P-256 pair made, destroyed").prepare(enterToken(size)); }});
    all.push_back({"OpenSSL and two flushed files", Kind::changing, size, [size]() -> Work {
                       enterToken(size);
                       return [content = std::string(tokenFileSize(), 'x')] {
                           softtoken::generateKey(*softtoken::keyTypeOfCode(5));
                           for (int i = 0; i < 2; ++i) softtoken::replaceFile(support::runFolder() / "floor", content);
                       };
                   }});
}

}  // namespace

int main() {
    return runProgram("software_token_benchmark", [] {
        const support::RunFolder folder;
        useUsualConfiguration();
        usePlugIn(plugInSoftwareToken);
        std::vector<Measurable> all;
        addCryptoWork(all);
        addChanges(all, {10, 0});
        addChanges(all, {500, 0});
        serve(all);
        leaveToken();
    });
}

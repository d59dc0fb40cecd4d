/// What the module and the software token cost a host together.

#include <iostream>
#include <map>
#include <span>

#include "call_benchmarks.h"
#include "module_client.h"
#include "run_folder.h"
#include "token_stores.h"

namespace {

using namespace bench;

constexpr std::size_t largest = 500;

/// Makes each token once, but for the one that is filled, with keys and certificates that are made once.
void plugIn(const TokenSize& size) {
    static const Keys keys = makeKeys(largest);
    static const std::vector<softtoken::Bytes> certificates = makeCertificates(keys);
    static std::map<std::pair<std::size_t, std::size_t>, TokenStore> stores;
    const auto key = std::pair(size.keyPairs, size.certificates);
    if (size == fillable) stores.erase(key);
    if (stores.find(key) == stores.end()) {
        stores.emplace(key, TokenStore(keys, size.keyPairs, std::span(certificates).first(size.certificates)));
    }
    stores.at(key).use();
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        const support::RunFolder folder;
        useUsualConfiguration();
        registerCallBenchmarks(plugIn);
        return runBenchmarks(argc, argv);
    } catch (const std::exception& problem) {
        std::cerr << "token_benchmark: " << problem.what() << '\n';
        return 1;
    }
}

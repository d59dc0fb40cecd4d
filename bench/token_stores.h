/// What the benchmark of the software token works on: a folder for the run, stores with one token and many key pairs,
/// and the log level file, whose reads can be counted.

#ifndef ZENTAK_BENCH_TOKEN_STORES_H
#define ZENTAK_BENCH_TOKEN_STORES_H

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "keys.h"

namespace bench {

/// A temporary folder. The module finds its configuration in it, without a log level.
class RunFolder {
public:
    RunFolder();
    RunFolder(const RunFolder&) = delete;
    RunFolder& operator=(const RunFolder&) = delete;
    ~RunFolder();

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// The keys of a token, in their order on it: RSA-2048 and P-256 by turns, the first one RSA. A key pair's number is
/// its place, from 1; its CKA_ID is that number as text.
using Keys = std::vector<softtoken::Key>;
Keys makeKeys(std::size_t count);

/// A store with one token that holds the first `count` of the keys. A PIN's key derivation costs next to nothing.
struct TokenStore {
    TokenStore(const RunFolder& folder, const Keys& keys, std::size_t count);

    /// Makes it the store of modules that are initialised from now on, and of processes started from now on.
    void use() const;
    /// Of the token's file, in bytes.
    [[nodiscard]] std::size_t fileSize() const;

    std::filesystem::path root;
    std::string serialNumber;
};

/// How often the work reads the log level, on an average of some repetitions.
double countLogLevelReads(const RunFolder& folder, const std::function<void()>& work);

/// What one look for a log level that isn't there costs, in microseconds.
double logLevelReadCost(const RunFolder& folder);

}  // namespace bench

#endif

#include "token_stores.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <sys/inotify.h>
#include <unistd.h>

#include "module_client.h"
#include "samples.h"
#include "token_changes.h"

namespace bench {

namespace fs = std::filesystem;

RunFolder::RunFolder() {
    std::string pattern = fs::temp_directory_path() / "zentak-benchmark-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
    path_ = pattern;
    setenv("ZENTAK_CONFIG", path_.c_str(), 1);
}

RunFolder::~RunFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

Keys makeKeys(std::size_t count) {
    Keys keys;
    for (std::size_t i = 0; i < count; ++i) {
        keys.push_back(softtoken::generateKey(*softtoken::keyTypeOfCode(i % 2 == 0 ? 2 : 5)));
    }
    return keys;
}

TokenStore::TokenStore(const RunFolder& folder, const Keys& keys, std::size_t count)
    : root(folder.path() / ("tokens-" + std::to_string(count))) {
    softtoken::Store store(root);
    softtoken::NewToken settings;
    settings.label = "Benchmark";
    settings.model = "ZS1 Software";
    settings.userPin = userPin;
    settings.iterations = 1;
    serialNumber = softtoken::createToken(store, settings);
    const softtoken::SecretBytes tokenKey = store.checkPin(serialNumber, softtoken::Role::user, userPin);
    store.change(serialNumber, [&](softtoken::TokenData& token) {
        for (std::size_t i = 0; i < count; ++i) {
            const std::string id = std::to_string(i + 1);
            softtoken::NewKeyPair pair;
            pair.alias = "key " + id;
            pair.objectId.assign(id.begin(), id.end());
            softtoken::addKeyPair(token, tokenKey, keys.at(i).get(), pair);
        }
    });
}

void TokenStore::use() const {
    setenv("ZENTAK_TOKENS", root.c_str(), 1);
}

std::size_t TokenStore::fileSize() const {
    return fs::file_size(softtoken::Store(root).pluggedTokenFile(serialNumber));
}

double countLogLevelReads(const RunFolder& folder, const std::function<void()>& work) {
    constexpr int repetitions = 16;
    const fs::path file = folder.path() / "logLevel";
    std::ofstream(file) << '\x02';  // the level that holds without a file
    const int watcher = inotify_init1(IN_NONBLOCK);
    // Openings and closings take turns: equal events in a row would be told as one.
    if (watcher < 0 || inotify_add_watch(watcher, file.c_str(), IN_OPEN | IN_CLOSE_NOWRITE) < 0) {
        throw std::runtime_error("cannot watch the log level's file");
    }
    for (int i = 0; i < repetitions; ++i) work();
    int opened = 0;
    inotify_event event{};
    char events[16384];
    for (ssize_t size = 0; (size = read(watcher, events, sizeof events)) > 0;) {
        for (ssize_t place = 0; place < size; place += static_cast<ssize_t>(sizeof event + event.len)) {
            std::memcpy(&event, events + place, sizeof event);
            if ((event.mask & IN_OPEN) != 0) ++opened;
        }
    }
    close(watcher);
    fs::remove(file);
    return static_cast<double>(opened) / repetitions;
}

double logLevelReadCost(const RunFolder& folder) {
    const std::string file = folder.path() / "logLevel";
    return quartiles(sample(2000, [&] { static_cast<void>(open(file.c_str(), O_RDONLY | O_CLOEXEC)); })).median;
}

}  // namespace bench

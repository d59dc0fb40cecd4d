#include "log_level_reads.h"

#include <cstring>
#include <stdexcept>
#include <sys/inotify.h>
#include <unistd.h>

#include "log_level.h"
#include "module_client.h"
#include "platform/operating_system.h"
#include "run_folder.h"
#include "samples.h"

namespace bench {

namespace {

std::filesystem::path levelFile() {
    return support::runFolder() / "config" / "logLevel";
}

}  // namespace

double countLogLevelReads(const std::function<void()>& work) {
    constexpr int repetitions = 16;
    const OwnConfiguration configuration;
    support::setLogLevel(support::errorLevel);  // the one that holds without a file
    const int watcher = inotify_init1(IN_NONBLOCK);
    // Openings and closings take turns: equal events in a row would be told as one.
    if (watcher < 0 || inotify_add_watch(watcher, levelFile().c_str(), IN_OPEN | IN_CLOSE_NOWRITE) < 0) {
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
    support::removeLogLevel();
    return static_cast<double>(opened) / repetitions;
}

double logLevelReadCost() {
    return quartiles(sample(2000, [] { static_cast<void>(zentak::platform::readLogLevelByte()); })).median;
}

}  // namespace bench

/// One call of an operation of the scripted library: its record, its faults and its answer.

#ifndef ZENTAK_TESTS_SUPPORT_SCRIPTED_CALL_H
#define ZENTAK_TESTS_SUPPORT_SCRIPTED_CALL_H

#include <algorithm>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "scripted_library.h"

namespace scripted {

struct Device::Hidden {
    struct PendingFault {
        Fault fault;
        int callsToGo;
    };

    std::mutex mutex;  ///< guards everything here, and the world itself while an operation answers
    std::vector<std::string> calls;
    std::thread::id testThread;
    std::vector<std::string> polls;
    std::vector<std::string> shownToMonitor;
    std::map<std::string, int, std::less<>> counts;
    std::list<PendingFault> faults;
    void* instance = nullptr;
    int instancesGiven = 0;
    unsigned char instanceMarks[16] = {};  ///< instances are addresses of these, so that a stale one is recognised
    std::deque<unsigned char> contexts;    ///< a hash context is the address of one
    std::vector<ZentakKeyPair> keyPairList;
    std::vector<ZentakCertificate> certificateList;
    int buffersHandedOut = 0;
    unsigned char* lastHandedOut = nullptr;  ///< the module has freed it meanwhile
    int strangeInstances = 0;
    /// What the last call was given, for tests that look at the memory during the call or afterwards.
    const char* passwordGiven = nullptr;
    const unsigned char* keyReferenceGiven = nullptr;
};

/// Copies `source` into an area of that capacity, as far as it fits.
inline void copyInto(unsigned char* area, const Bytes& source, std::size_t capacity) {
    std::copy_n(source.begin(), std::min(source.size(), capacity), area);
}

/// Operation name of a zentak_getConnectedDeviceList that the module's monitor makes.
inline constexpr std::string_view poll = "poll";

/// Made first thing in an operation, which names its arguments in their order and then calls `perform`.
class Call {
public:
    explicit Call(const char* operation, Device& device = scripted::device());

    Call& text(const char* value);
    Call& password(const char* value);
    Call& bytes(const unsigned char* value, int length);
    Call& number(long long value);
    Call& boolean(bool value);
    Call& inOut(const int* value);
    Call& out(const void* area);
    Call& keyReference(const unsigned char* value);
    Call& instance(const void* value);
    Call& context(const void* value);
    Call& texts(const std::vector<std::string>& values);
    Call& certificate(const ZentakCertificate* value);
    Call& pfx(const ImportPFXDetails* value);
    Call& keyPair(const ZentakKeyPair* value);
    /// What most operations with a token begin with: its name, the key in question, the PIN.
    Call& user(const char* deviceId, const char* pin) { return text(deviceId).password(pin); }
    Call& key(const char* deviceId, const unsigned char* keyId, const char* pin) {
        return text(deviceId).keyReference(keyId).password(pin);
    }

    /// Records the call, runs the faults that strike it (the lock isn't held then), and answers: `answer(device,
    /// result)` is called under the lock with the status that this call has.
    template <typename Answer>
    auto perform(Answer answer, int defaultResult = 0) {
        const std::optional<int> overridden = recordAndStrike();
        const std::lock_guard lock(hidden_.mutex);
        return answer(device_, overridden.value_or(configuredResult(defaultResult)));
    }

    /// For an operation that does nothing but answer with that status.
    int answer() {
        return perform([](Device&, int result) { return result; });
    }

private:
    Call& argument(const char* text);
    /// `makeText` is called only for a record: benchmarks do without, and the time for the text isn't the module's.
    template <typename MakeText>
    Call& argument(const MakeText& makeText);
    std::optional<int> recordAndStrike();
    int configuredResult(int defaultResult) const;

    const char* operation_;
    Device& device_;
    Device::Hidden& hidden_;
    std::unique_lock<std::mutex> lock_;
    std::string text_;
    bool first_ = true;
};

}  // namespace scripted

#endif

/// The scripted device library: a second ZentakDSCLibrary that a test plays. It records every call with all its
/// arguments and answers what the test says. It lies in a folder of its own under the library's real file name, so the
/// module is tested as it ships.
///
/// A test program links to it, takes `scripted::device()` and sets what the world looks like; the module, loaded into
/// the same process, meets that world through the ordinary operations. Everything here may be used while other threads
/// are inside the library, except the references that `Device` hands out to its plain members: change those while no
/// call is running, or inside `Device::change`.
///
/// The module's monitor thread asks for the connected devices whenever it likes. What it asks is kept apart from a
/// test's own calls, and what it sees is set apart: see `showToMonitor`.

#ifndef ZENTAK_TESTS_SUPPORT_SCRIPTED_LIBRARY_H
#define ZENTAK_TESTS_SUPPORT_SCRIPTED_LIBRARY_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "device/zentak_dsc_library.h"

#if !defined(_WIN32)
#define SCRIPTED_API
#elif defined(SCRIPTED_LIBRARY_BUILD)
#define SCRIPTED_API __declspec(dllexport)
#else
#define SCRIPTED_API __declspec(dllimport)
#endif

namespace scripted {

using Bytes = std::vector<unsigned char>;

/// What an operation throws when a fault says so.
enum class Throw { nothing, badAlloc, exception, somethingElse };

/// One deviation from the world: it strikes the `nth` call of `operation` counted from when it was added (1 is the next
/// one), once. First the delay, then the action, then the throw or the result. An operation that returns `bool` takes
/// `result` as a number (0 false); one that returns no status ignores it.
struct Fault {
    std::string operation;  ///< with its prefix: "zentak_signHash"
    int nth = 1;
    std::optional<int> result = std::nullopt;
    Throw thrown = Throw::nothing;
    std::chrono::milliseconds delay{0};
    std::function<void()> action = nullptr;  ///< run inside the call, without the device's lock
};

/// The world that the library shows, and the record of what was asked of it.
class SCRIPTED_API Device {
public:
    // --- What is there. `reset` gives the defaults named here. ------------------------------------------------------

    /// zentak_createInstance leaves the instance null while false. Default true.
    bool givesInstance = true;
    /// Answer of zentak_getConnectedDeviceList. Default empty.
    std::vector<std::string> connectedDevices;
    /// Answers of zentak_getTokenInfo; a device that isn't here has an empty `TokenInfo`.
    std::map<std::string, TokenInfo> tokenInfo;
    /// Answers of the two list operations; a device that isn't here has an empty list. Both operations copy the answer
    /// into one list of the library's own, which their next call (for any device) overwrites, and return that.
    std::map<std::string, std::vector<ZentakKeyPair>> keyPairs;
    std::map<std::string, std::vector<ZentakCertificate>> certificates;
    /// Answers of zentak_getCertificateDetails by DER; a certificate that isn't here gives `unknownCertificateResult`.
    std::map<Bytes, CertificateDetails> certificateDetails;
    int unknownCertificateResult = 77;
    /// Answers of the three name operations by DER; empty for one that isn't here.
    std::map<Bytes, Bytes> subjects;
    std::map<Bytes, Bytes> issuers;
    std::map<Bytes, Bytes> serials;
    /// Status results by operation name, for every call until changed; 0 for one that isn't here. For
    /// zentak_changeUserPassword the number is its bool, and one that isn't here means true.
    std::map<std::string, int> results;
    /// Written through the attempts-left and failure-count addresses, on success and on failure.
    int attemptsLeft = 5;
    int failureCount = 0;
    /// Written by zentak_finalHash (at most the capacity given) with its length. Default 32 bytes 0xD0, 0xD1, …
    Bytes digest;
    /// When set, the length that zentak_finalHash, zentak_signHash and zentak_encrypt report instead of the true one.
    std::optional<int> reportedLength;
    /// Written by zentak_signHash. Default 256 bytes 0x50, 0x51, …
    Bytes signature;
    /// Written by zentak_encrypt, and handed out (malloc) by zentak_decrypt and zentak_ecdhDerive; an empty
    /// `plaintext` or `sharedSecret` still hands out a buffer (of one byte) with length 0. A failing call hands out
    /// nothing unless `handsOutOnFailure`.
    Bytes ciphertext;
    Bytes plaintext;
    Bytes sharedSecret;
    bool handsOutOnFailure = false;
    /// When set, zentak_decrypt and zentak_ecdhDerive succeed with a null pointer instead, and report this length.
    std::optional<int> lengthOfNothing;
    /// Answer of zentak_getFilesWithExtensionsAndConvertDER.
    std::vector<std::pair<std::string, Bytes>> files;
    /// Written by the operations that make something: `id`, `keyId` and `publicKey` (with its length) of this record
    /// by zentak_generateKeyPair, `keyId` by zentak_importPfx, and `importedCertificateId` as `certId` by
    /// zentak_importCertificate. Nothing is added to the lists above: a test's `Fault::action` can.
    ZentakKeyPair generated = {};
    Bytes importedCertificateId;
    /// zentak_generateRamdomNumber repeats these bytes over the output area. Default 00 01 … FF.
    Bytes random;

    // --- What was asked ----------------------------------------------------------------------------------------------

    /// The calls since the last `takeCalls` (or `reset`), in order, one text each:
    ///
    ///     zentak_validatePassword("SN1", "1234", 1, *0, instance)
    ///
    /// A text argument stands in double quotes, bytes with their length as <0A1B> followed by ", " and the length as
    /// the caller gave it, a null pointer of either kind as null (then the length). A number is decimal, a boolean
    /// true or false, an in/out number *N with the value on entry, an output area or output pointer `out` (null: null),
    /// a key reference <32 hexadecimal digits>. The instance is `instance` when it is the one given out, `null`, or
    /// `foreign`; a hash context is `context#N` by its order of creation since `reset`, `null`, or `foreign`. Records:
    /// {…} with `name=value` for each field that the caller fills, in record order:
    ///
    ///     zentak_importCertificate("SN1", "1234", {der=<30820A>, objectId=<01>, label="mail"}, instance)
    ///     zentak_importPfx(…, {components=[<C1>, <>, <D1>, <E1>, <>, <>, <>, <>], keyUsage=3, label="k",
    ///         objectId=<01>, extra=<>}, instance)
    ///     zentak_generateKeyPair(…, {objectId=<01>, objectIdLength=1, alias="k", keyUsage=1, keyType=2}, instance)
    ///
    /// A list of texts is ["a", "b"]. Byte lengths that are negative show no bytes: <?>, -1. Of more than 4096 bytes
    /// the first eight are shown: <0001020304050607...>, 100000.
    std::vector<std::string> takeCalls();
    /// Number of calls of one operation since `reset`, whatever `takeCalls` took.
    int countOf(std::string_view operation) const;
    /// Buffers handed out by zentak_decrypt and zentak_ecdhDerive since `reset`.
    int buffersHandedOut() const;
    /// False stops the recording (a stress test would fill the memory). Default true.
    std::atomic<bool> records = true;
    /// Calls since `reset` with an instance that isn't the one given out: one that was released before, perhaps.
    int strangeInstances() const;
    /// False while nobody holds an instance: before zentak_createInstance and after zentak_releaseInstance.
    bool hasInstance() const;

    // --- The monitor
    // --------------------------------------------------------------------------------------------------

    /// A poll is a call of zentak_getConnectedDeviceList from another thread than the one that called `reset` last.
    /// What polls answer is set here; `reset` makes it nothing. The operation name of a poll's faults is "poll".
    void showToMonitor(std::vector<std::string> devices);
    /// The polls since the last `takePolls` (or `reset`): poll(false, instance).
    std::vector<std::string> takePolls();
    /// Waits until `count` polls have begun since the last `takePolls` (or `reset`); the module has dealt with all but
    /// the last of them then. False when that takes longer than any host would wait.
    bool waitForPolls(std::size_t count) const;

    // --- Changing the world ------------------------------------------------------------------------------------------

    void addFault(Fault fault);
    /// Forgets the faults that haven't struck.
    void dropFaults();
    /// Runs `change` while no other thread is inside an operation's answer.
    void change(const std::function<void(Device&)>& change);
    /// Everything as at the start: defaults, no record, no faults; the instance stays.
    void reset();

    Device();
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    struct Hidden;  // what the operations need and no test does
    Hidden& hidden() const { return *hidden_; }
    bool isPoll() const;  ///< whether the calling thread is the module's monitor

private:
    Hidden* hidden_;
};

/// The one device library in this process.
SCRIPTED_API Device& device();

}  // namespace scripted

#endif

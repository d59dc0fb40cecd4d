// What a test holds in its hands: the world, and the record of what was asked.

#include "scripted_call.h"

namespace scripted {
namespace {

Bytes countingBytes(int first, std::size_t count) {
    Bytes bytes;
    for (std::size_t i = 0; i < count; ++i) {
        bytes.push_back(static_cast<unsigned char>(static_cast<std::size_t>(first) + i));
    }
    return bytes;
}

}  // namespace

Device::Device() : hidden_(new Hidden) {
    reset();
}

Device::~Device() {
    delete hidden_;
}

std::vector<std::string> Device::takeCalls() {
    const std::lock_guard lock(hidden_->mutex);
    return std::exchange(hidden_->calls, {});
}

int Device::countOf(std::string_view operation) const {
    const std::lock_guard lock(hidden_->mutex);
    const auto found = hidden_->counts.find(operation);
    return found == hidden_->counts.end() ? 0 : found->second;
}

bool Device::isPoll() const {
    const std::lock_guard lock(hidden_->mutex);
    return std::this_thread::get_id() != hidden_->testThread;
}

void Device::showToMonitor(std::vector<std::string> devices) {
    const std::lock_guard lock(hidden_->mutex);
    hidden_->shownToMonitor = std::move(devices);
}

std::vector<std::string> Device::takePolls() {
    const std::lock_guard lock(hidden_->mutex);
    return std::exchange(hidden_->polls, {});
}

bool Device::waitForPolls(std::size_t count) const {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const auto seen = [&] {
        const std::lock_guard lock(hidden_->mutex);
        return hidden_->polls.size();
    };
    while (seen() < count) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

int Device::buffersHandedOut() const {
    const std::lock_guard lock(hidden_->mutex);
    return hidden_->buffersHandedOut;
}

int Device::strangeInstances() const {
    const std::lock_guard lock(hidden_->mutex);
    return hidden_->strangeInstances;
}

bool Device::hasInstance() const {
    const std::lock_guard lock(hidden_->mutex);
    return hidden_->instance != nullptr;
}

void Device::addFault(Fault fault) {
    const std::lock_guard lock(hidden_->mutex);
    const int callsToGo = fault.nth;
    hidden_->faults.push_back({std::move(fault), callsToGo});
}

void Device::dropFaults() {
    const std::lock_guard lock(hidden_->mutex);
    hidden_->faults.clear();
}

void Device::change(const std::function<void(Device&)>& change) {
    const std::lock_guard lock(hidden_->mutex);
    change(*this);
}

void Device::reset() {
    const std::lock_guard lock(hidden_->mutex);
    givesInstance = true;
    connectedDevices.clear();
    tokenInfo.clear();
    keyPairs.clear();
    certificates.clear();
    certificateDetails.clear();
    unknownCertificateResult = 77;
    subjects.clear();
    issuers.clear();
    serials.clear();
    results.clear();
    attemptsLeft = 5;
    failureCount = 0;
    digest = countingBytes(0xD0, 32);
    reportedLength.reset();
    signature = countingBytes(0x50, 256);
    ciphertext.clear();
    plaintext.clear();
    sharedSecret.clear();
    handsOutOnFailure = false;
    lengthOfNothing.reset();
    files.clear();
    generated = {};
    importedCertificateId.clear();
    random = countingBytes(0, 256);
    records = true;

    hidden_->testThread = std::this_thread::get_id();
    hidden_->calls.clear();
    hidden_->polls.clear();
    hidden_->shownToMonitor.clear();
    hidden_->counts.clear();
    hidden_->faults.clear();
    hidden_->contexts.clear();
    hidden_->buffersHandedOut = 0;
    hidden_->strangeInstances = 0;
}

Device& device() {
    // Never destroyed: a host may leave while another thread is still inside the library.
    static Device& theDevice = *new Device;
    return theDevice;
}

}  // namespace scripted

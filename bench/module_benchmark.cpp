/// What the module itself costs a host: the scripted device library behind it answers at once. Its own part, a copy of
/// a list for each question for it, is measured beside it, and so is the log.

#include <algorithm>
#include <iostream>
#include <memory>

#include "call_benchmarks.h"
#include "log_level.h"
#include "module.h"
#include "module_client.h"
#include "platform/operating_system.h"
#include "records.h"
#include "run_folder.h"
#include "scripted_library.h"

namespace {

using namespace bench;
using support::Bytes;

constexpr const char* serialNumber = "SN1";

Bytes idOf(std::size_t number) {
    const std::string text = std::to_string(number);
    return {text.begin(), text.end()};
}

std::string labelOf(std::size_t number) {
    return "key " + std::to_string(number);
}

ZentakKeyPair keyPairOf(std::size_t number) {
    const auto type = number % 2 == 1 ? support::rsa2048 : support::p256;
    ZentakKeyPair keyPair = support::makeKeyPair(static_cast<std::uint32_t>(number), type);
    support::setObjectId(keyPair, idOf(number));
    support::setAlias(keyPair, labelOf(number));
    return keyPair;
}

ZentakCertificate certificateOf(std::size_t number) {
    constexpr std::size_t usualLength = 900;
    Bytes der = support::countingBytes(0x30, usualLength);
    const Bytes id = idOf(number);
    std::copy(id.begin(), id.end(), der.end() - 8);
    ZentakCertificate certificate = support::makeCertificate(static_cast<std::uint32_t>(number), der);
    support::setObjectId(certificate, id);
    support::setLabel(certificate, labelOf(number));
    return certificate;
}

void plugIn(const TokenSize& size) {
    scripted::Device& device = scripted::device();
    device.reset();
    device.records = false;
    device.showToMonitor({serialNumber});
    device.connectedDevices = {serialNumber};
    device.tokenInfo[serialNumber] = support::makeTokenInfo(serialNumber);
    device.ciphertext = support::countingBytes(0, 256);
    device.plaintext = support::countingBytes(0, 32);
    device.sharedSecret = support::countingBytes(0, 32);
    for (std::size_t number = 1; number <= size.keyPairs; ++number) {
        device.keyPairs[serialNumber].push_back(keyPairOf(number));
    }
    for (std::size_t number = 1; number <= size.certificates; ++number) {
        device.certificates[serialNumber].push_back(certificateOf(number));
    }
    // For imports; those on the token have labels and so need no details.
    device.unknownCertificateResult = 0;
}

void registerLibraryBenchmarks() {
    for (const std::size_t count : {1U, 10U, 100U, 500U}) {
        const std::string size = std::to_string(count);
        registerBenchmark("library's list of key pairs/" + size + "/1", [count]() -> std::function<void()> {
            enterToken({count, 1});
            return [] { zentak_getKeyPairList(serialNumber, nullptr); };
        });
        registerBenchmark("library's list of certificates/1/" + size, [count]() -> std::function<void()> {
            enterToken({1, count});
            return [] { zentak_getCertificateList(serialNumber, nullptr); };
        });
    }
}

/// The log level as long as it lives.
struct LogLevel {
    explicit LogLevel(int level) { support::setLogLevel(level); }
    LogLevel(const LogLevel&) = delete;
    LogLevel& operator=(const LogLevel&) = delete;
    ~LogLevel() { support::removeLogLevel(); }

    OwnConfiguration configuration;
};

/// One line of the log at DEBUG level, by what is configured: C_GetSessionInfo has one.
void registerLogBenchmarks() {
    registerBenchmark("look for the log level", []() -> std::function<void()> {
        return [] { static_cast<void>(zentak::platform::readLogLevelByte()); };
    });
    const auto withLevel = [](int level) {
        return [level]() -> std::function<void()> {
            const Subjects& subjects = enterToken({10, 10});
            return [work = hostOperation("C_GetSessionInfo").prepare(subjects),
                    configured = std::make_shared<LogLevel>(level)] { work(); };
        };
    };
    registerBenchmark("log line left out by level 2", withLevel(support::errorLevel));
    registerBenchmark("log line written at level 3", withLevel(support::debugLevel));
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        const support::RunFolder folder;
        useUsualConfiguration();
        // The one that the program is beside is not the folder of the module, which lies where it always does.
        useModule(support::moduleFile().parent_path().parent_path() / support::moduleFile().filename());
        registerCallBenchmarks(plugIn);
        registerLibraryBenchmarks();
        registerLogBenchmarks();
        return runBenchmarks(argc, argv);
    } catch (const std::exception& problem) {
        std::cerr << "module_benchmark: " << problem.what() << '\n';
        return 1;
    }
}

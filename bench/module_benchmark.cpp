/// What the module itself costs an application: the scripted device library behind it answers at once. Its own part, a
/// copy of a list for each question for it, is measured beside it, and so is the log.

#include <algorithm>
#include <memory>

#include "log_level.h"
#include "measurables.h"
#include "module.h"
#include "platform/operating_system.h"
#include "records.h"
#include "run_folder.h"
#include "scripted_library.h"

namespace {

using namespace bench;
using support::Bytes;

constexpr const char* serialNumber = "SN1";

void name(auto& record, void (*setLabel)(decltype(record), std::string_view), std::size_t number) {
    const std::string id = std::to_string(number);
    support::setObjectId(record, {id.begin(), id.end()});
    setLabel(record, "key " + id);
}

ZentakKeyPair keyPairOf(std::size_t number) {
    const auto type = number % 2 == 1 ? support::rsa2048 : support::p256;
    ZentakKeyPair keyPair = support::makeKeyPair(static_cast<std::uint32_t>(number), type);
    name(keyPair, support::setAlias, number);
    return keyPair;
}

ZentakCertificate certificateOf(std::size_t number) {
    constexpr std::size_t usualLength = 900;
    Bytes der = support::countingBytes(0x30, usualLength);
    // No two are the same.
    der[usualLength - 2] = static_cast<unsigned char>(number / 256);
    der[usualLength - 1] = static_cast<unsigned char>(number % 256);
    ZentakCertificate certificate = support::makeCertificate(static_cast<std::uint32_t>(number), der);
    name(certificate, support::setLabel, number);
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

/// The library's own part of what the module does with its lists.
void addLibraryMeasurables(std::vector<Measurable>& all) {
    for (const std::size_t count : {1U, 10U, 100U, 500U}) {
        for (const bool ofKeys : {true, false}) {
            const TokenSize size = ofKeys ? TokenSize{count, 1} : TokenSize{1, count};
            all.push_back({ofKeys ? "library's list of key pairs" : "library's list of certificates", Kind::other, size,
                           [=]() -> Work {
                               enterToken(size);
                               if (ofKeys) return [] { zentak_getKeyPairList(serialNumber, nullptr); };
                               return [] { zentak_getCertificateList(serialNumber, nullptr); };
                           }});
        }
    }
}

/// One line of the log at DEBUG level, by what is configured: C_GetSessionInfo has one.
void addLogMeasurables(std::vector<Measurable>& all) {
    all.push_back({"look for the log level", Kind::other, ordinary,
                   [] { return [] { static_cast<void>(zentak::platform::readLogLevelByte()); }; }});
    const auto withLevel = [&all](const char* name, int level) {
        all.push_back({name, Kind::other, ordinary, [level]() -> Work {
                           return [work = operation("C_GetSessionInfo").prepare(enterToken(ordinary)),
                                   configured = std::make_shared<LogLevel>(level)] { work(); };
                       }});
    };
    withLevel("log line left out by level 2", support::errorLevel);
    withLevel("log line written at level 3", support::debugLevel);
}

void run() {
    const support::RunFolder folder;
    useUsualConfiguration();
    // The one that the program is beside is not the folder of the module, which is where it always is.
    useModule(support::moduleFile().parent_path().parent_path() / support::moduleFile().filename());
    usePlugIn(plugIn);
    std::vector<Measurable> all = callMeasurables();
    addLibraryMeasurables(all);
    addLogMeasurables(all);
    serve(all);
    leaveToken();
}

}  // namespace

int main() {
    return runProgram("module_benchmark", run);
}

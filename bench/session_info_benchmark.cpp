/// What the module itself costs a host, a device library that answers at once behind it: the emptiest call of a session
/// (frame, session lookup, and the log level read afresh for the DEBUG line that isn't written), and a signature.

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>

#include "frame/cryptoki.h"
#include "scripted_library.h"

namespace {

CK_FUNCTION_LIST_PTR cryptoki = nullptr;
CK_SESSION_HANDLE session = CK_INVALID_HANDLE;

void require(CK_RV result, const char* call) {
    if (result != CKR_OK) {
        throw std::runtime_error(std::string(call) + " returned " + std::to_string(result));
    }
}

/// The folder named by ZENTAK_CONFIG, empty for the run: what another logLevel costs is not what is measured.
class EmptyConfigurationFolder {
public:
    EmptyConfigurationFolder() {
        std::string pattern = std::filesystem::temp_directory_path() / "zentak-benchmark-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make a temporary folder");
        }
        path_ = pattern;
        setenv("ZENTAK_CONFIG", path_.c_str(), 1);
    }
    ~EmptyConfigurationFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    EmptyConfigurationFolder(const EmptyConfigurationFolder&) = delete;
    EmptyConfigurationFolder& operator=(const EmptyConfigurationFolder&) = delete;

private:
    std::filesystem::path path_;
};

ZentakKeyPair rsaKeyPair(std::uint32_t id) {
    ZentakKeyPair keyPair = {};
    keyPair.id = id;
    keyPair.keyId[0] = static_cast<unsigned char>(id);
    keyPair.publicKeyLength = 256;
    keyPair.keyUsage = 3;
    keyPair.keyType = 2;
    return keyPair;
}

void plugInTokenWithTenKeyPairs() {
    scripted::Device& device = scripted::device();
    device.records = false;
    device.connectedDevices = {"SN1"};
    device.tokenInfo["SN1"].serialNumber = "SN1";
    device.tokenInfo["SN1"].model = "AB1X";
    for (std::uint32_t id = 1; id <= 10; ++id) {
        device.keyPairs["SN1"].push_back(rsaKeyPair(id));
    }
}

void openUserSession(const std::filesystem::path& modulePath) {
    void* module = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        throw std::runtime_error(dlerror());
    }
    auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
    require(getFunctionList(&cryptoki), "C_GetFunctionList");
    require(cryptoki->C_Initialize(nullptr), "C_Initialize");
    CK_SLOT_ID slot = 0;
    CK_ULONG count = 1;
    require(cryptoki->C_GetSlotList(CK_TRUE, &slot, &count), "C_GetSlotList");
    require(cryptoki->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), "C_OpenSession");
    std::string pin = "12345678";
    require(cryptoki->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), pin.size()), "C_Login");
}

/// The floor of every call: one attempt to open the logLevel file that isn't there.
void missingLogLevelFile(benchmark::State& state) {
    const std::string path = std::string(std::getenv("ZENTAK_CONFIG")) + "/logLevel";
    for (auto unused : state) {
        benchmark::DoNotOptimize(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    }
}
BENCHMARK(missingLogLevelFile);

void sessionInfo(benchmark::State& state) {
    CK_SESSION_INFO information;
    for (auto unused : state) {
        require(cryptoki->C_GetSessionInfo(session, &information), "C_GetSessionInfo");
        benchmark::DoNotOptimize(information);
    }
}
BENCHMARK(sessionInfo);

/// The last of the ten key pairs, so that the lookup walks over all of them.
void signWithTenKeyPairs(benchmark::State& state) {
    constexpr CK_OBJECT_HANDLE lastKey = 0x7000000A;
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_BYTE data[64] = {};
    CK_BYTE signature[1024];
    for (auto unused : state) {
        CK_ULONG length = sizeof signature;
        require(cryptoki->C_SignInit(session, &mechanism, lastKey), "C_SignInit");
        require(cryptoki->C_Sign(session, data, sizeof data, signature, &length), "C_Sign");
        benchmark::DoNotOptimize(signature);
    }
}
BENCHMARK(signWithTenKeyPairs);

}  // namespace

int main(int argc, char* argv[]) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    try {
        const EmptyConfigurationFolder configuration;
        plugInTokenWithTenKeyPairs();
        openUserSession(std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../libZentakPKCS11.so");
        benchmark::RunSpecifiedBenchmarks();
        require(cryptoki->C_Finalize(nullptr), "C_Finalize");
    } catch (const std::exception& problem) {
        std::cerr << "session_info_benchmark: " << problem.what() << '\n';
        return 1;
    }
    return 0;
}

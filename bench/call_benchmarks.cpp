#include "call_benchmarks.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <iostream>
#include <memory>
#include <string_view>

#include "host_operations.h"

namespace bench {

namespace {

/// An everyday token.
constexpr TokenSize ordinary = {10, 10};

/// Key pairs and certificates grow apart from each other, so that one can tell what each of them costs.
constexpr std::array<TokenSize, 7> sizes = {{{1, 1}, {10, 1}, {100, 1}, {500, 1}, {1, 10}, {1, 100}, {1, 500}}};
constexpr std::array<std::string_view, 7> growing = {"search by id",
                                                     "search by label",
                                                     "find everything",
                                                     "4 attributes, private key",
                                                     "4 attributes, certificate",
                                                     "RSA-2048 signature",
                                                     "RSA-2048 verification"};

struct Plugged {
    explicit Plugged(const TokenSize& wanted) : size(wanted), subjects(session, size.keyPairs, size.certificates) {}

    TokenSize size;
    UserSession session;
    Subjects subjects;
};

PlugIn& plugInToken() {
    static PlugIn function;
    return function;
}

std::unique_ptr<Plugged>& plugged() {
    static std::unique_ptr<Plugged> token;
    return token;
}

bool failed = false;

void unplug() {
    plugged().reset();
}

/// The first signature of a host, from C_Initialize on.
void initialiseAndSign() {
    const UserSession session;
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_BYTE data[32] = {};
    CK_BYTE signature[1024];
    CK_ULONG length = sizeof signature;
    const CK_OBJECT_HANDLE key = session.privateKeys("1").at(0);
    require(cryptoki().C_SignInit(session.handle(), &mechanism, key), "C_SignInit");
    require(cryptoki().C_Sign(session.handle(), data, sizeof data, signature, &length), "C_Sign");
}

std::string nameOf(const std::string& operation, const TokenSize& size) {
    return operation + "/" + std::to_string(size.keyPairs) + "/" + std::to_string(size.certificates);
}

/// The module as a host finds it that has just initialised it.
struct Initialised {
    Initialised() {
        unplug();
        plugInToken()(ordinary);
        require(cryptoki().C_Initialize(nullptr), "C_Initialize");
    }
    Initialised(const Initialised&) = delete;
    Initialised& operator=(const Initialised&) = delete;
    ~Initialised() { cryptoki().C_Finalize(nullptr); }
};

std::function<void()> initialiseAndFinalize() {
    const Initialised before;
    return [] {
        require(cryptoki().C_Initialize(nullptr), "C_Initialize");
        require(cryptoki().C_Finalize(nullptr), "C_Finalize");
    };
}

std::function<void()> openAndCloseAllSessions() {
    auto module = std::make_shared<Initialised>();
    CK_SLOT_ID slot = 0;
    CK_ULONG count = 1;
    require(cryptoki().C_GetSlotList(CK_TRUE, &slot, &count), "C_GetSlotList");
    return [module, slot] {
        CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
        require(cryptoki().C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), "C_OpenSession");
        require(cryptoki().C_CloseAllSessions(slot), "C_CloseAllSessions");
    };
}

void registerOperation(const Operation& operation, const TokenSize& size) {
    registerBenchmark(nameOf(operation.name, size), [&operation, size] { return operation.prepare(enterToken(size)); });
}

double quantile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    return values.at(static_cast<std::size_t>(part * static_cast<double>(values.size() - 1)));
}

}  // namespace

void registerBenchmark(const std::string& name, std::function<std::function<void()>()> prepare) {
    benchmark::internal::Benchmark& added =
        *benchmark::RegisterBenchmark(name.c_str(), [prepare](benchmark::State& state) {
            try {
                const std::function<void()> work = prepare();
                for ([[maybe_unused]] auto unused : state) work();
            } catch (const std::exception& problem) {
                failed = true;
                state.SkipWithError(problem.what());
            }
        });
    added.ComputeStatistics("first quartile", [](const std::vector<double>& values) { return quantile(values, 0.25); });
    added.ComputeStatistics("third quartile", [](const std::vector<double>& values) { return quantile(values, 0.75); });
#if defined(_WIN32)
    // The processor's time is counted in ticks of some milliseconds there.
    added.UseRealTime();
#endif
}

const Subjects& enterToken(const TokenSize& size) {
    if (!plugged() || plugged()->size != size) {
        unplug();
        plugInToken()(size);
        plugged() = std::make_unique<Plugged>(size);
    }
    return plugged()->subjects;
}

void registerCallBenchmarks(PlugIn plugIn) {
    plugInToken() = std::move(plugIn);
    for (const Operation& operation : hostOperations()) {
        if (operation.kind == Operation::Kind::filling) {
            registerBenchmark(operation.name, [&operation] { return operation.prepare(enterToken(fillable)); });
        } else {
            registerOperation(operation, ordinary);
        }
    }
    for (const std::string_view name : growing) {
        for (const TokenSize& size : sizes) registerOperation(hostOperation(std::string(name)), size);
    }
    registerBenchmark(nameOf("C_OpenSession, C_CloseAllSessions", ordinary), openAndCloseAllSessions);
    registerBenchmark(nameOf("C_Initialize, C_Finalize", ordinary), initialiseAndFinalize);
    registerBenchmark(nameOf("C_Initialize to signature", ordinary), [] {
        unplug();
        plugInToken()(ordinary);
        return initialiseAndSign;
    });
}

int runBenchmarks(int argc, char* argv[]) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    unplug();
    return failed ? 1 : 0;
}

}  // namespace bench

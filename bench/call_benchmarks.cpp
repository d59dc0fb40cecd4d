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
    for (const Operation& operation : hostOperations()) registerOperation(operation, ordinary);
    for (const std::string_view name : growing) {
        for (const TokenSize& size : sizes) registerOperation(hostOperation(std::string(name)), size);
    }
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

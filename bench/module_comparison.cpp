/// The module with the software token beside another PKCS #11 module, with the same keys and certificates: two clients
/// measure the same operation by turns, so that whatever else the machine does hits both alike. Writes one line an
/// operation and token size, separated by tabs:
///
///   PAIRS  OPERATION  KIND  OURS  QUARTILES  THEIRS  QUARTILES  RATIO  QUARTILES
///
/// with times in microseconds. A ratio is ours to theirs, of neighbouring measurements, and its median is told.
///
///   module_comparison MODULE ROUNDS [PAIRS...]

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "client_process.h"
#include "host_operations.h"
#include "module.h"
#include "module_client.h"
#include "run_folder.h"
#include "samples.h"
#include "test_certificates.h"
#include "token_stores.h"

namespace {

using namespace bench;

constexpr double batchMicroseconds = 1000;  ///< how long one turn takes, about

const char* kindName(Operation::Kind kind) {
    switch (kind) {
        case Operation::Kind::stored:
            return "stored";
        case Operation::Kind::changing:
            return "changing";
        case Operation::Kind::wholeToken:
            return "whole";
        default:
            return "other";
    }
}

/// A token of the other module in a folder of its own, and the module's configuration for it.
void makePeer(const std::string& module, const std::filesystem::path& folder, const Keys& keys,
              const std::vector<softtoken::Bytes>& certificates, std::size_t pairs) {
    std::filesystem::create_directories(folder / "tokens");
    std::ofstream(folder / "configuration") << "directories.tokendir = " << (folder / "tokens").string()
                                            << "\nobjectstore.backend = file\nlog.level = ERROR\n";
    setenv("SOFTHSM2_CONF", (folder / "configuration").c_str(), 1);
    const std::filesystem::path pem = folder / "keys.pem";
    {
        std::ofstream file(pem);
        for (std::size_t i = 0; i < pairs; ++i) {
            file << softtoken::pemPrivateKey(keys.at(i)) << softtoken::pemCertificate(certificates.at(i));
        }
    }
    ClientProcess filling({"comparison_client", module, "fill", pem.string()});
    filling.finish();
}

void compare(const Operation& operation, std::size_t pairs, ClientProcess& ours, ClientProcess& theirs, int rounds) {
    const std::string name = operation.name;
    const auto turn = [&](ClientProcess& client, int repetitions) {
        return std::stod(client.ask(std::to_string(repetitions) + " " + name));
    };
    const auto repetitionsFor = [&](ClientProcess& client) {
        turn(client, 1);
        const double once = turn(client, 1);
        const double often = turn(client, static_cast<int>(std::max(1.0, std::min(1000.0, 500 / once))));
        return static_cast<int>(std::max(1.0, std::min(100000.0, batchMicroseconds / often)));
    };
    const int ourRepetitions = repetitionsFor(ours);
    const int theirRepetitions = repetitionsFor(theirs);
    Samples times[2];
    Samples ratios;
    // A change of the token reaches the disk, and an RSA key takes as long as chance will have it.
    if (operation.kind == Operation::Kind::changing) rounds = (rounds + 2) / 3;
    for (int round = 0; round < rounds; ++round) {
        // The one that begins changes, so that neither is always the one that finds the other's traces in the caches.
        const bool oursFirst = round % 2 == 0;
        for (const bool isOurs : {oursFirst, !oursFirst}) {
            times[isOurs ? 0 : 1].push_back(isOurs ? turn(ours, ourRepetitions) : turn(theirs, theirRepetitions));
        }
        ratios.push_back(times[0].back() / times[1].back());
    }
    std::printf("%zu\t%s\t%s", pairs, operation.name, kindName(operation.kind));
    for (const Samples& samples : {times[0], times[1], ratios}) {
        const Quartiles spread = quartiles(samples);
        std::printf("\t%.4g\t%.4g\t%.4g", spread.median, spread.first, spread.third);
    }
    std::printf("\n");
    std::fflush(stdout);
}

void run(const std::string& module, int rounds, const std::vector<std::size_t>& sizes) {
    const support::RunFolder folder;
    useUsualConfiguration();
    const Keys keys = makeKeys(*std::max_element(sizes.begin(), sizes.end()));
    const std::vector<softtoken::Bytes> certificates = makeCertificates(keys);
    for (const std::size_t pairs : sizes) {
        const TokenStore store(keys, pairs, std::span(certificates).first(pairs));
        store.use();
        makePeer(module, support::runFolder() / ("peer-" + std::to_string(pairs)), keys, certificates, pairs);
        const std::string ourModule = support::moduleFile().string();
        ClientProcess ours({"comparison_client", ourModule, "measure", std::to_string(pairs)});
        ClientProcess theirs({"comparison_client", module, "measure", std::to_string(pairs)});
        for (ClientProcess* client : {&ours, &theirs}) client->expect("ready");
        for (const Operation& operation : hostOperations()) {
            const bool compared =
                operation.kind != Operation::Kind::uncompared && operation.kind != Operation::Kind::filling;
            if (compared) compare(operation, pairs, ours, theirs, rounds);
        }
        for (ClientProcess* client : {&ours, &theirs}) client->finish();
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc < 3) {
        std::cerr << "usage: module_comparison MODULE ROUNDS [PAIRS...]\n";
        return 2;
    }
    try {
        std::vector<std::size_t> sizes;
        for (int i = 3; i < argc; ++i) sizes.push_back(std::stoul(argv[i]));
        if (sizes.empty()) sizes = {10, 100, 500};
        run(argv[1], std::stoi(argv[2]), sizes);
    } catch (const std::exception& problem) {
        std::cerr << "module_comparison: " << problem.what() << '\n';
        return 1;
    }
    return 0;
}

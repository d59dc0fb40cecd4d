/// What the module and the software token cost an application together: without arguments, a process that measures
/// that.
///
///   token_benchmark FOLDER PAIRS CERTIFICATES KEYS.pem
///
/// makes FOLDER a store with one token that holds so many key pairs and certificates, and KEYS.pem a file of the same
/// keys, each followed by a certificate, for benchmarks that run in other processes.

#include <algorithm>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "run_folder.h"
#include "test_certificates.h"
#include "token_stores.h"

namespace {

using namespace bench;

void makeToken(const char* const* arguments) {
    const Keys keys = makeKeys(std::stoul(arguments[1]));
    const std::vector<softtoken::Bytes> certificates = makeCertificates(keys);
    const std::size_t onToken = std::min<std::size_t>(std::stoul(arguments[2]), certificates.size());
    makeStore(arguments[0], keys, keys.size(), std::span(certificates).first(onToken));
    std::ofstream file(arguments[3]);
    for (std::size_t i = 0; i < keys.size(); ++i) {
        file << softtoken::pemPrivateKey(keys[i]) << softtoken::pemCertificate(certificates[i]);
    }
    if (!file.flush()) throw std::runtime_error(std::string("cannot write ") + arguments[3]);
}

void measure() {
    const support::RunFolder folder;
    useUsualConfiguration();
    usePlugIn(plugInSoftwareToken);
    serve(callMeasurables());
    leaveToken();
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 1 && argc != 5) {
        std::cerr << "usage: token_benchmark [FOLDER PAIRS CERTIFICATES KEYS.pem]\n";
        return 2;
    }
    return runProgram("token_benchmark", [&] { argc == 1 ? measure() : makeToken(argv + 1); });
}

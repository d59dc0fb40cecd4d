/// What the software token costs, beside the same work done by OpenSSL directly with a loaded key.
///
/// Operations are measured in three ways by turns, a few of each at a time, so that whatever else the machine does hits
/// all three alike: OpenSSL; the module; and the device library at its boundary, without the module. A row's ratio and
/// difference are medians over the rounds. The module reads its log level for every line of its log, written or not;
/// how often is counted, because on some machines that alone is much of a short operation.

#include <cstdio>
#include <iostream>
#include <openssl/pem.h>
#include <stdexcept>
#include <unistd.h>

#include "crypto_work.h"
#include "log_level_reads.h"
#include "module_client.h"
#include "platform/files.h"
#include "run_folder.h"
#include "samples.h"
#include "start_costs.h"
#include "token_stores.h"

namespace {

using namespace bench;

const char* verdict(bool kept) {
    return kept ? "ok" : "OVER";
}

struct Row {
    const char* name;
    std::function<Bytes()> Work::*operation;
    double ratioLimit;       ///< to OpenSSL; 0 for none
    double differenceLimit;  ///< to OpenSSL, in microseconds; 0 for none
};

constexpr Row rows[] = {
    {"RSA-2048 signature", &Work::rsaSign, 1.05, 0},
    {"RSA-2048 decryption v1.5", &Work::rsaDecrypt, 1.05, 0},
    {"RSA-2048 decryption OAEP", &Work::rsaDecryptOaep, 1.05, 0},
    {"RSA-2048 verification", &Work::rsaVerify, 1.3, 0},
    {"P-256 signature", &Work::ecSign, 0, 7},
    {"P-256 verification", &Work::ecVerify, 1.15, 0},
    {"P-256 ECDH", &Work::derive, 1.0, 0},
};

void compare(const Row& row, const Work& direct, const Work& module, const Work& boundary, double levelReadCost) {
    constexpr int rounds = 60;
    constexpr int batch = 15;
    Samples times[3];
    Samples ratios;
    Samples differences;
    for (int round = 0; round < rounds; ++round) {
        int way = 0;
        for (const Work* work : {&direct, &module, &boundary}) {
            times[way++].push_back(quartiles(sample(batch, work->*row.operation)).median);
        }
        ratios.push_back(times[1].back() / times[0].back());
        differences.push_back(times[1].back() - times[0].back());
    }
    const double reads = countLogLevelReads(module.*row.operation);
    const Quartiles ratio = quartiles(ratios);
    const Quartiles difference = quartiles(differences);
    const double withoutLog = quartiles(times[1]).median - reads * levelReadCost;
    const bool byRatio = row.ratioLimit > 0;
    char limit[32];
    std::snprintf(limit, sizeof limit, byRatio ? "%.2f" : "+%.0f", byRatio ? row.ratioLimit : row.differenceLimit);
    const bool kept = byRatio ? ratio.median <= row.ratioLimit : difference.median <= row.differenceLimit;
    std::printf("%-26s", row.name);
    for (const Samples& samples : times) {
        const Quartiles spread = quartiles(samples);
        std::printf(" %7.1f (%7.1f-%7.1f)", spread.median, spread.first, spread.third);
    }
    std::printf(" %5.2f (%.2f-%.2f) %+6.1f  %5.1f %7.1f  %6s %s\n", ratio.median, ratio.first, ratio.third,
                difference.median, reads, withoutLog, limit, verdict(kept));
    std::fflush(stdout);
}

void compareOperations(const TokenStore& store, const Keys& keys, std::size_t count) {
    store.use();
    const UserSession session;
    const Subject subject(keys, store, count);
    const Work direct = openSslWork(subject);
    const Work module = moduleWork(subject, session);
    const Work boundary = boundaryWork(subject);
    requireSameResults(subject, direct, module, boundary, session);
    const double levelReadCost = logLevelReadCost();
    std::printf("Medians (quartiles) in microseconds, %zu key pairs. A look for the log level takes %.2f.\n\n", count,
                levelReadCost);
    std::printf("%-26s %25s %25s %25s %17s %7s  %5s %7s  %6s\n", "operation", "OpenSSL", "module", "device library",
                "module / OpenSSL", "differ", "level", "module", "limit");
    std::printf("%-26s %25s %25s %25s %17s %7s  %5s %7s\n", "", "", "", "", "", "ence", "reads", "without");
    for (const Row& row : rows) compare(row, direct, module, boundary, levelReadCost);
}

void generateAndDestroy(CK_SESSION_HANDLE session) {
    CK_KEY_TYPE type = CKK_EC;
    CK_BYTE curve[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    CK_ATTRIBUTE publicTemplate = {CKA_EC_PARAMS, curve, sizeof curve};
    CK_ATTRIBUTE privateTemplate = {CKA_KEY_TYPE, &type, sizeof type};
    CK_MECHANISM mechanism = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    CK_OBJECT_HANDLE publicKey = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE privateKey = CK_INVALID_HANDLE;
    require(cryptoki().C_GenerateKeyPair(session, &mechanism, &publicTemplate, 1, &privateTemplate, 1, &publicKey,
                                         &privateKey),
            "C_GenerateKeyPair");
    require(cryptoki().C_DestroyObject(session, privateKey), "C_DestroyObject");
}

/// Beside the least that it can cost: OpenSSL makes a pair, and a file of the token's size is replaced twice.
void measureChanges(const TokenStore& store, std::size_t count, double limitMilliseconds) {
    constexpr int rounds = 100;
    store.use();
    const UserSession session;
    const std::string content(store.fileSize(), 'x');
    Samples whole;
    Samples floor;
    for (int round = 0; round < rounds; ++round) {
        whole.push_back(sample(1, [&] { generateAndDestroy(session.handle()); }).front());
        floor.push_back(sample(1, [&] {
                            softtoken::generateKey(*softtoken::keyTypeOfCode(5));
                            for (int i = 0; i < 2; ++i) softtoken::replaceFile(support::runFolder() / "floor", content);
                        }).front());
    }
    const Quartiles time = quartiles(whole);
    const Quartiles least = quartiles(floor);
    std::printf("%-34s %6.2f (%.2f-%.2f) ms, OpenSSL and two flushed files %6.2f (%.2f-%.2f) ms, limit %.0f ms  %s\n",
                ("generate, destroy at " + std::to_string(count) + " pairs").c_str(), time.median / 1e3,
                time.first / 1e3, time.third / 1e3, least.median / 1e3, least.first / 1e3, least.third / 1e3,
                limitMilliseconds, verdict(time.median / 1e3 < limitMilliseconds));
    std::fflush(stdout);
}

/// A token's store in memory, where the system has a folder for that: a login flushes the file of the PIN's attempts,
/// and what a disk takes for it may change by the minute.
class StoreInMemory {
public:
    explicit StoreInMemory(const TokenStore& store) {
        std::filesystem::remove_all(root_);
        std::filesystem::copy(store.root, root_, std::filesystem::copy_options::recursive);
        support::setEnvironment("ZENTAK_TOKENS", root_.string());
    }
    StoreInMemory(const StoreInMemory&) = delete;
    StoreInMemory& operator=(const StoreInMemory&) = delete;
    ~StoreInMemory() { std::filesystem::remove_all(root_); }

private:
    const std::filesystem::path root_ = "/dev/shm/zentak-benchmark-" + std::to_string(getpid());
};

void measureStart(const std::string& where, std::size_t count, const std::filesystem::path& keyFile) {
    constexpr int rounds = 25;
    const std::string lastRsaId = std::to_string(count % 2 == 0 ? count - 1 : count);
    Samples direct;
    Samples module;
    Samples ratios;
    for (int round = 0; round < rounds; ++round) {
        direct.push_back(startCost({"openssl", keyFile}).milliseconds);
        module.push_back(startCost({"module", lastRsaId}).milliseconds);
        ratios.push_back(module.back() / direct.back());
    }
    const Quartiles ratio = quartiles(ratios);
    std::printf("%-34s %6.2f ms, OpenSSL alone %6.2f ms, ratio %.2f (%.2f-%.2f), limit 1.6  %s\n",
                ("start, sign at " + std::to_string(count) + " pairs, " + where).c_str(), quartiles(module).median,
                quartiles(direct).median, ratio.median, ratio.first, ratio.third, verdict(ratio.median <= 1.6));
    std::fflush(stdout);
}

void measureMemory(const TokenStore& store, std::size_t count, const std::filesystem::path& keyFile) {
    store.use();
    const double own = startCost({"nothing"}).peakMegabytes;
    const double direct = startCost({"openssl", keyFile}).peakMegabytes;
    const double one = startCost({"module", "1"}).peakMegabytes;
    const double all = startCost({"module-all"}).peakMegabytes;
    std::printf(
        "peak memory at %zu pairs: program %.1f MB; on top of it OpenSSL alone %.1f, the module %.1f with one key "
        "used (limit 10  %s), %.1f with all used\n",
        count, own, direct - own, one - own, verdict(one - own < 10), all - own);
}

void writeKey(const softtoken::Key& key, const std::filesystem::path& file) {
    const softtoken::Bio output(BIO_new_file(file.c_str(), "w"));
    if (!output || PEM_write_bio_PrivateKey(output.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        throw std::runtime_error("cannot write a key");
    }
}

void run() {
    const support::RunFolder folder;
    useUsualConfiguration();
    const Keys keys = makeKeys(500);
    const TokenStore one(keys, 1);
    const TokenStore ten(keys, 10);
    const TokenStore hundred(keys, 100);
    const TokenStore fiveHundred(keys, 500);
    const std::filesystem::path keyFile = support::runFolder() / "key.pem";
    writeKey(keys.front(), keyFile);

    compareOperations(hundred, keys, 100);
    std::printf("\n");
    measureChanges(ten, 10, 2);
    measureChanges(fiveHundred, 500, 5);
    for (const auto& [store, count] : {std::pair(&one, 1), {&fiveHundred, 500}}) {
        store->use();
        measureStart("on disk", static_cast<std::size_t>(count), keyFile);
        if (!std::filesystem::is_directory("/dev/shm")) continue;
        const StoreInMemory inMemory(*store);
        measureStart("in memory", static_cast<std::size_t>(count), keyFile);
    }
    measureMemory(fiveHundred, 500, keyFile);
}

}  // namespace

int main() {
    try {
        run();
    } catch (const std::exception& problem) {
        std::cerr << "software_token_benchmark: " << problem.what() << '\n';
        return 1;
    }
    return 0;
}

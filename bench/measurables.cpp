#include "measurables.h"

#include <array>
#include <chrono>
#include <ctime>
#include <iostream>
#include <memory>

namespace bench {

namespace {

const char* nameOf(Kind kind) {
    return kind == Kind::stored ? "stored" : kind == Kind::changing ? "changing" : "other";
}

[[maybe_unused]] bool waitsForTheDisk(Kind kind) {
    return kind == Kind::changing || kind == Kind::waiting || kind == Kind::filling;
}

/// The processor's time of this thread, which other programs don't lengthen; of what waits for the disk, the time that
/// passes. Windows counts the processor's time in ticks of some milliseconds.
double microsecondsNow([[maybe_unused]] Kind kind) {
#if !defined(_WIN32)
    if (!waitsForTheDisk(kind)) {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
    }
#endif
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Other lines come from modules: ours says there when it can't write its log.
void answer(const std::string& text) {
    std::cout << "\n= " << text << std::endl;
}

/// Key pairs and certificates grow apart from each other, so that one can tell what each of them costs.
constexpr std::array<TokenSize, 7> sizes = {{{1, 1}, {10, 1}, {100, 1}, {500, 1}, {1, 10}, {1, 100}, {1, 500}}};
constexpr std::array<const char*, 7> growing = {"search by id",
                                                "search by label",
                                                "find everything",
                                                "4 attributes, private key",
                                                "4 attributes, certificate",
                                                "RSA-2048 signature",
                                                "RSA-2048 verification"};

struct Entered {
    explicit Entered(const TokenSize& wanted) : size(wanted), subjects(session, size.keyPairs, size.certificates) {}

    TokenSize size;
    UserSession session;
    Subjects subjects;
};

PlugIn plugInToken;                // NOLINT: set once
std::unique_ptr<Entered> entered;  // NOLINT: left before the program ends

/// An everyday token, as an application finds it that has just begun.
void plugInOrdinary() {
    leaveToken();
    plugInToken(ordinary);
}

Work initialiseAndFinalize() {
    plugInOrdinary();
    return [] {
        require(p11().C_Initialize(nullptr), "C_Initialize");
        require(p11().C_Finalize(nullptr), "C_Finalize");
    };
}

/// The first signature of an application, from C_Initialize on.
Work initialiseAndSign() {
    plugInOrdinary();
    return [] {
        const UserSession session;
        const CK_OBJECT_HANDLE key = findOne(session.handle(), CKO_PRIVATE_KEY, "1");
        sign(session.handle(), CKM_SHA256_RSA_PKCS, key, Bytes(32));
    };
}

Work openAndCloseAllSessions() {
    plugInOrdinary();
    require(p11().C_Initialize(nullptr), "C_Initialize");
    const std::shared_ptr<void> initialised(nullptr, [](void*) { p11().C_Finalize(nullptr); });
    CK_SLOT_ID slot = 0;
    CK_ULONG count = 1;
    require(p11().C_GetSlotList(CK_TRUE, &slot, &count), "C_GetSlotList");
    return [initialised, slot] {
        CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
        require(p11().C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), "C_OpenSession");
        require(p11().C_CloseAllSessions(slot), "C_CloseAllSessions");
    };
}

Measurable onToken(const Operation& operation, const TokenSize& size) {
    return {operation.name, operation.kind, size, [&operation, size] { return operation.prepare(enterToken(size)); }};
}

}  // namespace

void serve(const std::vector<Measurable>& all) {
    for (const Measurable& each : all) {
        answer(each.name + '\t' + nameOf(each.kind) + '\t' + std::to_string(each.size.keyPairs) + '\t' +
               std::to_string(each.size.certificates));
    }
    answer("");
    const Measurable* current = nullptr;
    Work work;
    std::size_t place = 0;
    int repetitions = 0;
    while (std::cin >> place >> repetitions) {
        const Measurable& wanted = all.at(place);
        if (!wanted.prepare) {
            answer(std::to_string(wanted.known));
            continue;
        }
        if (current != &wanted) {
            // What it has is given back before the next one takes its own.
            work = nullptr;
            work = wanted.prepare();
            current = &wanted;
            // The first time is longer.
            work();
        }
        const double start = microsecondsNow(wanted.kind);
        for (int i = 0; i < repetitions; ++i) work();
        answer(std::to_string((microsecondsNow(wanted.kind) - start) / repetitions));
    }
}

int runProgram(const char* name, const std::function<void()>& run) {
    try {
        run();
        return 0;
    } catch (const std::exception& problem) {
        std::cerr << name << ": " << problem.what() << '\n';
        return 1;
    }
}

const Subjects& enterToken(const TokenSize& size) {
    if (!entered || entered->size != size) {
        leaveToken();
        plugInToken(size);
        entered = std::make_unique<Entered>(size);
    }
    return entered->subjects;
}

void leaveToken() {
    entered = nullptr;
}

void usePlugIn(PlugIn plugIn) {
    plugInToken = std::move(plugIn);
}

std::vector<Measurable> callMeasurables() {
    std::vector<Measurable> all;
    for (const Operation& each : operations()) {
        all.push_back(onToken(each, each.kind == Kind::filling ? fillable : ordinary));
    }
    for (const char* const name : growing) {
        for (const TokenSize& size : sizes) all.push_back(onToken(operation(name), size));
    }
    all.push_back({"C_OpenSession, C_CloseAllSessions", Kind::other, ordinary, openAndCloseAllSessions});
    all.push_back({"C_Initialize, C_Finalize", Kind::waiting, ordinary, initialiseAndFinalize});
    all.push_back({"C_Initialize to signature", Kind::waiting, ordinary, initialiseAndSign});
    return all;
}

}  // namespace bench

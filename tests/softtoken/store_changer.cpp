// A process that changes a token, for the tests that kill it or let several of them work at once.
//
//   store_changer STORE SERIAL endless REPORT        changes the token until it is killed
//   store_changer STORE SERIAL add NAME COUNT        adds certificates labelled NAME, one change each
//   store_changer STORE SERIAL guess PREFIX COUNT    brings wrong PINs, and ends with how many of them were looked at
//   store_changer STORE SERIAL login PIN COUNT       brings the right PIN
//
// A report gets a line for each change that is done.

#include "store_changer.h"

#include <cstdlib>
#include <fstream>
#include <iostream>

#include "platform/environment.h"
#include "platform/errors.h"
#include "token/token_changes.h"

#ifndef _WIN32
#include <unistd.h>

// What a killed process wrote is there without any flushing, and flushing a thousand times takes minutes on some disks.
int fsync(int /*file*/) {
    return 0;
}
int fdatasync(int /*file*/) {
    return 0;
}
#endif

namespace softtoken {

namespace {

void changeForever(Store& store, const std::string& serialNumber, const std::string& reportFile) {
    std::ofstream report(pathFromUtf8(reportFile), std::ios::binary);
    std::uint32_t state = store.load(serialNumber).lastCertificateNumber;
    std::string pin = firstPin;
    const auto changePin = [&](const std::string& newPin) {
        const OpenedToken opened = store.open(serialNumber, Role::user, pin);
        store.setPin(serialNumber, Role::user, newPin, opened, true, KeyDerivation::scrypt(1));
        pin = newPin;
    };
    for (;;) {
        for (int i = 0; i < 4; ++i) {
            state = state % largestObjectNumber + 1;
            store.change(serialNumber, [state](TokenData& token) { setState(token, state); });
            report << state << "\n" << std::flush;
        }
        changePin(secondPin);
        changePin(firstPin);
        store.unplug(serialNumber);
        store.plug(serialNumber);
    }
}

void addCertificates(Store& store, const std::string& serialNumber, const std::string& name, int count) {
    for (int i = 0; i < count; ++i) {
        store.change(serialNumber, [&](TokenData& token) {
            CertificateEntry entry;
            entry.id = static_cast<std::uint32_t>(token.certificates.size() + 1);
            entry.label = name;
            entry.der = Bytes(500, 0x30);
            token.certificates.push_back(entry);
        });
    }
}

int guess(Store& store, const std::string& serialNumber, const std::string& prefix, int count) {
    int lookedAt = 0;
    for (int i = 0; i < count; ++i) {
        try {
            store.checkPin(serialNumber, Role::user, prefix + std::to_string(i));
        } catch (const PinFailure& failure) {
            if (std::string_view(failure.what()) != "the PIN is locked") ++lookedAt;
            continue;
        }
        throw Failure(Error::internal, "a wrong PIN was accepted");
    }
    return lookedAt;
}

void login(Store& store, const std::string& serialNumber, const std::string& pin, int count) {
    for (int i = 0; i < count; ++i) store.checkPin(serialNumber, Role::user, pin);
}

}  // namespace

}  // namespace softtoken

int main(int count, char** arguments) {
    using namespace softtoken;
    try {
        if (count < 5) throw Failure(Error::invalidArgument, "arguments are missing");
        Store store(pathFromUtf8(arguments[1]));
        const std::string serialNumber = arguments[2];
        const std::string task = arguments[3];
        const int times = count > 5 ? std::atoi(arguments[5]) : 0;
        if (task == "endless") changeForever(store, serialNumber, arguments[4]);
        if (task == "add") addCertificates(store, serialNumber, arguments[4], times);
        if (task == "guess") return guess(store, serialNumber, arguments[4], times);
        if (task == "login") login(store, serialNumber, arguments[4], times);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "store_changer: " << error.what() << "\n";
        return 255;
    }
}

// A process that changes a token, for the tests that kill it or let several of them work at once.
//
//   store_changer STORE SERIAL endless REPORT        changes the token until it is killed
//   store_changer STORE SERIAL add NAME COUNT        adds certificates labelled NAME, one change each
//   store_changer STORE SERIAL guess PREFIX COUNT    brings wrong PINs
//
// A report gets a line for each change that is done.

#include "store_changer.h"

#include <cstdlib>
#include <fstream>
#include <iostream>

#include "errors.h"
#include "platform.h"
#include "token_changes.h"

namespace softtoken {

namespace {

void changeForever(Store& store, const std::string& serialNumber, const std::string& reportFile) {
    std::ofstream report(pathFromUtf8(reportFile), std::ios::binary);
    std::uint32_t state = store.load(serialNumber).lastCertificateNumber;
    std::string pin = firstPin;
    const auto changePin = [&](const std::string& newPin) {
        const SecretBytes tokenKey = store.checkPin(serialNumber, Role::user, pin);
        store.setPin(serialNumber, Role::user, newPin, tokenKey, true);
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

void guess(Store& store, const std::string& serialNumber, const std::string& prefix, int count) {
    for (int i = 0; i < count; ++i) {
        try {
            store.checkPin(serialNumber, Role::user, prefix + std::to_string(i));
        } catch (const PinFailure&) {
            continue;
        }
        throw Failure(Error::internal, "a wrong PIN was accepted");
    }
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
        if (task == "guess") guess(store, serialNumber, arguments[4], times);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "store_changer: " << error.what() << "\n";
        return 1;
    }
}

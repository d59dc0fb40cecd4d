#include "device/token.h"

#include <algorithm>

#include "device/codes.h"

namespace zentak::device {

namespace {

bool isTooLong(ByteView bytes) {
    return bytes.size() > longestInput;
}

int lengthOf(ByteView bytes) {
    return static_cast<int>(bytes.size());
}

EncryptionType encryptionTypeOf(std::int32_t keyType) {
    switch (keyType) {
        case keyTypeRsa1024:
            return EncryptionType::rsa1024;
        case keyTypeRsa3072:
            return EncryptionType::rsa3072;
        case keyTypeRsa4096:
            return EncryptionType::rsa4096;
        default:
            return EncryptionType::rsa2048;
    }
}

}  // namespace

Result Token::initialise() const {
    return Result::of(zentak_initDevice(serialNumber_, true, instance_));
}

Token::PinVerdict Token::validatePin(PinOwner owner, const std::string& pin) const {
    int attemptsLeft = 0;
    const int number =
        zentak_validatePassword(serialNumber_, pin.c_str(), static_cast<int>(owner), &attemptsLeft, instance_);
    return {Result::of(number), attemptsLeft};
}

Token::PinChange Token::changeUserPin(const std::string& oldPin, const std::string& newPin) const {
    int failureCount = 0;
    const bool succeeded = zentak_changeUserPassword(serialNumber_, oldPin.c_str(), newPin.c_str(), &failureCount,
                                                     false, false, instance_);
    return {succeeded, failureCount};
}

Result Token::fillRandom(std::span<unsigned char> output) const {
    while (!output.empty()) {
        const std::span<unsigned char> piece = output.first(std::min(output.size(), longestInput));
        // This operation takes no instance.
        const Result filled =
            Result::of(zentak_generateRamdomNumber(serialNumber_, lengthOf(piece), piece.data(), true, nullptr));
        if (!filled) {
            return filled;
        }
        output = output.subspan(piece.size());
    }
    return Result::of(0);
}

const std::vector<ZentakKeyPair>& Token::keyPairs() const {
    return zentak_getKeyPairList(serialNumber_, instance_);
}

const std::vector<ZentakCertificate>& Token::certificates() const {
    return zentak_getCertificateList(serialNumber_, instance_);
}

Result Token::updateKeyPair(const ZentakKeyPair& keyPair, const std::string& label, ByteView objectId) const {
    if (isTooLong(objectId)) {
        return Result::inputTooLong();
    }
    return Result::of(zentak_updateKeyPairDetails(serialNumber_, keyPair.keyId, pin_, label.c_str(), objectId.data(),
                                                  lengthOf(objectId), instance_));
}

Result Token::deleteKeyPair(const ZentakKeyPair& keyPair) const {
    return Result::of(zentak_deleteKeyPair(serialNumber_, keyPair.keyId, pin_, keyPair.keyFlag, instance_));
}

Result Token::importCertificate(ZentakCertificate& certificate) const {
    return Result::of(zentak_importCertificate(serialNumber_, pin_, &certificate, instance_));
}

Result Token::importPrivateKey(ImportPFXDetails& details) const {
    return Result::of(zentak_importPfx(serialNumber_, pin_, &details, instance_));
}

Result Token::generateKeyPair(ZentakKeyPair& keyPair) const {
    return Result::of(zentak_generateKeyPair(serialNumber_, pin_, &keyPair, instance_));
}

Result Token::initHash(int hashCode, void*& context) const {
    return Result::of(zentak_initHash(serialNumber_, hashCode, &context, instance_));
}

Result Token::updateHash(void* context, ByteView data) const {
    // No data is one call, too.
    do {
        const ByteView piece = data.first(std::min(data.size(), longestInput));
        const Result updated = Result::of(zentak_updateHash(context, piece.data(), lengthOf(piece), instance_));
        if (!updated) {
            return updated;
        }
        data = data.subspan(piece.size());
    } while (!data.empty());
    return Result::of(0);
}

Result Token::finalHash(void* context, OutputArea& area) const {
    return Result::of(zentak_finalHash(context, area.data(), area.length(), instance_));
}

Result Token::finalHash(void* context, std::size_t capacity, std::vector<unsigned char>& digest) const {
    OutputArea area(capacity);
    const Result finished = finalHash(context, area);
    if (finished) {
        digest = area.takeFilled();
    }
    return finished;
}

Result Token::sign(const ZentakKeyPair& keyPair, ByteView input, bool pss,
                   std::vector<unsigned char>& signature) const {
    constexpr std::size_t capacity = 1024;
    if (isTooLong(input)) {
        return Result::inputTooLong();
    }
    OutputArea area(capacity);
    const Result made = Result::of(zentak_signHash(serialNumber_, keyPair.keyId, pin_, input.data(), lengthOf(input),
                                                   area.data(), area.length(), false, instance_, pss));
    if (made) {
        signature = area.takeFilled();
    }
    return made;
}

Result Token::verify(const ZentakKeyPair& keyPair, ByteView publicKey, ByteView hash, ByteView signature,
                     bool pss) const {
    if (isTooLong(publicKey) || isTooLong(hash) || isTooLong(signature)) {
        return Result::inputTooLong();
    }
    return Result::of(zentak_verifySignatureHash(static_cast<unsigned int>(keyPair.keyType), serialNumber_, hash.data(),
                                                 lengthOf(hash), publicKey.data(), lengthOf(publicKey),
                                                 signature.data(), lengthOf(signature), instance_, pss));
}

Result Token::encrypt(const ZentakKeyPair& keyPair, ByteView publicKeyInfo, PaddingMode padding, ByteView data,
                      std::vector<unsigned char>& output) const {
    constexpr std::size_t capacity = 1024;
    if (isTooLong(data) || isTooLong(publicKeyInfo)) {
        return Result::inputTooLong();
    }
    // The only operation that isn't told the area's size.
    OutputArea area(capacity, 0);
    const Result encrypted =
        Result::of(zentak_encrypt(encryptionTypeOf(keyPair.keyType), padding, data.data(), lengthOf(data), area.data(),
                                  area.length(), publicKeyInfo.data(), lengthOf(publicKeyInfo), instance_));
    if (encrypted) {
        output = area.takeFilled();
    }
    return encrypted;
}

Result Token::decrypt(const ZentakKeyPair& keyPair, ByteView data, std::vector<unsigned char>& output) const {
    if (isTooLong(data)) {
        return Result::inputTooLong();
    }
    LibraryBuffer plaintext;
    const Result decrypted =
        Result::of(zentak_decrypt(serialNumber_, keyPair.keyId, pin_, data.data(), lengthOf(data), plaintext.address(),
                                  plaintext.length(), keyPair.keyFlag, instance_));
    if (decrypted) {
        output = plaintext.copy();
    }
    return decrypted;
}

Result Token::agreeSecret(const ZentakKeyPair& keyPair, ByteView publicData, std::vector<unsigned char>& secret) const {
    if (isTooLong(publicData)) {
        return Result::inputTooLong();
    }
    LibraryBuffer agreed;
    const int number = zentak_ecdhDerive(serialNumber_, keyPair.keyId, pin_, publicData.data(), lengthOf(publicData),
                                         agreed.address(), agreed.length(), instance_);
    if (number != 0 || agreed.isEmpty()) {
        return Result::refusal(number);
    }
    secret = agreed.copy();
    return Result::of(number);
}

}  // namespace zentak::device

// What the software token reads of files that anybody may have written: certificates, certificate authority folders and
// its own store.

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "device/zentak_dsc_library.h"
#include "platform/errors.h"
#include "platform/openssl_support.h"
#include "store/token_data.h"

namespace {

using softtoken::ByteView;

#define REQUIRE(condition) \
    if (!(condition)) __builtin_trap()

void readCertificate(const std::uint8_t* data, int size) {
    CertificateDetails details;
    const int result = zentak_getCertificateDetails(data, size, &details, nullptr);
    const auto subject = zentak_getCertificateSubject(data, size, nullptr);
    const auto issuer = zentak_getCertificateIssuer(data, size, nullptr);
    const auto serial = zentak_getCertificateSerialDER(data, size, nullptr);
    REQUIRE((result == 0) == !serial.empty());
    REQUIRE(subject.empty() == issuer.empty());
}

void readAuthorityFolder(const std::uint8_t* data, std::size_t size) {
    static const std::filesystem::path folder = [] {
        std::string pattern = std::filesystem::temp_directory_path() / "zentak-fuzz-XXXXXX";
        REQUIRE(mkdtemp(pattern.data()) != nullptr);
        return std::filesystem::path(pattern);
    }();
    std::ofstream(folder / "one.pem", std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    for (const auto& [name, der] : zentak_getFilesWithExtensionsAndConvertDER(folder.c_str(), {".pem"}, nullptr)) {
        REQUIRE(name.find("one.pem") != std::string::npos);
        if (!der.empty()) readCertificate(der.data(), static_cast<int>(der.size()));
    }
}

/// Either refused, or read and written as the same bytes.
template <typename Read, typename Write>
void readDocument(const std::string& document, const Read& read, const Write& write) {
    try {
        REQUIRE(write(read(document)) == document);
    } catch (const softtoken::Failure&) {
    }
}

/// The same for a token of any version; what was read of an older one is written in today's.
void readToken(const std::string& document) {
    readDocument(document, softtoken::readTokenData, [&](const softtoken::TokenData& token) {
        const std::string written = softtoken::writeTokenData(token);
        if (!document.starts_with("zentak-software-token 1\n")) return written;
        REQUIRE(softtoken::readTokenData(written) == token);
        return document;
    });
}

/// With a checksum that fits, or nothing would get past it.
std::string withChecksum(std::string document) {
    const auto checksum = softtoken::sha256({reinterpret_cast<const unsigned char*>(document.data()), document.size()});
    document.append(checksum.begin(), checksum.end());
    return document;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::uint8_t kind = data[0];
    const std::string content(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (kind % 6) {
        case 0:
            readCertificate(data + 1, static_cast<int>(size - 1));
            break;
        case 1:
            readAuthorityFolder(data + 1, size - 1);
            break;
        case 2:
            readToken(withChecksum("zentak-software-token 2\n" + content));
            break;
        case 3:
            readDocument(withChecksum("zentak-software-token-attempts 1\n" + content), softtoken::readAttempts,
                         softtoken::writeAttempts);
            break;
        case 4:
            readToken(withChecksum("zentak-software-token 1\n" + content));
            break;
        default:
            readToken(content);
    }
    return 0;
}

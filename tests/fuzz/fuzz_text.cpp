// The little that the module reads of other people's bytes itself: a DigestInfo, a common name; and the DER it writes.

#include <cstdint>
#include <openssl/x509.h>
#include <regex>

#include "crypto/der.h"
#include "objects/issuer_chain.h"

namespace {

#define REQUIRE(condition) \
    if (!(condition)) __builtin_trap()

void checkDigestInfo(zentak::ByteView data) {
    const zentak::ByteView hash = zentak::hashInDigestInfo(data);
    REQUIRE(hash.size() <= data.size());
    REQUIRE(hash.data() >= data.data() && hash.data() + hash.size() <= data.data() + data.size());
    if (hash.size() != data.size()) REQUIRE(hash.data()[-2] == 0x04 && hash.data()[-1] == hash.size());
}

/// The same as the regular expression says, on texts short enough for one.
void checkCommonName(std::string_view text) {
    const std::string_view name = zentak::commonNameIn(text);
    if (text.size() > 300) return;
    static const std::regex expression("CN=([^,\n\r]+)");
    std::cmatch match;
    const bool found = std::regex_search(text.data(), text.data() + text.size(), match, expression);
    REQUIRE(name == (found ? std::string_view(match[1].first, static_cast<std::size_t>(match[1].length())) : text));
}

/// OpenSSL reads the key that the module writes, and nothing is left over.
void checkSubjectPublicKeyInfo(zentak::ByteView modulus) {
    if (modulus.empty() || modulus.size() > 1024) return;
    const std::vector<unsigned char> encoded = zentak::rsaSubjectPublicKeyInfo(modulus);
    const unsigned char* position = encoded.data();
    X509_PUBKEY* const key = d2i_X509_PUBKEY(nullptr, &position, static_cast<long>(encoded.size()));
    REQUIRE(key != nullptr && position == encoded.data() + encoded.size());
    X509_PUBKEY_free(key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    checkDigestInfo({data, size});
    checkCommonName({reinterpret_cast<const char*>(data), size});
    checkSubjectPublicKeyInfo({data, size});
    return 0;
}

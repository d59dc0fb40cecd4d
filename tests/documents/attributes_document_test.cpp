// docs/attributes.md: what each attribute answers for each class, and which templates it counts in. Every attribute of
// the standard is tried; one without a row must do nothing.

#include <cctype>
#include <optional>

#include "creation_test.h"
#include "document_tables.h"

using namespace support;

namespace {

const std::string page = "docs/attributes.md";

const std::map<std::string, CK_ULONG>& attributeTypes() {
    static const std::map<std::string, CK_ULONG> types = documents::constantsWith("CKA_");
    return types;
}

/// The rows of a table of the page by attribute.
std::map<CK_ATTRIBUTE_TYPE, documents::Row> documentedAttributes(const std::string& column) {
    std::map<CK_ATTRIBUTE_TYPE, documents::Row> attributes;
    for (const documents::Row& row : documents::rowsWith(column, page)) {
        const CK_ULONG type = attributeTypes().at(row.at("Attribute"));
        EXPECT_TRUE(attributes.emplace(type, row).second) << row.at("Attribute") << " stands twice";
    }
    return attributes;
}

/// The value of a row's column, `absent` where the attribute has no row.
std::string cellOf(const std::map<CK_ATTRIBUTE_TYPE, documents::Row>& rows, CK_ATTRIBUTE_TYPE type,
                   const std::string& column, const std::string& absent) {
    const auto found = rows.find(type);
    return found == rows.end() ? absent : found->second.at(column);
}

class AttributesDocumentTest : public CreationTest {
protected:
    void SetUp() override {
        CreationTest::SetUp();
        const Bytes der = derOf(certificateFive);
        for (auto* names : {&world.subjects, &world.issuers, &world.serials}) (*names)[der] = {0x30, 0x01, 0x07};
    }

    // --- Reading
    // ------------------------------------------------------------------------------------------------------

    static constexpr std::uint32_t ecPair = 21;
    static constexpr std::uint32_t uselessPair = 22;  ///< RSA, permits nothing

    void addKeyPairs() {
        ZentakKeyPair ec = makeKeyPair(ecPair, p256);
        ZentakKeyPair useless = labelledKeyPair(uselessPair, "Useless");
        useless.keyUsage = 0;
        setAlias(ec, "On a curve");
        setObjectId(ec, {1});
        world.keyPairs["SN1"].push_back(ec);
        world.keyPairs["SN1"].push_back(useless);
    }

    /// The value; nothing where it is unavailable.
    std::optional<Bytes> read(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
        Bytes value(4096);
        CK_ATTRIBUTE entry = {type, value.data(), 4096};
        EXPECT_EQ(api->C_GetAttributeValue(session, object, &entry, 1), CKR_OK);
        if (entry.ulValueLen == CK_UNAVAILABLE_INFORMATION) return std::nullopt;
        value.resize(entry.ulValueLen);
        return value;
    }

    /// The word of the page for what objects of one class answer: one that permits everything, one that permits
    /// nothing, and one on a curve (for certificates and secrets the same object each time).
    std::string wordFor(CK_ATTRIBUTE_TYPE type, CK_OBJECT_HANDLE useful, CK_OBJECT_HANDLE useless,
                        CK_OBJECT_HANDLE onCurve) const {
        const std::optional<Bytes> first = read(useful, type);
        const std::optional<Bytes> second = read(useless, type);
        const std::optional<Bytes> curve = read(onCurve, type);
        if (!first && !curve) return "none";
        if (!first) return "EC";
        if (!curve) return "RSA";
        if (first->empty() && curve->empty()) return "empty";
        if (first->size() != 1) return "value";
        if (first != second) return *first == Bytes{CK_TRUE} && *second == Bytes{CK_FALSE} ? "usage" : "value";
        return first->front() == CK_TRUE ? "true" : "false";
    }

    // --- Templates
    // ----------------------------------------------------------------------------------------------------

    /// What a call does with a template that is given to it: everything that can be seen of it.
    using Call = std::function<Outcome(Template&)>;

    /// Whether the attribute makes a difference as the last of a template. The value is one that nobody else gives: a
    /// number and a short text at once.
    bool counts(CK_ATTRIBUTE_TYPE type, const std::function<Template()>& base, const Call& call) {
        Template without = base();
        Template with = base();
        // 3 is CKO_PRIVATE_KEY and CKK_EC; as a class it would say what the base of a key says.
        with.addNumber(type, type == CKA_CLASS ? CKO_SECRET_KEY : 3);
        const Outcome first = call(without);
        const Outcome second = call(with);
        return first.code != second.code || first.device != second.device;
    }

    void compare(const std::string& column, const std::function<bool(CK_ATTRIBUTE_TYPE)>& counts) {
        const auto rows = documentedAttributes("Derive");
        for (const auto& [name, type] : attributeTypes()) {
            EXPECT_EQ(cellOf(rows, type, column, ""), counts(type) ? "yes" : "") << name << ", " << column;
        }
    }

    Handles found(Template& wanted) { return search(session, wanted); }
};

TEST_F(AttributesDocumentTest, NumbersAreTheHeaders) {
    for (const auto& [type, row] : documentedAttributes("Derived secret")) {
        EXPECT_EQ(row.at("Number"), documents::hexadecimalNumber(type)) << row.at("Attribute");
    }
}

TEST_F(AttributesDocumentTest, ReadingGivesWhatThePageSays) {
    addKeyPairs();
    world.sharedSecret = countingBytes(1, 32);
    Bytes peer = countingBytes(1, 65);
    CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, 65, peer.data()};
    CK_MECHANISM derivation = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    CK_OBJECT_HANDLE secret = 0;
    ASSERT_EQ(api->C_DeriveKey(session, &derivation, privateKey(ecPair), nullptr, 0, &secret), CKR_OK);

    const auto rows = documentedAttributes("Derived secret");
    for (const auto& [name, type] : attributeTypes()) {
        SCOPED_TRACE(name);
        EXPECT_EQ(cellOf(rows, type, "Private key", "empty"),
                  wordFor(type, privateKey(5), privateKey(uselessPair), privateKey(ecPair)));
        EXPECT_EQ(cellOf(rows, type, "Public key", "empty"),
                  wordFor(type, publicKey(5), publicKey(uselessPair), publicKey(ecPair)));
        EXPECT_EQ(cellOf(rows, type, "Certificate", "empty"),
                  wordFor(type, certificate(5), certificate(5), certificate(5)));
        EXPECT_EQ(cellOf(rows, type, "Derived secret", "none"), wordFor(type, secret, secret, secret));
    }
}

TEST_F(AttributesDocumentTest, SearchesLookAtWhatThePageSays) {
    const auto searched = [this](CK_OBJECT_CLASS objectClass) {
        return [this, objectClass](CK_ATTRIBUTE_TYPE type) {
            Template every;
            Template some;
            every.addNumber(CKA_CLASS, objectClass);
            some.addNumber(CKA_CLASS, objectClass).addNumber(type, type == CKA_CLASS ? CKO_SECRET_KEY : 3);
            EXPECT_FALSE(found(every).empty());
            return found(some).empty();
        };
    };
    compare("Find a key", searched(CKO_PRIVATE_KEY));
    compare("Find a key", searched(CKO_PUBLIC_KEY));
    compare("Find a certificate", searched(CKO_CERTIFICATE));
}

TEST_F(AttributesDocumentTest, OnlyKeysAreSetAsThePageSays) {
    const auto set = [this](CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
        Template changed;
        changed.addNumber(type, 3);
        return observe([&] { return api->C_SetAttributeValue(session, object, changed.data(), changed.count()); });
    };
    for (const CK_OBJECT_HANDLE key : {privateKey(5), publicKey(5)}) {
        compare("Set a key", [&](CK_ATTRIBUTE_TYPE type) {
            const Outcome outcome = set(key, type);
            EXPECT_EQ(outcome.code, CKR_OK);
            return outcome.device.size() > 1;  // beside the list in which the pair is looked up
        });
    }
    for (const CK_OBJECT_HANDLE other : {certificate(5), CK_OBJECT_HANDLE{0x70003000}}) {
        EXPECT_EQ(set(other, CKA_LABEL).code, CKR_OBJECT_HANDLE_INVALID);
    }
}

TEST_F(AttributesDocumentTest, CreationLooksAtWhatThePageSays) {
    const Call creating = [this](Template& wanted) { return create(wanted); };
    const auto certificateTemplate = [this] {
        Template base;
        base.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_VALUE, leaf);
        return base;
    };
    const auto keyTemplate = [] { return rsaKeyTemplate(); };
    compare("Create a certificate",
            [&](CK_ATTRIBUTE_TYPE type) { return counts(type, certificateTemplate, creating); });
    compare("Create a key", [&](CK_ATTRIBUTE_TYPE type) { return counts(type, keyTemplate, creating); });
}

TEST_F(AttributesDocumentTest, GenerationLooksAtWhatThePageSays) {
    const auto generate = [this](Template& ofPublic, Template& ofPrivate) {
        CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
        CK_OBJECT_HANDLE keys[2];
        return observe([&] {
            return api->C_GenerateKeyPair(session, &mechanism, ofPublic.data(), ofPublic.count(), ofPrivate.data(),
                                          ofPrivate.count(), &keys[0], &keys[1]);
        });
    };
    // What the public template says depends on the key type, which the private one says.
    const auto countsForKeyType = [&](CK_KEY_TYPE keyType, bool isPrivate, CK_ATTRIBUTE_TYPE type) {
        const auto privateTemplate = [keyType] {
            Template base;
            base.addNumber(CKA_KEY_TYPE, keyType);
            return base;
        };
        const auto publicTemplate = [] {
            Template base;
            base.add(CKA_TOKEN, true);
            return base;
        };
        Template ofPublic = publicTemplate();
        Template ofPrivate = privateTemplate();
        return isPrivate ? counts(type, privateTemplate, [&](Template& wanted) { return generate(ofPublic, wanted); })
                         : counts(type, publicTemplate, [&](Template& wanted) { return generate(wanted, ofPrivate); });
    };
    for (const bool isPrivate : {true, false}) {
        compare(isPrivate ? "Generate, private" : "Generate, public", [&](CK_ATTRIBUTE_TYPE type) {
            return countsForKeyType(CKK_RSA, isPrivate, type) || countsForKeyType(CKK_EC, isPrivate, type);
        });
    }
}

TEST_F(AttributesDocumentTest, DerivationLooksAtWhatThePageSays) {
    world.sharedSecret = countingBytes(1, 32);
    Bytes peer = countingBytes(1, 65);
    CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, 65, peer.data()};
    CK_MECHANISM derivation = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    compare("Derive", [&](CK_ATTRIBUTE_TYPE type) {
        Template wanted;
        wanted.addNumber(type, 3);
        CK_OBJECT_HANDLE secret = 0;
        EXPECT_EQ(api->C_DeriveKey(session, &derivation, privateKey(5), wanted.data(), wanted.count(), &secret),
                  CKR_OK);
        return read(secret, CKA_VALUE) != world.sharedSecret;
    });
}

}  // namespace

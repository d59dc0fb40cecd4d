// Sequences of Cryptoki calls that nobody would make on purpose, on a device library that answers what it likes. Each
// return code is held against a small model of a session's operation: what is active after which answer.

#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <fuzzer/FuzzedDataProvider.h>
#include <map>
#include <vector>

#include "guarded_memory.h"
#include "module/cryptoki.h"
#include "scripted_library.h"

namespace {

using scripted::Bytes;
using scripted::device;

CK_FUNCTION_LIST_PTR api = nullptr;

#define REQUIRE(condition) \
    if (!(condition)) __builtin_trap()

constexpr CK_SLOT_ID firstSlot = 0x50000001;

/// What the model knows of a session: the operation that is active, with the numbers that the log shows.
enum Operation { none = 0, find = 1, encrypt = 2, decrypt = 3, digest = 4, sign = 5, verify = 7, cipherInDigest = 9 };

class Run {
public:
    Run(const std::uint8_t* data, std::size_t size) : input_(data, size) {}

    void go() {
        makeWorld();
        REQUIRE(api->C_Initialize(nullptr) == CKR_OK);
        CK_SLOT_ID slots[8];
        CK_ULONG count = 8;
        api->C_GetSlotList(CK_TRUE, slots, &count);
        for (int calls = 0; calls < 200 && input_.remaining_bytes() > 0; ++calls) makeCall();
        REQUIRE(api->C_Finalize(nullptr) == CKR_OK);
    }

private:
    FuzzedDataProvider input_;
    std::map<CK_SESSION_HANDLE, Operation> sessions_;
    std::vector<CK_OBJECT_HANDLE> handles_ = {0x70000001, 0x70001001, 0x70002003, 0x70003000};
    std::vector<Bytes> kept_;  ///< values that templates point at, until the end of the call
    /// A number, or the end of a label in a search, with nothing behind it that could be read.
    support::GuardedMemory lastNumber_{Bytes(sizeof(CK_ULONG))};
    CK_BYTE output_[8192] = {};
    CK_ULONG length_ = 0;

    // --- The world ---------------------------------------------------------------------------------------------------

    Bytes bytes(std::size_t most) {
        return input_.ConsumeBytes<unsigned char>(input_.ConsumeIntegralInRange<std::size_t>(0, most));
    }

    /// Fills a record with whatever comes, its lengths included.
    template <typename Record>
    Record record() {
        Record made = {};
        const Bytes content = bytes(200);
        std::copy(content.begin(), content.end(), reinterpret_cast<unsigned char*>(&made));
        return made;
    }

    ZentakKeyPair keyPair(std::uint32_t id) {
        ZentakKeyPair made = {};
        if (input_.ConsumeBool()) made = record<ZentakKeyPair>();
        made.id = id;
        made.keyType = input_.ConsumeIntegralInRange<std::int32_t>(-1, 8);
        made.keyUsage = input_.ConsumeIntegralInRange<std::uint32_t>(0, 3);
        made.publicKeyLength = input_.PickValueInArray({256, 65, 0, -1, 1024, 1025, 0x7FFFFFFF});
        made.objectIdLength = input_.PickValueInArray({0, 1, 128, 129, -5});
        made.publicKey[0] = input_.ConsumeIntegral<unsigned char>();
        return made;
    }

    void makeWorld() {
        scripted::Device& world = device();
        world.reset();
        world.records = false;
        world.connectedDevices = {"SN1"};
        world.tokenInfo["SN1"].serialNumber = "SN1";
        world.tokenInfo["SN1"].model = input_.PickValueInArray({"AB1X", "AB3X", "", "1"});
        world.showToMonitor({"SN1"});
        world.keyPairs["SN1"] = {keyPair(1), keyPair(2)};
        ZentakCertificate certificate = record<ZentakCertificate>();
        certificate.id = 3;
        certificate.derLength = input_.PickValueInArray({4, 0, -1, 3072, 3073});
        world.certificates["SN1"] = {certificate};
        world.ciphertext = bytes(300);
        world.plaintext = bytes(300);
        world.sharedSecret = bytes(80);
        world.files = {{"a.cer", bytes(20)}};
    }

    void changeWorld() {
        static const char* const operations[] = {
            // Signing, verifying and digests.
            "zentak_initHash", "zentak_updateHash", "zentak_finalHash", "zentak_signHash", "zentak_verifySignatureHash",
            // Secrets.
            "zentak_encrypt", "zentak_decrypt", "zentak_ecdhDerive", "zentak_generateRamdomNumber",
            // The token and its objects.
            "zentak_validatePassword", "zentak_initDevice", "zentak_generateKeyPair", "zentak_importCertificate",
            "zentak_updateKeyPairDetails"};
        const char* const operation = input_.PickValueInArray(operations);
        device().results[operation] = input_.PickValueInArray({0, 0, 1, 40, 48, 242, -1});
        if (input_.ConsumeBool()) {
            device().reportedLength = input_.PickValueInArray({0, 1, -1, 64, 128, 1024, 1025, 0x7FFFFFFF});
        } else {
            device().reportedLength.reset();
        }
        device().handsOutOnFailure = input_.ConsumeBool();
        if (input_.ConsumeIntegralInRange(0, 9) == 0) {
            device().addFault({.operation = operation,
                               .thrown = input_.PickValueInArray({scripted::Throw::badAlloc, scripted::Throw::exception,
                                                                  scripted::Throw::somethingElse})});
        }
    }

    // --- Arguments ---------------------------------------------------------------------------------------------------

    CK_SESSION_HANDLE session() {
        if (sessions_.empty() || input_.ConsumeIntegralInRange(0, 19) == 0)
            return input_.ConsumeIntegral<std::uint32_t>();
        auto chosen = sessions_.begin();
        std::advance(chosen, input_.ConsumeIntegralInRange<std::size_t>(0, sessions_.size() - 1));
        return chosen->first;
    }

    CK_OBJECT_HANDLE object() {
        if (input_.ConsumeIntegralInRange(0, 9) == 0) return input_.ConsumeIntegral<CK_OBJECT_HANDLE>();
        return handles_[input_.ConsumeIntegralInRange<std::size_t>(0, handles_.size() - 1)];
    }

    /// Some bytes at any alignment, sometimes none.
    CK_BYTE_PTR data(CK_ULONG& count) {
        count = 0;
        if (input_.ConsumeIntegralInRange(0, 9) == 0) {
            count = input_.ConsumeBool() ? 3 : 0;
            return nullptr;
        }
        const std::size_t offset = input_.ConsumeIntegralInRange<std::size_t>(0, 3);
        Bytes content(offset);
        const Bytes more = bytes(80);
        content.insert(content.end(), more.begin(), more.end());
        content.push_back(0);  // a label in a search is read up to its terminator
        kept_.push_back(std::move(content));
        count = more.size();
        return kept_.back().data() + offset;
    }

    CK_MECHANISM mechanism() {
        static const CK_MECHANISM_TYPE types[] = {// RSA.
                                                  CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP, CKM_RSA_PKCS_PSS, CKM_SHA1_RSA_PKCS,
                                                  CKM_SHA224_RSA_PKCS, CKM_SHA256_RSA_PKCS, CKM_SHA512_RSA_PKCS,
                                                  CKM_SHA384_RSA_PKCS_PSS,
                                                  // EC.
                                                  CKM_ECDSA, CKM_ECDSA_SHA1, CKM_ECDSA_SHA256, CKM_ECDH1_DERIVE,
                                                  // Hashes, and what there is none of.
                                                  CKM_SHA_1, CKM_SHA256, CKM_SHA512, CKM_MD5, 0xFFFFFFFF};
        CK_MECHANISM made = {input_.PickValueInArray(types), nullptr, 0};
        if (input_.ConsumeIntegralInRange(0, 3) == 0) {
            made.pParameter = data(made.ulParameterLen);
            // What is too short for a structure is a pointer nobody may follow.
        }
        return made;
    }

    std::vector<CK_ATTRIBUTE> attributes() {
        static const CK_ATTRIBUTE_TYPE types[] = {// Objects.
                                                  CKA_CLASS, CKA_TOKEN, CKA_LABEL, CKA_VALUE, CKA_ID, CKA_KEY_TYPE,
                                                  // Keys.
                                                  CKA_MODULUS, CKA_SIGN, CKA_DECRYPT, CKA_PRIME_1, CKA_EC_POINT,
                                                  CKA_EC_PARAMS, CKA_MODULUS_BITS, CKA_VALUE_LEN, CKA_PRIVATE_EXPONENT,
                                                  // Certificates.
                                                  CKA_SUBJECT, CKA_ISSUER, CKA_SERIAL_NUMBER, CKA_CERTIFICATE_TYPE};
        std::vector<CK_ATTRIBUTE> made(input_.ConsumeIntegralInRange<std::size_t>(0, 6));
        for (CK_ATTRIBUTE& attribute : made) {
            attribute.type =
                input_.ConsumeBool() ? input_.PickValueInArray(types) : input_.ConsumeIntegral<std::uint16_t>();
            if (input_.ConsumeIntegralInRange(0, 7) == 0) {
                // What reading leaves in a template that is used again; no such length is followed.
                attribute.pValue = lastNumber_.data();
                attribute.ulValueLen =
                    input_.PickValueInArray<CK_ULONG>({CK_UNAVAILABLE_INFORMATION, 0x80000000, 0xFFFFFFFF});
            } else if (input_.ConsumeBool()) {
                kept_.push_back(Bytes(sizeof(CK_ULONG)));
                const CK_ULONG number = input_.ConsumeIntegralInRange<CK_ULONG>(0, 5);
                std::copy_n(reinterpret_cast<const unsigned char*>(&number), sizeof number, kept_.back().data());
                attribute.pValue = kept_.back().data();
                attribute.ulValueLen = sizeof number;
            } else {
                attribute.pValue = data(attribute.ulValueLen);
            }
        }
        return made;
    }

    CK_BYTE_PTR target() { return input_.ConsumeIntegralInRange(0, 3) == 0 ? nullptr : output_; }
    CK_ULONG_PTR targetLength() {
        length_ = input_.ConsumeIntegralInRange<CK_ULONG>(0, sizeof output_);
        return input_.ConsumeIntegralInRange(0, 9) == 0 ? nullptr : &length_;
    }

    // --- The model ---------------------------------------------------------------------------------------------------

    bool knows(CK_SESSION_HANDLE handle, CK_RV code) const {
        const bool known = sessions_.count(handle) == 1;
        if (!known) REQUIRE(code == CKR_SESSION_HANDLE_INVALID);
        return known;
    }

    /// An Init: only from the states in `from`; `to` is what it makes of each.
    void began(CK_SESSION_HANDLE handle, CK_RV code, std::initializer_list<std::pair<Operation, Operation>> ways) {
        if (!knows(handle, code)) return;
        Operation& active = sessions_[handle];
        for (const auto& [from, to] : ways) {
            if (active == from) {
                REQUIRE(code != CKR_OPERATION_ACTIVE);
                if (code == CKR_OK) active = to;
                return;
            }
        }
        // A public session may be refused for its state before.
        REQUIRE(code == CKR_OPERATION_ACTIVE || code == CKR_SESSION_HANDLE_INVALID);
    }

    /// A call of an operation that must be active; it goes on when `goesOn` or on bad arguments.
    void used(CK_SESSION_HANDLE handle, CK_RV code, Operation needed, bool goesOn) {
        if (!knows(handle, code)) return;
        Operation& active = sessions_[handle];
        if (active != needed) {
            REQUIRE(code == CKR_OPERATION_NOT_INITIALIZED);
            return;
        }
        REQUIRE(code != CKR_OPERATION_NOT_INITIALIZED && code != CKR_BUFFER_TOO_SMALL);
        if (code != CKR_ARGUMENTS_BAD && !(code == CKR_OK && goesOn)) active = none;
    }

    // --- The calls ---------------------------------------------------------------------------------------------------

    void makeCall() {
        kept_.clear();
        switch (input_.ConsumeIntegralInRange(0, 8)) {
            case 0:
                return changeWorld();
            case 1:
                return sessionCall();
            case 2:
                return searchCall();
            case 3:
                return objectCall();
            case 4:
                return digestCall();
            case 5:
                return signCall();
            case 6:
                return verifyCall();
            case 7:
                return cipherCall();
            default:
                return keyCall();
        }
    }

    void sessionCall() {
        CK_SESSION_HANDLE handle = 0;
        CK_BYTE pin[] = {'1', '2', '3', '4'};
        CK_SESSION_INFO info;
        switch (input_.ConsumeIntegralInRange(0, 6)) {
            case 0:
                if (api->C_OpenSession(firstSlot,
                                       CKF_SERIAL_SESSION | input_.PickValueInArray<CK_FLAGS>({0, CKF_RW_SESSION}),
                                       nullptr, nullptr, &handle) == CKR_OK) {
                    REQUIRE(sessions_.emplace(handle, none).second);
                }
                break;
            case 1:
                handle = session();
                if (knows(handle, api->C_CloseSession(handle))) sessions_.erase(handle);
                break;
            case 2:
                handle = session();
                knows(handle, api->C_GetSessionInfo(handle, &info));
                break;
            case 3:
                handle = session();
                knows(handle, api->C_Login(handle, input_.ConsumeIntegralInRange<CK_USER_TYPE>(0, 2), pin, sizeof pin));
                break;
            case 4:
                handle = session();
                knows(handle, api->C_Logout(handle));
                break;
            case 5:
                handle = session();
                knows(handle, api->C_SetPIN(handle, pin, sizeof pin, pin, sizeof pin));
                break;
            default:
                if (input_.ConsumeIntegralInRange(0, 9) == 0 && api->C_CloseAllSessions(firstSlot) == CKR_OK)
                    sessions_.clear();
        }
    }

    void searchCall() {
        const CK_SESSION_HANDLE handle = session();
        switch (input_.ConsumeIntegralInRange(0, 2)) {
            case 0: {
                std::vector<CK_ATTRIBUTE> wanted = attributes();
                const CK_RV code = api->C_FindObjectsInit(handle, wanted.data(), wanted.size());
                // It takes the place of whatever is active.
                if (knows(handle, code) && code == CKR_OK) sessions_[handle] = find;
                break;
            }
            case 1: {
                CK_OBJECT_HANDLE found[4];
                CK_ULONG count = 0;
                const CK_RV code =
                    api->C_FindObjects(handle, found, input_.ConsumeIntegralInRange<CK_ULONG>(0, 4), &count);
                used(handle, code, find, true);
                if (code == CKR_OK && count > 0) handles_.push_back(found[0]);
                break;
            }
            default:
                used(handle, api->C_FindObjectsFinal(handle), find, false);
        }
    }

    void objectCall() {
        const CK_SESSION_HANDLE handle = session();
        std::vector<CK_ATTRIBUTE> wanted = attributes();
        CK_ATTRIBUTE_PTR first = wanted.empty() ? nullptr : wanted.data();
        CK_OBJECT_HANDLE made = 0;
        CK_ULONG size = 0;
        switch (input_.ConsumeIntegralInRange(0, 4)) {
            case 0:
                // Here the lengths are room that is written to.
                for (CK_ATTRIBUTE& attribute : wanted) {
                    if (attribute.pValue == lastNumber_.data()) attribute.ulValueLen = 1;
                }
                knows(handle, api->C_GetAttributeValue(handle, object(), first, wanted.size()));
                break;
            case 1:
                knows(handle, api->C_SetAttributeValue(handle, object(), first, wanted.size()));
                break;
            case 2:
                knows(handle, api->C_CreateObject(handle, first, wanted.size(), &made));
                break;
            case 3:
                knows(handle, api->C_DestroyObject(handle, object()));
                break;
            default:
                knows(handle, api->C_GetObjectSize(handle, object(), &size));
        }
    }

    void digestCall() {
        partsCall(
            digest, [](CK_SESSION_HANDLE handle, CK_MECHANISM& chosen) { return api->C_DigestInit(handle, &chosen); },
            api->C_Digest, api->C_DigestUpdate, api->C_DigestFinal);
    }

    void signCall() {
        partsCall(
            sign,
            [this](CK_SESSION_HANDLE handle, CK_MECHANISM& chosen) {
                return api->C_SignInit(handle, &chosen, object());
            },
            api->C_Sign, api->C_SignUpdate, api->C_SignFinal);
    }

    /// One call of an operation that computes something, in one part or in several.
    template <typename Init, typename Whole, typename Update, typename Final>
    void partsCall(Operation computing, const Init& init, Whole whole, Update update, Final final) {
        const CK_SESSION_HANDLE handle = session();
        CK_MECHANISM chosen = mechanism();
        CK_ULONG count = 0;
        CK_BYTE_PTR from = data(count);
        CK_BYTE_PTR to = target();
        switch (input_.ConsumeIntegralInRange(0, 3)) {
            case 0:
                return began(handle, init(handle, chosen), {{none, computing}});
            case 1:
                return used(handle, whole(handle, from, count, to, targetLength()), computing, to == nullptr);
            case 2:
                return used(handle, update(handle, from, count), computing, true);
            default:
                return used(handle, final(handle, to, targetLength()), computing, to == nullptr);
        }
    }

    void verifyCall() {
        const CK_SESSION_HANDLE handle = session();
        CK_MECHANISM chosen = mechanism();
        CK_ULONG count = 0;
        CK_BYTE_PTR from = data(count);
        CK_ULONG signatureLength = 0;
        CK_BYTE_PTR signature = data(signatureLength);
        switch (input_.ConsumeIntegralInRange(0, 3)) {
            case 0:
                return began(handle, api->C_VerifyInit(handle, &chosen, object()), {{none, verify}, {digest, verify}});
            case 1:
                return used(handle, api->C_Verify(handle, from, count, signature, signatureLength), verify, false);
            case 2:
                return used(handle, api->C_VerifyUpdate(handle, from, count), verify, true);
            default:
                return used(handle, api->C_VerifyFinal(handle, signature, signatureLength), verify, false);
        }
    }

    void cipherCall() {
        const CK_SESSION_HANDLE handle = session();
        CK_MECHANISM chosen = mechanism();
        CK_ULONG count = 0;
        CK_BYTE_PTR from = data(count);
        CK_BYTE_PTR to = target();
        switch (input_.ConsumeIntegralInRange(0, 3)) {
            case 0:
                return began(handle, api->C_EncryptInit(handle, &chosen, object()),
                             {{none, encrypt}, {digest, cipherInDigest}});
            case 1:
                return used(handle, api->C_Encrypt(handle, from, count, to, targetLength()), encrypt, to == nullptr);
            case 2:
                return began(handle, api->C_DecryptInit(handle, &chosen, object()),
                             {{none, decrypt}, {digest, cipherInDigest}});
            default:
                return used(handle, api->C_Decrypt(handle, from, count, to, targetLength()), decrypt, to == nullptr);
        }
    }

    void keyCall() {
        const CK_SESSION_HANDLE handle = session();
        CK_MECHANISM chosen = mechanism();
        std::vector<CK_ATTRIBUTE> one = attributes();
        std::vector<CK_ATTRIBUTE> other = attributes();
        CK_OBJECT_HANDLE first = 0;
        CK_OBJECT_HANDLE second = 0;
        CK_ULONG count = 0;
        CK_BYTE_PTR point = data(count);
        CK_ECDH1_DERIVE_PARAMS parameters = {input_.ConsumeIntegralInRange<CK_ULONG>(0, 7), 0, nullptr, count, point};
        CK_MECHANISM derive = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
        switch (input_.ConsumeIntegralInRange(0, 2)) {
            case 0:
                knows(handle,
                      api->C_GenerateKeyPair(handle, &chosen, one.empty() ? nullptr : one.data(), one.size(),
                                             other.empty() ? nullptr : other.data(), other.size(), &first, &second));
                break;
            case 1:
                if (api->C_DeriveKey(handle, &derive, object(), one.empty() ? nullptr : one.data(), one.size(),
                                     &first) == CKR_OK) {
                    REQUIRE(knows(handle, CKR_OK));
                    handles_.push_back(first);
                }
                break;
            default:
                knows(handle, api->C_GenerateRandom(handle, output_, input_.ConsumeIntegralInRange<CK_ULONG>(0, 600)));
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
    // No lines in the log: they would be the slowest part.
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "zentak-fuzz";
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "logLevel", std::ios::binary).put('\0');
    setenv("ZENTAK_CONFIG", folder.c_str(), 1);
    setenv("ZENTAK_HOME", folder.c_str(), 1);
    const std::filesystem::path bin = std::filesystem::canonical((*argv)[0]).parent_path().parent_path();
    void* const module = dlopen((bin / "libZentakPKCS11.so").c_str(), RTLD_NOW);
    REQUIRE(module != nullptr);
    const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
    REQUIRE(getFunctionList != nullptr && getFunctionList(&api) == CKR_OK);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run(data, size).go();
    return 0;
}

// The device library fails, throws or answers nonsense in the middle of a signature.

#include "signing_test.h"

using namespace support;

namespace {

class SigningFailureTest : public SigningTest {
protected:
    /// After a failure: nothing runs, and the next signature is as good as ever.
    void expectEndedAndUsable() {
        EXPECT_EQ(sign({1}), notInitialised("C_Sign"));
        begin(CKM_RSA_PKCS);
        EXPECT_EQ(sign({7}).device, (Lines{signHash({7})}));
        EXPECT_EQ(room.first(256), signature);
    }
};

TEST_F(SigningFailureTest, SinglePart) {
    struct Row {
        const char* operation;
        std::string reason;
        std::size_t callsMade;
    };
    const Row rows[] = {{"zentak_initHash", "ERROR init hash failed ", 1},
                        {"zentak_updateHash", "ERROR update hash failed ", 2},
                        {"zentak_finalHash", "ERROR final hash failed ", 3}};
    int contexts = 0;
    for (const int result : {1, 7, -1}) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.operation);
            if (row.callsMade > 1) ++contexts;
            Lines device = {initHash(3), updateHash(contexts, {1, 2}), finalHash(contexts)};
            device.resize(row.callsMade);
            begin(CKM_SHA256_RSA_PKCS);
            setResult(row.operation, result);
            length = 77;
            EXPECT_EQ(signSize({1, 2}), (Outcome{CKR_FUNCTION_FAILED,
                                                 {"DEBUG C_Sign", "DEBUG sign echanism : 64", text(row.reason, result)},
                                                 device}));
            EXPECT_EQ(length, 77U);
            setResult(row.operation, 0);
            expectEndedAndUsable();
        }
    }
}

TEST_F(SigningFailureTest, SinglePartSignature) {
    for (const int result : {1, 242, -1}) {
        begin(CKM_RSA_PKCS);
        setResult("zentak_signHash", result);
        EXPECT_EQ(sign({1, 2}), (Outcome{CKR_FUNCTION_FAILED,
                                         {"DEBUG C_Sign", "DEBUG sign echanism : 1",
                                          "DEBUG Sign: password empty=0 hashLen=2 session state=1",
                                          "DEBUG Sign input hash : 0102", text("ERROR Sign hash failed : ", result)},
                                         {signHash({1, 2})}}));
        EXPECT_EQ(length, 2000U);
        EXPECT_TRUE(room.untouchedFrom(0));
        setResult("zentak_signHash", 0);
        expectEndedAndUsable();
    }
}

TEST_F(SigningFailureTest, Update) {
    begin(CKM_SHA256_RSA_PKCS);
    setResult("zentak_initHash", 7);
    EXPECT_EQ(update({1}), refused(CKR_FUNCTION_FAILED, "C_SignUpdate: initHash failed 7", {initHash(3)}));
    setResult("zentak_initHash", 0);
    EXPECT_EQ(update({1}), notInitialised("C_SignUpdate"));
    expectEndedAndUsable();

    begin(CKM_SHA256_RSA_PKCS);
    setResult("zentak_updateHash", -2);
    EXPECT_EQ(update({1}),
              refused(CKR_FUNCTION_FAILED, "C_SignUpdate: updateHash failed -2", {initHash(3), updateHash(1, {1})}));
    setResult("zentak_updateHash", 0);
    EXPECT_EQ(update({1}), notInitialised("C_SignUpdate"));
    expectEndedAndUsable();
}

TEST_F(SigningFailureTest, Final) {
    beginWith(CKM_SHA256_RSA_PKCS, {1});
    setResult("zentak_finalHash", 7);
    EXPECT_EQ(finish(), refused(CKR_FUNCTION_FAILED, "C_SignFinal: finalHash failed 7", {finalHash(1)}));
    EXPECT_EQ(length, 2000U);
    EXPECT_TRUE(room.untouchedFrom(0));
    setResult("zentak_finalHash", 0);
    EXPECT_EQ(finish(), notInitialised("C_SignFinal"));
    expectEndedAndUsable();

    for (const bool hashing : {false, true}) {
        beginWith(hashing ? CKM_SHA256_RSA_PKCS : CKM_RSA_PKCS, {1});
        setResult("zentak_signHash", 48);
        EXPECT_EQ(finishSize(), refused(CKR_FUNCTION_FAILED, "C_SignFinal: signHash failed 48",
                                        hashing ? Lines{finalHash(2), signHash(digest)} : Lines{signHash({1})}));
        setResult("zentak_signHash", 0);
        EXPECT_EQ(finish(), notInitialised("C_SignFinal"));
        expectEndedAndUsable();
    }
}

TEST_F(SigningFailureTest, AThrownSizeQueryKeepsNothing) {
    begin(CKM_RSA_PKCS);
    letThrow("zentak_signHash", scripted::Throw::somethingElse);
    length = 77;
    EXPECT_EQ(signSize({1}).code, CKR_FUNCTION_FAILED);
    EXPECT_EQ(length, 77U);
    expectEndedAndUsable();
}

// A length that the library can't have meant is never followed beyond the area that was offered.
TEST_F(SigningFailureTest, ReportedLengthsBeyondTheAreaAreNotFollowed) {
    for (const int reported : {-1, INT32_MIN, 65, 1025, 5000, INT32_MAX}) {
        SCOPED_TRACE(reported);
        world.reportedLength = reported;
        for (const CK_MECHANISM_TYPE type : Numbers{CKM_RSA_PKCS, CKM_SHA256_RSA_PKCS}) {
            for (const bool multipart : {false, true}) {
                begin(type);
                Outcome outcome;
                if (multipart) {
                    ASSERT_EQ(update({1}).code, CKR_OK);
                    outcome = finish();
                } else {
                    outcome = sign({1});
                }
                EXPECT_TRUE(outcome.code == CKR_OK || outcome.code == CKR_FUNCTION_FAILED);
                if (outcome.code == CKR_OK) {
                    EXPECT_LE(length, 1024U);
                }
                for (const std::string& call : outcome.device) {
                    EXPECT_EQ(call.find(text(", ", reported, ", out, *1024")), std::string::npos) << call;
                }
                abandon();
            }
        }
    }
}

}  // namespace

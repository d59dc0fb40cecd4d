// C_FindObjects and C_FindObjectsFinal: what they refuse, and how the results are handed out.

#include "object_test.h"

using namespace support;

namespace {

/// A logged-in session with a search over two public keys, two private keys and two certificates running.
class SearchResultTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        session = openSessionIn(CKS_RW_USER_FUNCTIONS);
        ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    }

    Outcome find(CK_OBJECT_HANDLE* target, CK_ULONG room, CK_ULONG* found) {
        return observe([&] { return api->C_FindObjects(session, target, room, found); });
    }
    Outcome end() {
        return observe([&] { return api->C_FindObjectsFinal(session); });
    }
    static Outcome notSearching(const std::string& function, int active) {
        return refused(CKR_OPERATION_NOT_INITIALIZED,
                       text(function, ": operation not initialized, activeOperation=", active));
    }

    CK_SESSION_HANDLE session = 0;
    CK_OBJECT_HANDLE handles[8] = {};
    CK_ULONG count = 99;
};

TEST_F(SearchResultTest, FindObjectsAsksForASearchBeforeItsArguments) {
    ASSERT_EQ(api->C_FindObjectsFinal(session), CKR_OK);
    EXPECT_EQ(find(nullptr, 3, nullptr), notSearching("C_FindObjects", 0));
    signInit(session, CKM_RSA_PKCS, 5);
    EXPECT_EQ(find(nullptr, 3, nullptr), notSearching("C_FindObjects", 5));
}

TEST_F(SearchResultTest, FindObjectsAsksForTheHandlesBeforeTheCount) {
    EXPECT_EQ(find(nullptr, 3, nullptr),
              refused(CKR_ARGUMENTS_BAD, "C_FindObjects: phObject is NULL with ulMaxObjectCount=3"));
    EXPECT_EQ(find(nullptr, 3, &count),
              refused(CKR_ARGUMENTS_BAD, "C_FindObjects: phObject is NULL with ulMaxObjectCount=3"));
    EXPECT_EQ(count, 99U);
    EXPECT_EQ(find(handles, 3, nullptr), refused(CKR_ARGUMENTS_BAD, "C_FindObjects: pulObjectCount is NULL"));
    EXPECT_EQ(find(nullptr, 0, nullptr), refused(CKR_ARGUMENTS_BAD, "C_FindObjects: pulObjectCount is NULL"));
    // The refusals have moved nothing.
    EXPECT_EQ(next(session, 1), (Handles{publicKey(5)}));
}

TEST_F(SearchResultTest, RoomForNothingLeavesTheSearchWhereItIs) {
    const Outcome nothing = {CKR_OK,
                             {"DEBUG C_FindObjects", "DEBUG C_FindObjects find object count : 6",
                              "DEBUG C_FindObjects find object max count is 0 : 0"}};
    EXPECT_EQ(find(nullptr, 0, &count), nothing);
    EXPECT_EQ(count, 0U);
    count = 99;
    handles[0] = 77;
    EXPECT_EQ(find(handles, 0, &count), nothing);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(handles[0], 77U);
    EXPECT_EQ(next(session, 1), (Handles{publicKey(5)}));
}

TEST_F(SearchResultTest, NothingFoundAnswersBeforeTheRoomIsLookedAt) {
    ASSERT_EQ(findInit(session, Template().addNumber(CKA_CLASS, CKO_SECRET_KEY)).code, CKR_OK);
    const Outcome nothing = {CKR_OK,
                             {"DEBUG C_FindObjects", "DEBUG C_FindObjects find object count : 0",
                              "DEBUG C_FindObjects find object count 0"}};
    for (const CK_ULONG room : Numbers{0, 8}) {
        count = 99;
        EXPECT_EQ(find(handles, room, &count), nothing);
        EXPECT_EQ(count, 0U);
    }
}

TEST_F(SearchResultTest, FindObjectsLogsWhatItHandsOut) {
    handles[5] = 77;
    EXPECT_EQ(find(handles, 5, &count),
              (Outcome{CKR_OK,
                       {"DEBUG C_FindObjects", "DEBUG C_FindObjects find object count : 6",
                        "DEBUG Find object return : 1879052293", "DEBUG Find object return : 1879052294",
                        "DEBUG Find object return : 1879048197", "DEBUG Find object return : 1879048198",
                        "DEBUG Find object return : 1879056389", "DEBUG C_FindObjects find object count return : 5"}}));
    EXPECT_EQ(count, 5U);
    EXPECT_EQ(Handles(handles, handles + 6), (Handles{0x70001005, 0x70001006, 0x70000005, 0x70000006, 0x70002005, 77}));

    EXPECT_EQ(find(handles, 8, &count),
              (Outcome{CKR_OK,
                       {"DEBUG C_FindObjects", "DEBUG C_FindObjects find object count : 6",
                        "DEBUG Find object return : 1879056391", "DEBUG C_FindObjects find object count return : 1"}}));
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(handles[0], 0x70002007U);

    handles[0] = 77;
    EXPECT_EQ(find(handles, 8, &count), (Outcome{CKR_OK,
                                                 {"DEBUG C_FindObjects", "DEBUG C_FindObjects find object count : 6",
                                                  "DEBUG C_FindObjects find object count return : 0"}}));
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(handles[0], 77U);
}

TEST_F(SearchResultTest, ResultsAreHandedOutInSlices) {
    world.certificates["SN1"].pop_back();
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(next(session, 2), (Handles{publicKey(5), publicKey(6)}));
    EXPECT_EQ(next(session, 2), (Handles{privateKey(5), privateKey(6)}));
    EXPECT_EQ(next(session, 2), (Handles{certificate(5)}));
    EXPECT_EQ(next(session, 2), Handles{});
    EXPECT_EQ(next(session, 2), Handles{});
}

TEST_F(SearchResultTest, SlicesCutAcrossTheKindsOfObject) {
    EXPECT_EQ(next(session, 1), (Handles{publicKey(5)}));
    EXPECT_EQ(next(session, 2), (Handles{publicKey(6), privateKey(5)}));
    EXPECT_EQ(next(session, 1), (Handles{privateKey(6)}));
    EXPECT_EQ(next(session, 100), (Handles{certificate(5), certificate(7)}));
}

TEST_F(SearchResultTest, TheResultsAreThoseOfTheStart) {
    world.keyPairs["SN1"].clear();
    world.certificates["SN1"].clear();
    const Outcome outcome = find(handles, 8, &count);
    EXPECT_EQ(outcome.code, CKR_OK);
    EXPECT_EQ(outcome.device, Lines{});
    EXPECT_EQ(count, 6U);
}

TEST_F(SearchResultTest, EachSessionHasItsOwnSearch) {
    const CK_SESSION_HANDLE other = openSession();
    ASSERT_EQ(findInit(other, Template().addNumber(CKA_CLASS, CKO_CERTIFICATE)).code, CKR_OK);
    EXPECT_EQ(next(session, 1), (Handles{publicKey(5)}));
    EXPECT_EQ(next(other, 1), (Handles{certificate(5)}));
    EXPECT_EQ(next(session, 1), (Handles{publicKey(6)}));
    ASSERT_EQ(api->C_FindObjectsFinal(session), CKR_OK);
    EXPECT_EQ(next(other, 9), (Handles{certificate(7)}));
}

TEST_F(SearchResultTest, ASearchCanBeRestartedAtAnyTime) {
    EXPECT_EQ(next(session, 3).size(), 3U);
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_PUBLIC_KEY);
    EXPECT_EQ(findInit(session, wanted).code, CKR_OK);
    EXPECT_EQ(next(session, 9), (Handles{publicKey(5), publicKey(6)}));
    wanted.addNumber(CKA_CLASS, CKO_CERTIFICATE);
    EXPECT_EQ(findInit(session, wanted).code, CKR_OK);
    EXPECT_EQ(next(session, 9), (Handles{certificate(5), certificate(7)}));
}

TEST_F(SearchResultTest, FinalEndsTheSearch) {
    EXPECT_EQ(next(session, 1).size(), 1U);
    EXPECT_EQ(end(), succeeded("C_FindObjectsFinal"));
    EXPECT_EQ(end(), notSearching("C_FindObjectsFinal", 0));
    signInit(session, CKM_RSA_PKCS, 5);
    EXPECT_EQ(end(), notSearching("C_FindObjectsFinal", 5));
}

}  // namespace

// ContentDirectory manager: life cycle, the action table run through the
// device event manager, state variable queries, release of the response
// arguments, and the eventing of content changes.
//
// The leak checker of the sanitizer build is part of these tests: every
// request below, successful or not, must leave nothing allocated.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "clm_test_support.h"
#include "dlna_dms.h"
#include "service_test_support.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCmsApi.h"
#include "services/dmsDeviceEventMgr.h"

using servicetest::ActionRequest;
using servicetest::StateVarRequest;
using servicetest::TraceLevel;
using servicetest::responseArguments;
using servicetest::responseElement;
using Arguments = std::vector<std::pair<std::string, std::string>>;

namespace {

constexpr char kCdsId[] = "urn:upnp-org:serviceId:ContentDirectory";
constexpr char kCmsId[] = "urn:upnp-org:serviceId:ConnectionManager";

std::string actionBody(const char *action, const std::string &arguments = "") {
  return std::string("<u:") + action + " xmlns:u=\"" + DMS_CDS_SERVICE_TYPE + "\">" + arguments +
         "</u:" + action + ">";
}

std::string browseBody(const char *objectId, const char *flag, const char *filter = "*") {
  return actionBody("Browse", std::string("<ObjectID>") + objectId + "</ObjectID><BrowseFlag>" +
                                  flag + "</BrowseFlag><Filter>" + filter +
                                  "</Filter><StartingIndex>0</StartingIndex>"
                                  "<RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>");
}

std::string searchBody(const char *containerId, const char *criteria) {
  return actionBody("Search", std::string("<ContainerID>") + containerId +
                                  "</ContainerID><SearchCriteria>" + criteria +
                                  "</SearchCriteria><Filter>*</Filter>"
                                  "<StartingIndex>0</StartingIndex>"
                                  "<RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>");
}

// A server's ContentDirectory over one shared folder holding one song.
class CdsManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(dmsDevEventMgrInit(&mgr_, 1, "test-device"), 0);
    {
      clmtest::QuietTrace quiet;
      tree_.media("music/song.mp3", clmtest::kMp3);
      ASSERT_EQ(list_.create({tree_.path("music")}, 100), 0);
    }
    ASSERT_EQ(dmsCdsMgrInit(&cds_, mgr_, list_.get(), "127.0.0.1", 49152), 0);
  }
  void TearDown() override {
    EXPECT_EQ(dmsCdsMgrDeInit(cds_), 0);
    EXPECT_EQ(list_.release(), 0);
    EXPECT_EQ(dmsDevEventMgrDeInit(mgr_), 0);
  }

  // Runs an action through the device event manager, as the SDK would.
  int32_t dispatch(ActionRequest &request) {
    return dmsDevEventMgrEventProcess(mgr_, UPNP_CONTROL_ACTION_REQUEST, request.get());
  }
  int32_t notifyChange(const std::vector<uint32_t> &pairs, int32_t systemUpdateId) {
    dmsCdsContentChangeInfo change;
    change.pairs = pairs.data();
    change.pairCount = static_cast<int32_t>(pairs.size() / 2);
    change.systemUpdateId = systemUpdateId;
    return dmsCdsMgrNotifyContentChange(cds_, &change);
  }

  clmtest::TempTree tree_;
  clmtest::ListOwner list_;
  dmsDevEventMgr *mgr_ = nullptr;
  dmsCdsMgrHandle *cds_ = nullptr;
};

}  // namespace

// ---- life cycle and tables -------------------------------------------------

TEST(CdsManagerLifecycle, InitRefusesNullArgumentsAndClearsTheOutput) {
  dmsDevEventMgr *mgr = nullptr;
  ASSERT_EQ(dmsDevEventMgrInit(&mgr, 1, "u"), 0);
  auto *list = reinterpret_cast<dmsContentListInfo *>(&mgr);  // stored only, never read here
  dmsCdsMgrHandle *handle = reinterpret_cast<dmsCdsMgrHandle *>(0x1);
  EXPECT_EQ(dmsCdsMgrInit(nullptr, mgr, list, "1.2.3.4", 1), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsMgrInit(&handle, nullptr, list, "1.2.3.4", 1), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(handle, nullptr);
  handle = reinterpret_cast<dmsCdsMgrHandle *>(0x1);
  EXPECT_EQ(dmsCdsMgrInit(&handle, mgr, nullptr, "1.2.3.4", 1), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(handle, nullptr);
  handle = reinterpret_cast<dmsCdsMgrHandle *>(0x1);
  EXPECT_EQ(dmsCdsMgrInit(&handle, mgr, list, nullptr, 1), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(mgr->cdsContext, nullptr);
  EXPECT_EQ(dmsCdsMgrDeInit(nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsDevEventMgrDeInit(mgr), 0);
}

TEST(CdsManagerLifecycle, InitRegistersAndDeInitUnregisters) {
  dmsDevEventMgr *mgr = nullptr;
  ASSERT_EQ(dmsDevEventMgrInit(&mgr, 1, "u"), 0);
  auto *list = reinterpret_cast<dmsContentListInfo *>(&mgr);
  const std::string longAddress(300, '7');

  dmsCdsMgrHandle *handle = nullptr;
  ASSERT_EQ(dmsCdsMgrInit(&handle, mgr, list, longAddress.c_str(), 50001), 0);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(handle->eventMgr, mgr);
  EXPECT_EQ(handle->contentList, list);
  EXPECT_EQ(std::string(handle->serverAddress), longAddress.substr(0, 255));  // cut to fit
  EXPECT_EQ(handle->serverPort, 50001);
  EXPECT_EQ(handle->notifyCount.load(), 0u);
  EXPECT_EQ(mgr->cdsContext, handle);
  EXPECT_EQ(mgr->cdsActionCallback, dmsCdsMgrActionRequestCbf);
  EXPECT_EQ(mgr->cdsStateVarCallback, dmsCdsMgrStateVariableRequestCbf);

  EXPECT_EQ(dmsCdsMgrDeInit(handle), 0);
  EXPECT_EQ(mgr->cdsContext, nullptr);
  EXPECT_EQ(mgr->cdsActionCallback, nullptr);
  EXPECT_EQ(mgr->cdsStateVarCallback, nullptr);
  EXPECT_EQ(dmsDevEventMgrDeInit(mgr), 0);
}

TEST(CdsManagerTables, StateVariablesForSubscribers) {
  const dmsStateVarPair *table = dmsCdsMgrGetStateVarListInfo();
  ASSERT_NE(table, nullptr);
  EXPECT_STREQ(table[0].name, "ContainerUpdateIDs");
  EXPECT_STREQ(table[0].value, "");
  EXPECT_STREQ(table[1].name, "TransferIDs");
  EXPECT_STREQ(table[1].value, "");
  EXPECT_STREQ(table[2].name, "SystemUpdateID");
  EXPECT_STREQ(table[2].value, "0");
  EXPECT_EQ(table[3].name, nullptr);
}

// ---- dispatch --------------------------------------------------------------

TEST_F(CdsManagerTest, FixedAnswers) {
  struct Case {
    const char *action;
    Arguments expected;
  };
  const Case cases[] = {
      {"GetSearchCapabilities",
       {{"SearchCaps", "dc:title,upnp:class,dc:creator,res@protocolInfo"}}},
      {"GetSortCapabilities", {{"SortCaps", ""}}},
      {"GetFeatureList", {{"FeatureList", ""}}},
      {"GetSystemUpdateID", {{"Id", "0"}}},
      {"GetServiceResetToken", {{"ResetToken", "0"}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.action);
    ActionRequest request(kCdsId, c.action, actionBody(c.action).c_str());
    EXPECT_EQ(dispatch(request), 0);
    EXPECT_EQ(request.errCode(), 0);
    IXML_Element *response = responseElement(request.result());
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(std::string(ixmlNode_getNodeName(&response->n)),
              std::string("u:") + c.action + "Response");
    EXPECT_STREQ(ixmlElement_getAttribute(response, "xmlns:u"), DMS_CDS_SERVICE_TYPE);
    EXPECT_EQ(responseArguments(request.result()), c.expected);
  }
}

TEST_F(CdsManagerTest, SystemUpdateIdStaysZeroAfterChanges) {
  for (int32_t change = 1; change <= 5; ++change) {
    EXPECT_EQ(notifyChange({1001, static_cast<uint32_t>(change)}, change), 0);
  }
  EXPECT_EQ(cds_->notifyCount.load(), 5u);

  ActionRequest request(kCdsId, "GetSystemUpdateID", actionBody("GetSystemUpdateID").c_str());
  EXPECT_EQ(dispatch(request), 0);
  EXPECT_EQ(responseArguments(request.result()), (Arguments{{"Id", "0"}}));

  StateVarRequest query(kCdsId, "SystemUpdateID");
  EXPECT_EQ(dmsCdsMgrStateVariableRequestCbf(query.get(), cds_), 0);
  ASSERT_NE(query.value(), nullptr);
  EXPECT_STREQ(query.value(), "0");
}

TEST_F(CdsManagerTest, ActionNamesAreCaseSensitive) {
  for (const char *name : {"browse", "BROWSE", "Browse ", "search", "GetSystemUpdateId"}) {
    SCOPED_TRACE(name);
    ActionRequest request(kCdsId, name, browseBody("0", "BrowseMetadata").c_str());
    std::string out = captureStdout([&] {
      EXPECT_EQ(dmsCdsMgrActionRequestCbf(request.get(), cds_), DMS_ERR_UNSUPPORTED_ACTION);
    });
    EXPECT_NE(out.find(std::string("Requested Action ") + name + " is NOT supported"),
              std::string::npos)
        << out;
    EXPECT_EQ(request.result(), nullptr);
  }
  // Through the event manager: SOAP 401.
  ActionRequest request(kCdsId, "browse", browseBody("0", "BrowseMetadata").c_str());
  EXPECT_EQ(dispatch(request), DMS_ERR_UNSUPPORTED_ACTION);
  EXPECT_EQ(request.errCode(), 401);
  EXPECT_EQ(request.errStr(), "Invalid Action");
}

TEST_F(CdsManagerTest, RequestsForAnotherServiceOrWithNullsAreRefused) {
  ActionRequest request(kCmsId, "Browse", browseBody("0", "BrowseMetadata").c_str());
  std::string out = captureStdout([&] {
    EXPECT_EQ(dmsCdsMgrActionRequestCbf(request.get(), cds_), DMS_ERR_WRONG_SERVICE);
  });
  EXPECT_NE(out.find("Action request is not for CDS service. ServiceID given = " +
                     std::string(kCmsId)),
            std::string::npos)
      << out;
  EXPECT_EQ(request.result(), nullptr);

  EXPECT_EQ(dmsCdsMgrActionRequestCbf(nullptr, cds_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsMgrActionRequestCbf(request.get(), nullptr), DMS_ERR_INVALID_PARAM);
}

TEST_F(CdsManagerTest, BrowseAnswersFourArgumentsAndReportsTheChangeCount) {
  EXPECT_EQ(notifyChange({0, 1}, 1), 0);
  EXPECT_EQ(notifyChange({0, 2}, 2), 0);

  ActionRequest request(kCdsId, "Browse", browseBody("0", "BrowseMetadata").c_str());
  EXPECT_EQ(dispatch(request), 0);
  EXPECT_EQ(request.errCode(), 0);
  Arguments arguments = responseArguments(request.result());
  ASSERT_EQ(arguments.size(), 4u);
  EXPECT_EQ(arguments[0].first, "Result");
  EXPECT_NE(arguments[0].second.find("DIDL-Lite"), std::string::npos) << arguments[0].second;
  EXPECT_NE(arguments[0].second.find("<container id=\"0\""), std::string::npos)
      << arguments[0].second;
  EXPECT_EQ(arguments[1], (std::pair<std::string, std::string>("NumberReturned", "1")));
  EXPECT_EQ(arguments[2], (std::pair<std::string, std::string>("TotalMatches", "1")));
  EXPECT_EQ(arguments[3], (std::pair<std::string, std::string>("UpdateID", "2")));
}

TEST_F(CdsManagerTest, BrowseWithoutObjectIdUsesContainerId) {
  ActionRequest request(
      kCdsId, "Browse",
      actionBody("Browse", "<ContainerID>42</ContainerID><BrowseFlag>BrowseDirectChildren"
                           "</BrowseFlag><Filter>*</Filter><StartingIndex>0</StartingIndex>"
                           "<RequestedCount>0</RequestedCount><SortCriteria/>")
          .c_str());
  EXPECT_EQ(dispatch(request), 0);
  Arguments arguments = responseArguments(request.result());
  ASSERT_EQ(arguments.size(), 4u);
  EXPECT_EQ(arguments[1].second, "1");  // the root holds the one shared folder
}

TEST_F(CdsManagerTest, FailedAnalysisAnswersAnErrorAndLeavesNothingBehind) {
  struct Case {
    std::string body;
    const char *action;
    int32_t result;
    int soapCode;
  };
  const Case cases[] = {
      // Arguments read before the failure must be released.
      {actionBody("Browse", "<ObjectID>0</ObjectID><BrowseFlag>BrowseMetadata</BrowseFlag>"
                            "<Filter>*</Filter><StartingIndex>0</StartingIndex>"),
       "Browse", DMS_ERR_NOT_FOUND, 402},
      {browseBody("0", "browsemetadata"), "Browse", DMS_ERR_INVALID_BROWSE_FLAG, 501},
      {actionBody("Browse", "<ObjectID>0</ObjectID><BrowseFlag>BrowseMetadata</BrowseFlag>"
                            "<Filter>*</Filter><StartingIndex>0</StartingIndex>"
                            "<RequestedCount>-1</RequestedCount><SortCriteria/>"),
       "Browse", DMS_ERR_INVALID_BROWSE_FLAG, 501},
      {actionBody("Search", "<ContainerID>0</ContainerID><SearchCriteria>*</SearchCriteria>"
                            "<Filter>*</Filter>"),
       "Search", DMS_ERR_NOT_FOUND, 402},
      {actionBody("Search", "<ContainerID>0</ContainerID><SearchCriteria>*</SearchCriteria>"
                            "<Filter>*</Filter><StartingIndex>-4</StartingIndex>"
                            "<RequestedCount>0</RequestedCount><SortCriteria/>"),
       "Search", DMS_ERR_INVALID_BROWSE_FLAG, 501},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.body);
    ActionRequest request(kCdsId, c.action, c.body.c_str());
    std::string out = captureStdout([&] { EXPECT_EQ(dispatch(request), c.result); });
    EXPECT_NE(out.find("Function p_f_cdsMgrActionAnalyzeReq Failed with error = " +
                       std::to_string(c.result)),
              std::string::npos)
        << out;
    EXPECT_EQ(request.errCode(), c.soapCode);
    EXPECT_EQ(request.result(), nullptr);
  }
}

TEST_F(CdsManagerTest, FailedResponseIsAnErrorAndLeavesNothingBehind) {
  // Analysis succeeds (its texts are allocated), the answer fails: no such object.
  ActionRequest request(kCdsId, "Browse", browseBody("999999", "BrowseDirectChildren").c_str());
  std::string out = captureStdout([&] { EXPECT_NE(dispatch(request), 0); });
  EXPECT_NE(out.find("Function p_f_cdsMgrActionCreateResp Failed"), std::string::npos) << out;
  EXPECT_NE(request.errCode(), 0);
}

TEST_F(CdsManagerTest, SearchAnswersFourArguments) {
  ActionRequest request(kCdsId, "Search",
                        searchBody("0", "upnp:class derivedfrom \"object.item.audioItem\"").c_str());
  EXPECT_EQ(dispatch(request), 0);
  Arguments arguments = responseArguments(request.result());
  ASSERT_EQ(arguments.size(), 4u);
  EXPECT_EQ(arguments[0].first, "Result");
  EXPECT_EQ(arguments[1].first, "NumberReturned");
  EXPECT_EQ(arguments[2].first, "TotalMatches");
  EXPECT_EQ(arguments[3].first, "UpdateID");
}

TEST_F(CdsManagerTest, ConcurrentRequestsEachGetTheirOwnAnswer) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 25;
  std::vector<std::thread> threads;
  std::vector<int> failures(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t, &failures] {
      for (int round = 0; round < kRounds; ++round) {
        ActionRequest browse(kCdsId, "Browse", browseBody("0", "BrowseDirectChildren").c_str());
        ActionRequest caps(kCdsId, "GetSearchCapabilities",
                           actionBody("GetSearchCapabilities").c_str());
        if (dmsCdsMgrActionRequestCbf(browse.get(), cds_) != 0 ||
            responseArguments(browse.result()).size() != 4 ||
            dmsCdsMgrActionRequestCbf(caps.get(), cds_) != 0 ||
            responseArguments(caps.result()).size() != 1) {
          ++failures[t];
        }
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << t;
}

// ---- state variable queries ------------------------------------------------

TEST_F(CdsManagerTest, StateVariableQueriesAnswerTheConstantTable) {
  const std::pair<const char *, const char *> known[] = {
      {"ContainerUpdateIDs", ""}, {"TransferIDs", ""}, {"SystemUpdateID", "0"}};
  for (const auto &[name, value] : known) {
    SCOPED_TRACE(name);
    StateVarRequest query(kCdsId, name);
    EXPECT_EQ(dmsCdsMgrStateVariableRequestCbf(query.get(), cds_), 0);
    ASSERT_NE(query.value(), nullptr);
    EXPECT_STREQ(query.value(), value);
  }
}

TEST_F(CdsManagerTest, UnknownStateVariableOrServiceIsRefused) {
  for (const char *name : {"systemupdateid", "SortCapabilities", ""}) {
    SCOPED_TRACE(name);
    StateVarRequest query(kCdsId, name);
    std::string out = captureStdout([&] {
      EXPECT_EQ(dmsCdsMgrStateVariableRequestCbf(query.get(), cds_),
                DMS_ERR_UNSUPPORTED_STATE_VARIABLE);
    });
    EXPECT_NE(out.find(std::string("Requested State Variable ") + name + " is NOT supported"),
              std::string::npos)
        << out;
    EXPECT_EQ(query.value(), nullptr);
  }

  StateVarRequest query(kCmsId, "SystemUpdateID");
  std::string out = captureStdout([&] {
    EXPECT_EQ(dmsCdsMgrStateVariableRequestCbf(query.get(), cds_), DMS_ERR_WRONG_SERVICE);
  });
  EXPECT_NE(out.find("State Variable request is not for CDS service. ServiceID given = " +
                     std::string(kCmsId)),
            std::string::npos)
      << out;
  EXPECT_EQ(dmsCdsMgrStateVariableRequestCbf(nullptr, cds_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsMgrStateVariableRequestCbf(query.get(), nullptr), DMS_ERR_INVALID_PARAM);
}

TEST_F(CdsManagerTest, StateVariableQueryThroughTheEventManager) {
  // The event manager hands the ConnectionManager's context to this
  // callback, which only checks it.
  dmsCmsInstance *cms = nullptr;
  ASSERT_EQ(dmsCmsInit(&cms, mgr_), 0);
  StateVarRequest query(kCdsId, "TransferIDs");
  EXPECT_EQ(dmsDevEventMgrEventProcess(mgr_, UPNP_CONTROL_GET_VAR_REQUEST, query.get()), 0);
  ASSERT_NE(query.value(), nullptr);
  EXPECT_STREQ(query.value(), "");
  EXPECT_EQ(dmsCmsDeInit(cms), 0);
}

// ---- response arguments ------------------------------------------------------

TEST(CdsManagerRespArgs, ReleaseFreesOwnedValuesButNotTheResult) {
  char bufferText[] = "<DIDL-Lite/>";  // stands for the request buffer's text
  dmsCdsRespArgs respArgs;
  respArgs.count = 4;
  respArgs.names[0] = "Result";
  respArgs.values[0] = bufferText;
  respArgs.names[1] = "NumberReturned";
  respArgs.values[1] = strdup("1");
  respArgs.names[2] = "TotalMatches";
  respArgs.values[2] = strdup("1");
  respArgs.names[3] = "UpdateID";
  respArgs.values[3] = strdup("0");
  EXPECT_EQ(dmsCdsMgrReleaseRespArgs(&respArgs), 0);  // the sanitizer checks the frees
  EXPECT_EQ(respArgs.count, 0);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(respArgs.names[i], nullptr) << i;
    EXPECT_EQ(respArgs.values[i], nullptr) << i;
  }
  EXPECT_STREQ(bufferText, "<DIDL-Lite/>");
  EXPECT_EQ(dmsCdsMgrReleaseRespArgs(&respArgs), 0);  // twice is harmless
  EXPECT_EQ(dmsCdsMgrReleaseRespArgs(nullptr), 0);
}

TEST(CdsManagerRespArgs, ReleaseLooksAtTheCountedPairsOnly) {
  char untouched[] = "not owned";
  dmsCdsRespArgs respArgs;
  respArgs.count = 1;
  respArgs.names[0] = "SearchCaps";
  respArgs.values[0] = strdup("dc:title");
  respArgs.names[1] = "Beyond";
  respArgs.values[1] = untouched;
  EXPECT_EQ(dmsCdsMgrReleaseRespArgs(&respArgs), 0);
  EXPECT_EQ(respArgs.values[0], nullptr);
  EXPECT_EQ(respArgs.values[1], untouched);
}

// ---- content changes -----------------------------------------------------------

TEST(CdsManagerChange, ContainerUpdateIdsText) {
  const uint32_t two[] = {1001, 2, 0, 5};
  const uint32_t three[] = {1001, 3, 1005, 1, 0, 7};
  dmsCdsContentChangeInfo change;
  change.pairs = two;
  change.pairCount = 2;
  EXPECT_EQ(dmsCdsFormatContainerUpdateIds(change), "1001,2,0,5");
  change.pairs = three;
  change.pairCount = 3;
  EXPECT_EQ(dmsCdsFormatContainerUpdateIds(change), "1001,3,1005,1,0,7");
  change.pairCount = 1;
  EXPECT_EQ(dmsCdsFormatContainerUpdateIds(change), "1001,3");
  change.pairCount = 0;
  EXPECT_EQ(dmsCdsFormatContainerUpdateIds(change), "");
  change.pairs = nullptr;
  change.pairCount = 2;
  EXPECT_EQ(dmsCdsFormatContainerUpdateIds(change), "");
}

TEST(CdsManagerChange, RecordCarriesTheVariableNames) {
  dmsCdsContentChangeInfo change;
  EXPECT_STREQ(change.variableNames[0], "ContainerUpdateIDs");
  EXPECT_STREQ(change.variableNames[1], "SystemUpdateID");
}

TEST_F(CdsManagerTest, NotifyCountsEveryChangeAndTracesTheText) {
  TraceLevel level(OSAL_TRACE_ERR | OSAL_TRACE_INFO);
  std::string out = captureStdout([&] { EXPECT_EQ(notifyChange({1001, 2, 0, 5}, 7), 0); });
  EXPECT_NE(out.find("ContainterUpdateIDs 1001,2,0,5\n"), std::string::npos) << out;
  EXPECT_EQ(cds_->notifyCount.load(), 1u);

  out = captureStdout([&] { EXPECT_EQ(notifyChange({}, 8), 0); });
  EXPECT_NE(out.find("ContainterUpdateIDs \n"), std::string::npos) << out;
  EXPECT_EQ(cds_->notifyCount.load(), 2u);

  EXPECT_EQ(dmsCdsMgrNotifyContentChange(nullptr, nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsMgrNotifyContentChange(cds_, nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(cds_->notifyCount.load(), 2u);  // refused calls are not counted
}

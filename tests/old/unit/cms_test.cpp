// ConnectionManager service: life cycle, the three actions (directly and
// through the device event manager) and state-variable queries.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "dlna_dms.h"
#include "service_test_support.h"
#include "services/dmsCmsApi.h"
#include "services/dmsCmsEventHandler.h"
#include "services/dmsCmsRequestHandler.h"
#include "services/dmsCmsResponseHandler.h"
#include "services/dmsDeviceEventMgr.h"

using servicetest::ActionRequest;
using servicetest::StateVarRequest;
using servicetest::responseArguments;
using servicetest::responseElement;
using Arguments = std::vector<std::pair<std::string, std::string>>;

namespace {

constexpr char kCmsId[] = "urn:upnp-org:serviceId:ConnectionManager";
constexpr char kCdsId[] = "urn:upnp-org:serviceId:ContentDirectory";
constexpr char kCmsType[] = "urn:schemas-upnp-org:service:ConnectionManager:1";

std::string actionBody(const char *action, const char *arguments = "") {
  return std::string("<u:") + action + " xmlns:u=\"" + kCmsType + "\">" + arguments + "</u:" +
         action + ">";
}

class CmsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(dmsDevEventMgrInit(&mgr_, 1, "test-device"), 0);
    ASSERT_EQ(dmsCmsInit(&cms_, mgr_), 0);
  }
  void TearDown() override {
    EXPECT_EQ(dmsCmsDeInit(cms_), 0);
    EXPECT_EQ(dmsDevEventMgrDeInit(mgr_), 0);
  }

  // Runs an action through the device event manager, as the SDK would.
  int32_t dispatch(ActionRequest &request) {
    return dmsDevEventMgrEventProcess(mgr_, UPNP_CONTROL_ACTION_REQUEST, request.get());
  }

  dmsDevEventMgr *mgr_ = nullptr;
  dmsCmsInstance *cms_ = nullptr;
};

std::vector<std::string> splitOnComma(const std::string &text) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t comma; (comma = text.find(',', start)) != std::string::npos; start = comma + 1) {
    parts.push_back(text.substr(start, comma - start));
  }
  parts.push_back(text.substr(start));
  return parts;
}

}  // namespace

// ---- life cycle and tables -------------------------------------------------

TEST(CmsLifecycle, InitRegistersAndNumbersInstances) {
  dmsDevEventMgr *mgr = nullptr;
  ASSERT_EQ(dmsDevEventMgrInit(&mgr, 1, "u"), 0);
  dmsCmsInstance *first = reinterpret_cast<dmsCmsInstance *>(0x1);
  EXPECT_EQ(dmsCmsInit(nullptr, mgr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCmsInit(&first, nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCmsDeInit(nullptr), DMS_ERR_INVALID_PARAM);

  ASSERT_EQ(dmsCmsInit(&first, mgr), 0);
  EXPECT_GE(first->instanceId, 100);
  EXPECT_EQ(first->eventMgr, mgr);
  EXPECT_EQ(mgr->cmsContext, first);
  EXPECT_EQ(mgr->cmsActionCallback, dmsCmsActionRequestCbf);
  EXPECT_EQ(mgr->cmsStateVarCallback, dmsCmsStateVariableRequestCbf);

  dmsCmsInstance *second = nullptr;
  ASSERT_EQ(dmsCmsInit(&second, mgr), 0);
  EXPECT_EQ(second->instanceId, first->instanceId + 1);
  EXPECT_EQ(mgr->cmsContext, second);

  EXPECT_EQ(dmsCmsDeInit(second), 0);
  EXPECT_EQ(mgr->cmsContext, nullptr);
  EXPECT_EQ(mgr->cmsActionCallback, nullptr);
  EXPECT_EQ(dmsCmsDeInit(first), 0);
  EXPECT_EQ(dmsDevEventMgrDeInit(mgr), 0);
}

TEST(CmsTables, StateVariablesForSubscribers) {
  const dmsStateVarPair *table = dmsCmsGetStateVariableListInfo();
  ASSERT_NE(table, nullptr);
  EXPECT_STREQ(table[0].name, "SourceProtocolInfo");
  EXPECT_STREQ(table[0].value, "http-get:*:*:*");  // not the GetProtocolInfo list
  EXPECT_STREQ(table[1].name, "SinkProtocolInfo");
  EXPECT_STREQ(table[1].value, "");
  EXPECT_STREQ(table[2].name, "CurrentConnectionIDs");
  EXPECT_STREQ(table[2].value, "0");
  EXPECT_EQ(table[3].name, nullptr);
}

TEST(CmsTables, ExtraProtocolInfoTableIsSixEntriesOfTheMainOne) {
  const char *const *main = gap_ch_dmsSupportedMediaProfileProtocolInfo;
  const char *const *extra = gap_ch_dmsExSupportedMediaProfileProtocolInfo;
  const int mainIndex[] = {3, 4, 5, 6, 24, 31};  // one-based positions in the main table
  for (int i = 0; i < 6; ++i) {
    ASSERT_NE(extra[i], nullptr);
    EXPECT_STREQ(extra[i], main[mainIndex[i] - 1]) << i;
  }
  EXPECT_EQ(extra[6], nullptr);
}

// ---- actions ---------------------------------------------------------------

TEST_F(CmsTest, GetProtocolInfoAnswersTheJoinedListAndEmptySink) {
  ActionRequest request(kCmsId, "GetProtocolInfo", actionBody("GetProtocolInfo").c_str());
  EXPECT_EQ(dispatch(request), 0);
  EXPECT_EQ(request.errCode(), 0);

  IXML_Element *response = responseElement(request.result());
  ASSERT_NE(response, nullptr);
  EXPECT_STREQ(ixmlNode_getNodeName(&response->n), "u:GetProtocolInfoResponse");
  EXPECT_STREQ(ixmlElement_getAttribute(response, "xmlns:u"), kCmsType);

  Arguments arguments = responseArguments(request.result());
  ASSERT_EQ(arguments.size(), 2u);
  EXPECT_EQ(arguments[0].first, "Source");
  EXPECT_EQ(arguments[1].first, "Sink");
  EXPECT_EQ(arguments[1].second, "");

  const std::string &source = arguments[0].second;
  EXPECT_EQ(std::count(source.begin(), source.end(), ','), 44);
  EXPECT_EQ(source.find(' '), std::string::npos);
  std::vector<std::string> entries = splitOnComma(source);
  ASSERT_EQ(entries.size(), 45u);
  EXPECT_EQ(entries.front(),
            "http-get:*:audio/x-sony-oma:DLNA.ORG_PN=ATRAC3plus;DLNA.ORG_OP=01;DLNA.ORG_CI=0");
  EXPECT_EQ(entries[32], "http-get:*:video/mp4:DLNA.ORG_PN=AVC_MP4_MP_SD_AC3");
  EXPECT_EQ(entries.back(),
            "http-get:*:video/x-ms-wmv:DLNA.ORG_PN=WMVMED_PRO;DLNA.ORG_OP=01;DLNA.ORG_CI=0");
  for (size_t i = 0; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i], gap_ch_dmsSupportedMediaProfileProtocolInfo[i]) << i;
    if (i != 32) {
      EXPECT_NE(entries[i].find(";DLNA.ORG_OP=01;DLNA.ORG_CI=0"), std::string::npos) << i;
    }
  }
  EXPECT_EQ(gap_ch_dmsSupportedMediaProfileProtocolInfo[45], nullptr);
}

TEST_F(CmsTest, GetCurrentConnectionIDsAnswersZero) {
  ActionRequest request(kCmsId, "GetCurrentConnectionIDs",
                        actionBody("GetCurrentConnectionIDs").c_str());
  EXPECT_EQ(dispatch(request), 0);
  EXPECT_EQ(responseArguments(request.result()), (Arguments{{"ConnectionIDs", "0"}}));
}

TEST_F(CmsTest, GetCurrentConnectionInfoAnswersConnectionZeroForAnyNumber) {
  const Arguments expected = {
      {"RcsID", "-1"},           {"AVTransportID", "-1"},   {"ProtocolInfo", ""},
      {"PeerConnectionManager", ""}, {"PeerConnectionID", "-1"}, {"Direction", "Output"},
      {"Status", "OK"},
  };
  for (const char *id : {"0", "5", "-3", "junk"}) {
    SCOPED_TRACE(id);
    std::string body = actionBody("GetCurrentConnectionInfo",
                                  (std::string("<ConnectionID>") + id + "</ConnectionID>").c_str());
    ActionRequest request(kCmsId, "GetCurrentConnectionInfo", body.c_str());
    EXPECT_EQ(dispatch(request), 0);
    EXPECT_EQ(request.errCode(), 0);
    EXPECT_EQ(responseArguments(request.result()), expected);
  }
}

TEST_F(CmsTest, GetCurrentConnectionInfoWithoutConnectionIdFails) {
  ActionRequest request(kCmsId, "GetCurrentConnectionInfo",
                        actionBody("GetCurrentConnectionInfo").c_str());
  std::string out = captureStdout([&] {
    EXPECT_EQ(dmsCmsActionRequestCbf(request.get(), cms_), DMS_ERR_NOT_FOUND);
  });
  EXPECT_EQ(request.result(), nullptr);  // no argument was added
  EXPECT_NE(out.find("dlnaUtil_xmlParserGetInteger():Return::-253"), std::string::npos) << out;
  EXPECT_NE(out.find("Request analyzer failed"), std::string::npos) << out;

  // Through the manager the failure becomes "Invalid Args".
  ActionRequest dispatched(kCmsId, "GetCurrentConnectionInfo",
                           actionBody("GetCurrentConnectionInfo").c_str());
  EXPECT_EQ(dispatch(dispatched), DMS_ERR_NOT_FOUND);
  EXPECT_EQ(dispatched.errCode(), 402);
  EXPECT_EQ(dispatched.errStr(), "Invalid Args");
  EXPECT_EQ(dispatched.result(), nullptr);
}

TEST_F(CmsTest, ActionNamesAreMatchedExactly) {
  for (const char *name : {"getprotocolinfo", "GetProtocolInfo ", "GetProtocol", "Browse"}) {
    SCOPED_TRACE(name);
    ActionRequest request(kCmsId, name, actionBody("GetProtocolInfo").c_str());
    std::string out = captureStdout(
        [&] { EXPECT_EQ(dmsCmsActionRequestCbf(request.get(), cms_), DMS_ERR_UNSUPPORTED_ACTION); });
    EXPECT_NE(out.find("Unsupported Action Name"), std::string::npos) << out;
    EXPECT_EQ(request.result(), nullptr);
  }
}

TEST_F(CmsTest, RequestForAnotherServiceIsRefused) {
  ActionRequest request(kCdsId, "GetProtocolInfo", actionBody("GetProtocolInfo").c_str());
  std::string out = captureStdout(
      [&] { EXPECT_EQ(dmsCmsActionRequestCbf(request.get(), cms_), DMS_ERR_WRONG_SERVICE); });
  EXPECT_NE(out.find("Service ID not Connection Management Service"), std::string::npos) << out;
  EXPECT_EQ(request.result(), nullptr);
}

TEST_F(CmsTest, NullArgumentsAreRefused) {
  ActionRequest request(kCmsId, "GetProtocolInfo");
  dmsCmsActionArgument argument{};
  dmsCmsActionResponse response;
  EXPECT_EQ(dmsCmsActionRequestCbf(nullptr, cms_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCmsActionRequestCbf(request.get(), nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCmsStateVariableRequestCbf(nullptr, cms_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCmsAnalyzeReqGetProtocolInfo(request.get(), nullptr, cms_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCmsAnalyzeReqGetConnectionIDs(nullptr, &argument, cms_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCmsAnalyzeReqGetConnectionInfo(request.get(), &argument, nullptr),
            DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCmsCreateRespGetProtocolInfo(&argument, nullptr, cms_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCmsCreateRespGetProtocolInfo(&argument, &response, nullptr), 0);  // context unused
  EXPECT_EQ(dmsCmsCreateRespGetConnectionIDs(&argument, &response, nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCmsCreateRespGetConnectionInfo(nullptr, &response, cms_), DMS_ERR_INVALID_PARAM);
}

TEST_F(CmsTest, ProtocolInfoListIsBuiltFreshAndOwnedByTheResponse) {
  dmsCmsActionArgument argument{};
  dmsCmsActionResponse first;
  dmsCmsActionResponse second;
  ASSERT_EQ(dmsCmsCreateRespGetProtocolInfo(&argument, &first, cms_), 0);
  ASSERT_EQ(dmsCmsCreateRespGetProtocolInfo(&argument, &second, cms_), 0);
  EXPECT_EQ(first.count, 2);
  EXPECT_EQ(first.argValues[0], first.protocolInfoList.c_str());
  EXPECT_NE(first.argValues[0], second.argValues[0]);
  EXPECT_STREQ(first.argValues[0], second.argValues[0]);
}

// ---- state-variable queries --------------------------------------------------

TEST_F(CmsTest, KnownVariableGetsItsValueYetEndsUnsupported) {
  StateVarRequest query(kCmsId, "CurrentConnectionIDs");
  std::string out = captureStdout([&] {
    EXPECT_EQ(dmsDevEventMgrEventProcess(mgr_, UPNP_CONTROL_GET_VAR_REQUEST, query.get()),
              DMS_ERR_UNSUPPORTED_STATE_VARIABLE);
  });
  ASSERT_NE(query.value(), nullptr);
  EXPECT_STREQ(query.value(), "0");
  EXPECT_EQ(query.errCode(), 404);
  EXPECT_NE(out.find("Requested State Variable Name CurrentConnectionIDs"), std::string::npos)
      << out;

  StateVarRequest source(kCmsId, "SourceProtocolInfo");
  EXPECT_EQ(dmsCmsStateVariableRequestCbf(source.get(), cms_), DMS_ERR_UNSUPPORTED_STATE_VARIABLE);
  ASSERT_NE(source.value(), nullptr);
  EXPECT_STREQ(source.value(), "http-get:*:*:*");
}

TEST_F(CmsTest, UnknownVariableGetsNoValue) {
  StateVarRequest query(kCmsId, "currentconnectionids");
  EXPECT_EQ(dmsCmsStateVariableRequestCbf(query.get(), cms_), DMS_ERR_UNSUPPORTED_STATE_VARIABLE);
  EXPECT_EQ(query.errCode(), 404);
  EXPECT_EQ(query.value(), nullptr);
}

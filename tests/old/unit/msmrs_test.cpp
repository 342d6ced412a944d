// Media receiver registrar service: life cycle, the three constant actions
// and state-variable queries.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "dlna_dms.h"
#include "service_test_support.h"
#include "services/dmsDeviceEventMgr.h"
#include "services/dmsMsMrsApi.h"
#include "services/dmsMsMrsEventHandler.h"
#include "services/dmsMsMrsRequestHandler.h"
#include "services/dmsMsMrsResponseHandler.h"

using servicetest::ActionRequest;
using servicetest::StateVarRequest;
using servicetest::responseArguments;
using servicetest::responseElement;
using Arguments = std::vector<std::pair<std::string, std::string>>;

namespace {

constexpr char kMrsId[] = "urn:microsoft.com:serviceId:X_MS_MediaReceiverRegistrar";
constexpr char kCdsId[] = "urn:upnp-org:serviceId:ContentDirectory";
constexpr char kMrsType[] = "urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1";

std::string actionBody(const char *action, const char *arguments) {
  return std::string("<u:") + action + " xmlns:u=\"" + kMrsType + "\">" + arguments + "</u:" +
         action + ">";
}

class MsMrsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(dmsDevEventMgrInit(&mgr_, 1, "test-device"), 0);
    ASSERT_EQ(dmsMsMrsInit(&mrs_, mgr_), 0);
  }
  void TearDown() override {
    EXPECT_EQ(dmsMsMrsDeInit(mrs_), 0);
    EXPECT_EQ(dmsDevEventMgrDeInit(mgr_), 0);
  }

  int32_t dispatch(ActionRequest &request) {
    return dmsDevEventMgrEventProcess(mgr_, UPNP_CONTROL_ACTION_REQUEST, request.get());
  }

  dmsDevEventMgr *mgr_ = nullptr;
  dmsMsMrsInstance *mrs_ = nullptr;
};

}  // namespace

TEST(MsMrsLifecycle, InitRegistersAndNumbersInstances) {
  dmsDevEventMgr *mgr = nullptr;
  ASSERT_EQ(dmsDevEventMgrInit(&mgr, 1, "u"), 0);
  dmsMsMrsInstance *first = reinterpret_cast<dmsMsMrsInstance *>(0x1);
  EXPECT_EQ(dmsMsMrsInit(nullptr, mgr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsMsMrsInit(&first, nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsMsMrsDeInit(nullptr), DMS_ERR_INVALID_PARAM);

  ASSERT_EQ(dmsMsMrsInit(&first, mgr), 0);
  EXPECT_GE(first->instanceId, 100);
  EXPECT_EQ(mgr->msMrsContext, first);
  EXPECT_EQ(mgr->msMrsActionCallback, dmsMsMrsActionRequestCbf);
  EXPECT_EQ(mgr->msMrsStateVarCallback, dmsMsMrsStateVariableRequestCbf);
  dmsMsMrsInstance *second = nullptr;
  ASSERT_EQ(dmsMsMrsInit(&second, mgr), 0);
  EXPECT_EQ(second->instanceId, first->instanceId + 1);

  EXPECT_EQ(dmsMsMrsDeInit(second), 0);
  EXPECT_EQ(mgr->msMrsContext, nullptr);
  EXPECT_EQ(mgr->msMrsStateVarCallback, nullptr);
  EXPECT_EQ(dmsMsMrsDeInit(first), 0);
  EXPECT_EQ(dmsDevEventMgrDeInit(mgr), 0);
}

TEST(MsMrsTables, StateVariablesAreFourZeroUpdateIds) {
  const dmsStateVarPair *table = dmsMsMrsGetStateVariableListInfo();
  const char *names[] = {"AuthorizationGrantedUpdateID", "AuthorizationDeniedUpdateID",
                         "ValidationSucceededUpdateID", "ValidationRevokedUpdateID"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_STREQ(table[i].name, names[i]);
    EXPECT_STREQ(table[i].value, "0");
  }
  EXPECT_EQ(table[4].name, nullptr);
}

TEST_F(MsMrsTest, EveryDeviceIsAuthorizedAndValidated) {
  struct Case {
    const char *action;
    const char *arguments;
    Arguments expected;
  } cases[] = {
      {"IsAuthorized", "<DeviceID>abc</DeviceID>", {{"Result", "1"}}},
      {"IsAuthorized", "<DeviceID></DeviceID>", {{"Result", "1"}}},
      {"IsValidated", "<DeviceID>abc</DeviceID>", {{"Result", "1"}}},
      {"IsValidated", "<DeviceID/>", {{"Result", "1"}}},
      {"RegisterDevice", "<RegistrationReqMsg>AAEC</RegistrationReqMsg>",
       {{"RegistrationRespMsg", "respAccepted1"}}},
      {"RegisterDevice", "", {{"RegistrationRespMsg", "respAccepted1"}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.action) + c.arguments);
    ActionRequest request(kMrsId, c.action, actionBody(c.action, c.arguments).c_str());
    EXPECT_EQ(dispatch(request), 0);
    EXPECT_EQ(request.errCode(), 0);
    EXPECT_EQ(responseArguments(request.result()), c.expected);
    IXML_Element *response = responseElement(request.result());
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(std::string(ixmlNode_getNodeName(&response->n)),
              std::string("u:") + c.action + "Response");
    // The responses name the service id plus ":1" as their type.
    EXPECT_STREQ(ixmlElement_getAttribute(response, "xmlns:u"),
                 "urn:microsoft.com:serviceId:X_MS_MediaReceiverRegistrar:1");
  }
}

TEST_F(MsMrsTest, UnknownOrMiscasedActionIsUnsupported) {
  for (const char *name : {"isauthorized", "IsAuthorised", "GetProtocolInfo"}) {
    SCOPED_TRACE(name);
    ActionRequest request(kMrsId, name, actionBody("IsAuthorized", "").c_str());
    EXPECT_EQ(dmsMsMrsActionRequestCbf(request.get(), mrs_), DMS_ERR_UNSUPPORTED_ACTION);
    EXPECT_EQ(request.result(), nullptr);
  }
  // Through the manager: SOAP error 401 "Invalid Action".
  ActionRequest request(kMrsId, "isauthorized", actionBody("IsAuthorized", "").c_str());
  EXPECT_EQ(dispatch(request), DMS_ERR_UNSUPPORTED_ACTION);
  EXPECT_EQ(request.errCode(), 401);
  EXPECT_EQ(request.errStr(), "Invalid Action");
}

TEST_F(MsMrsTest, RequestForAnotherServiceIsRefused) {
  ActionRequest request(kCdsId, "IsAuthorized", actionBody("IsAuthorized", "").c_str());
  std::string out = captureStdout(
      [&] { EXPECT_EQ(dmsMsMrsActionRequestCbf(request.get(), mrs_), DMS_ERR_WRONG_SERVICE); });
  EXPECT_NE(out.find("Service ID not Connection Management Service"), std::string::npos) << out;
  EXPECT_EQ(request.result(), nullptr);
}

TEST_F(MsMrsTest, NullArgumentsAreRefused) {
  ActionRequest request(kMrsId, "IsAuthorized");
  dmsMsMrsActionResponse response;
  EXPECT_EQ(dmsMsMrsActionRequestCbf(nullptr, mrs_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsMsMrsActionRequestCbf(request.get(), nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsMsMrsStateVariableRequestCbf(nullptr, mrs_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsMsMrsAnalyzeReqIsAuthorized(nullptr, mrs_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsMsMrsAnalyzeReqRegisterDevice(request.get(), nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsMsMrsAnalyzeReqIsValidated(request.get(), mrs_), 0);
  EXPECT_EQ(dmsMsMrsCreateRespIsAuthorized(nullptr, mrs_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsMsMrsCreateRespRegisterDevice(&response, nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsMsMrsCreateRespIsValidated(&response, mrs_), 0);
  EXPECT_EQ(response.count, 1);
}

TEST_F(MsMrsTest, StateVariableQueryCopiesValueYetEndsUnsupported) {
  StateVarRequest query(kMrsId, "AuthorizationGrantedUpdateID");
  EXPECT_EQ(dmsMsMrsStateVariableRequestCbf(query.get(), mrs_),
            DMS_ERR_UNSUPPORTED_STATE_VARIABLE);
  ASSERT_NE(query.value(), nullptr);
  EXPECT_STREQ(query.value(), "0");
  EXPECT_EQ(query.errCode(), 404);

  StateVarRequest unknown(kMrsId, "Result");
  EXPECT_EQ(dmsMsMrsStateVariableRequestCbf(unknown.get(), mrs_),
            DMS_ERR_UNSUPPORTED_STATE_VARIABLE);
  EXPECT_EQ(unknown.value(), nullptr);
  EXPECT_EQ(unknown.errCode(), 404);
}

TEST_F(MsMrsTest, ManagerDoesNotForwardRegistrarQueries) {
  StateVarRequest query(kMrsId, "AuthorizationGrantedUpdateID");
  EXPECT_EQ(dmsDevEventMgrEventProcess(mgr_, UPNP_CONTROL_GET_VAR_REQUEST, query.get()), 0);
  EXPECT_EQ(query.value(), nullptr);
  EXPECT_EQ(query.errCode(), 0);
}

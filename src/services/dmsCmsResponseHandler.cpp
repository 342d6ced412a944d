// ConnectionManager response creators.
#include "services/dmsCmsResponseHandler.h"

#include <cstring>
#include <iterator>

#include "dlna_dms.h"
#include "mfd/mfd_protocol.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsCmsResponseHandler";

namespace {

struct ResponseArgument {
  const char *name;
  const char *value;
};

// The answer for the one implicit connection, whatever number was asked.
constexpr ResponseArgument kConnectionInfo[] = {
    // name                      value
    {"RcsID",                    "-1"},
    {"AVTransportID",            "-1"},
    {"ProtocolInfo",             ""},
    {"PeerConnectionManager",    ""},
    {"PeerConnectionID",         "-1"},
    {"Direction",                "Output"},
    {"Status",                   "OK"},
};
static_assert(std::size(kConnectionInfo) <= DMS_CMS_MAX_RESPONSE_ARGS);

// Comma-separated, no blanks, no trailing comma.
void joinProtocolInfo(const char *const *table, std::string &out) {
  size_t length = 0;
  for (const char *const *entry = table; *entry != nullptr; ++entry) {
    length += std::strlen(*entry) + 1;
  }
  out.clear();
  out.reserve(length);
  for (const char *const *entry = table; *entry != nullptr; ++entry) {
    if (entry != table) out.push_back(',');
    out.append(*entry);
  }
}

}  // namespace

int32_t dmsCmsCreateRespGetProtocolInfo(const dmsCmsActionArgument *argument,
                                        dmsCmsActionResponse *response,
                                        dmsCmsInstance * /*context*/) {
  if (argument == nullptr || response == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsCmsCreateRespGetProtocolInfo", DMS_ERR_NO_MEMORY, [&]() -> int32_t {
    // The 45 written entries in their order, then the added formats'.
    joinProtocolInfo(gap_ch_dmsSupportedMediaProfileProtocolInfo, response->protocolInfoList);
    std::string added;
    joinProtocolInfo(g_mfdAddedProtocolInfo, added);
    response->protocolInfoList.append(",").append(added);
    response->count = 2;
    response->argNames[0] = "Source";
    response->argValues[0] = response->protocolInfoList.c_str();
    response->argNames[1] = "Sink";
    response->argValues[1] = "";
    return DMS_SUCCESS;
  });
}

int32_t dmsCmsCreateRespGetConnectionIDs(const dmsCmsActionArgument *argument,
                                         dmsCmsActionResponse *response,
                                         dmsCmsInstance *context) {
  if (argument == nullptr || response == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  response->count = 1;
  response->argNames[0] = "ConnectionIDs";
  response->argValues[0] = "0";
  return DMS_SUCCESS;
}

int32_t dmsCmsCreateRespGetConnectionInfo(const dmsCmsActionArgument *argument,
                                          dmsCmsActionResponse *response,
                                          dmsCmsInstance *context) {
  if (argument == nullptr || response == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  response->count = 0;
  for (const ResponseArgument &row : kConnectionInfo) {
    response->argNames[response->count] = row.name;
    response->argValues[response->count] = row.value;
    ++response->count;
  }
  return DMS_SUCCESS;
}

// The client profiles of a server and the host's rules for them
// (clients/dmsClients.h).
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "api/dlna_dmsApi.h"
#include "clients/dmsClients.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dlna_dmsApi";

namespace {

// Reads `count` rules; false (traced) at the first that does not read.
bool readRules(const char *const *rules, int32_t count, std::vector<dmsClientRule> &out) {
  if (count < 0 || (count > 0 && rules == nullptr)) return false;
  for (int32_t i = 0; i < count; ++i) {
    dmsClientRule rule;
    std::string error;
    if (rules[i] == nullptr || !dmsClientParseRule(rules[i], rule, error)) {
      DMS_TRACE(OSAL_TRACE_ERR, "Client rule [%s]: %s\n", rules[i] != nullptr ? rules[i] : "(null)", error.c_str());
      return false;
    }
    out.push_back(std::move(rule));
  }
  return true;
}

}  // namespace

void dmsClientsOpen(dmsHandle *handle) {
  handle->clients = std::make_unique<dmsClients>().release();  // owned by the handle
}

void dmsClientsRelease(dmsHandle *handle) {
  std::unique_ptr<dmsClients> clients(handle->clients);
  handle->clients = nullptr;
}

extern "C" DMS_EXPORT int32_t dlna_dmsSetClientRules(dmsHandle *handle, const char *const *rules, int32_t count) {
  if (handle == nullptr || handle->clients == nullptr) return DMS_ERR_INVALID_PARAM;
  return dmsApiGuard("dlna_dmsSetClientRules", [&] {
    std::vector<dmsClientRule> read;
    if (!readRules(rules, count, read)) return DMS_ERR_INVALID_PARAM;
    handle->clients->setRules(std::move(read));
    return DMS_SUCCESS;
  });
}

extern "C" DMS_EXPORT int32_t dlna_dmsDescribeClients(const char *const *rules, int32_t count, char **text) {
  if (text == nullptr) return DMS_ERR_INVALID_PARAM;
  *text = nullptr;
  return dmsApiGuard("dlna_dmsDescribeClients", [&] {
    std::vector<dmsClientRule> read;
    if (!readRules(rules, count, read)) return DMS_ERR_INVALID_PARAM;
    const std::string described = dmsClientDescribe(read);
    char *copy = static_cast<char *>(std::malloc(described.size() + 1));  // the caller frees it
    if (copy == nullptr) return DMS_ERR_NO_MEMORY;
    std::memcpy(copy, described.c_str(), described.size() + 1);
    *text = copy;
    return DMS_SUCCESS;
  });
}

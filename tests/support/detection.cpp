#include "detection.h"

#include <gtest/gtest.h>

#include "util/osal_trace.h"

namespace dmstest {

Detection::Detection() {
  EXPECT_EQ(mfd_openInstance(&instance_), 0);
  for (uint32_t id : g_mfdAllServerFormatIds) EXPECT_EQ(mfd_registerFormat(instance_, id), 0);
}

Detection::~Detection() {
  for (uint32_t id : g_mfdAllServerFormatIds) mfd_unregisterFormat(instance_, id);
  EXPECT_EQ(mfd_closeInstance(instance_), 0);
}

int32_t Detection::detect(const std::string &path, mfdMediaInfo *info) const {
  *info = mfdMediaInfo{};
  return mfd_detectMediaFormat(instance_, path.c_str(), info);
}

QuietTrace::QuietTrace() : saved_(g_u32_osalTraceLevel) { g_u32_osalTraceLevel = 0; }
QuietTrace::~QuietTrace() { g_u32_osalTraceLevel = saved_; }

}  // namespace dmstest

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "util/dmsErrors.h"
#include "util/osal_trace.h"
#include "capture_stdout.h"

namespace {

constexpr char kTraceFile[] = "trace_errors_test";

struct TraceLevelGuard {
  uint32_t saved = g_u32_osalTraceLevel.load();
  ~TraceLevelGuard() { g_u32_osalTraceLevel.store(saved); }
};

}  // namespace

TEST(ErrorMapping, UtilityCodesBecomeServerCodes) {
  EXPECT_EQ(dmsUtilErrMapToDmsErr(0), 0);
  EXPECT_EQ(dmsUtilErrMapToDmsErr(DLNA_UTIL_ERR_NO_MEMORY), DMS_ERR_NO_MEMORY);
  EXPECT_EQ(dmsUtilErrMapToDmsErr(DLNA_UTIL_ERR_KEY_NOT_FOUND), DMS_ERR_NOT_FOUND);
  EXPECT_EQ(dmsUtilErrMapToDmsErr(DLNA_UTIL_ERR_NULL_BUFFER), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsUtilErrMapToDmsErr(DLNA_UTIL_ERR_INVALID_PARAM), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsUtilErrMapToDmsErr(-999), DMS_ERR_FAILURE);
}

TEST(TraceLog, LevelMaskFiltersAndNamesLevels) {
  TraceLevelGuard guard;
  g_u32_osalTraceLevel.store(0x0003);
  std::string out = captureStdout([] {
    EXPECT_EQ(DMS_TRACE(OSAL_TRACE_INFO, "hidden %d\n", 1), -1);
    EXPECT_EQ(DMS_TRACE(OSAL_TRACE_ERR, "shown %d\n", 2), -1);
  });
  EXPECT_EQ(out.find("hidden"), std::string::npos);
  EXPECT_NE(out.find("] [ERR ] [trace_errors_test]["), std::string::npos) << out;
  EXPECT_NE(out.find("[operator()()]  shown 2\n"), std::string::npos) << out;

  g_u32_osalTraceLevel.store(0xFF);
  out = captureStdout([] {
    DMS_TRACE(0x10, "debug\n");
    DMS_TRACE(OSAL_TRACE_DDBG, "deep\n");
    DMS_TRACE(OSAL_TRACE_TEST, "test\n");
  });
  EXPECT_NE(out.find("[DBG ]"), std::string::npos) << out;
  EXPECT_NE(out.find("[DDBG]"), std::string::npos) << out;
  EXPECT_NE(out.find("[TEST]"), std::string::npos) << out;
}

TEST(TraceLog, EnvironmentSetsTheMask) {
  TraceLevelGuard guard;
  setenv("DMS_TRACE_LEVEL", "0x00FF", 1);
  osal_traceInitialize();
  EXPECT_EQ(g_u32_osalTraceLevel.load(), 0xFFu);
  setenv("DMS_TRACE_LEVEL", "not hex", 1);
  osal_traceInitialize();
  EXPECT_EQ(g_u32_osalTraceLevel.load(), 0xFFu);  // unparsable: unchanged
  unsetenv("DMS_TRACE_LEVEL");
  g_u32_osalTraceLevel.store(3);
  std::string out = captureStdout([] { osal_traceInitialize(); });
  EXPECT_NE(out.find("\"DMS_TRACE_LEVEL\" not defined."), std::string::npos);
  EXPECT_NE(out.find("Now assuming DMS_TRACE_LEVEL = 0x0003"), std::string::npos);
  EXPECT_EQ(g_u32_osalTraceLevel.load(), 3u);
}

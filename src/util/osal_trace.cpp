#include "util/osal_trace.h"

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <algorithm>
#include <string>
#include <string_view>

std::atomic<uint32_t> g_u32_osalTraceLevel{0x0003};

namespace {

const char *levelName(uint32_t level) {
  switch (level) {
    case OSAL_TRACE_ERR: return "ERR ";
    case OSAL_TRACE_WARN: return "WARN";
    case OSAL_TRACE_INFO: return "INFO";
    case OSAL_TRACE_TEST: return "TEST";
    case OSAL_TRACE_DDBG: return "DDBG";
    default: return "DBG ";
  }
}

constexpr const char kStars[] =
    "***********************************************************************";

}  // namespace

void osal_traceInitialize() {
  const char *value = std::getenv("DMS_TRACE_LEVEL");
  if (value == nullptr) {
    std::printf("\n%s\n", kStars);
    std::puts("         \"DMS_TRACE_LEVEL\" not defined.\n"
              "         Ex: export DMS_TRACE_LEVEL=0x00FF");
    std::puts("         Now assuming DMS_TRACE_LEVEL = 0x0003");
    std::printf("%s\n\n", kStars);
    return;
  }
  unsigned int mask = 0;
  if (std::sscanf(value, "%x", &mask) == 1) g_u32_osalTraceLevel.store(mask);
}

namespace {

// "int32_t {anonymous}::writeEntry(const X&, ...)" or
// "dmsCdsBuildItem(...)::<lambda()>" becomes "writeEntry" or
// "dmsCdsBuildItem"; a plain name is kept as it is.
std::string bareFunctionName(const char *signature) {
  if (signature == nullptr) return {};
  std::string_view text(signature);
  const size_t open = text.find('(');
  if (open == std::string_view::npos) return std::string(text);
  text = text.substr(0, open);
  const size_t space = text.rfind(' ');
  if (space != std::string_view::npos) text = text.substr(space + 1);
  const size_t scope = text.rfind("::");
  if (scope != std::string_view::npos) text = text.substr(scope + 2);
  return std::string(text);
}

}  // namespace

int32_t osal_tracePrintf(uint32_t level, const char *functionName, const char *fileName,
                         int32_t line, uint32_t /*ignored*/, const char *format, ...) {
  if ((level & g_u32_osalTraceLevel.load(std::memory_order_relaxed)) == 0) return -1;

  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  time_t seconds = now.tv_sec;
  localtime_r(&seconds, &local);
  char timeText[32] = {0};
  std::strftime(timeText, sizeof timeText, "%F %H:%M:%S", &local);

  // Prefix and message go out in one write so that lines from several
  // threads do not interleave.
  char prefix[512];
  int prefixLength = std::snprintf(prefix, sizeof prefix, "[%s.%03d] [%s] [%s][%d][%s()]  ",
                                   timeText, static_cast<int>(now.tv_usec / 1000),
                                   levelName(level), fileName ? fileName : "",
                                   static_cast<int>(line), bareFunctionName(functionName).c_str());
  std::string text(prefix, prefixLength > 0 ? std::min<size_t>(prefixLength, sizeof prefix - 1) : 0);
  if (format != nullptr) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int messageLength = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (messageLength > 0) {
      size_t start = text.size();
      text.resize(start + messageLength + 1);
      std::vsnprintf(text.data() + start, messageLength + 1, format, args);
      text.resize(start + messageLength);
    }
    va_end(args);
  }
  std::fwrite(text.data(), 1, text.size(), stdout);
  return -1;
}

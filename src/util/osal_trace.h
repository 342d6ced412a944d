// Trace log: one routine for every diagnostic line of the library, filtered by
// a process-wide level mask read once from DMS_TRACE_LEVEL.
#ifndef DMS_UTIL_OSAL_TRACE_H
#define DMS_UTIL_OSAL_TRACE_H

#include <atomic>
#include <cstdint>

// Level bits.  Any other value prints as "DBG " (0x10 by convention).
inline constexpr uint32_t OSAL_TRACE_ERR = 0x01;
inline constexpr uint32_t OSAL_TRACE_WARN = 0x02;
inline constexpr uint32_t OSAL_TRACE_INFO = 0x04;
inline constexpr uint32_t OSAL_TRACE_TEST = 0x08;
inline constexpr uint32_t OSAL_TRACE_DBG = 0x10;
inline constexpr uint32_t OSAL_TRACE_DDBG = 0x20;

// Enabled levels; 0x0003 (ERR and WARN) until osal_traceInitialize reads the
// environment.  Atomic: written by the host thread at init, read by all.
extern std::atomic<uint32_t> g_u32_osalTraceLevel;

// Reads DMS_TRACE_LEVEL ("%x", with or without 0x).  When it is not set, a
// four-line banner says so on standard output and the mask stays 0x0003.
void osal_traceInitialize();

// Writes "[time.ms] [LEVL] [file][line][function()]  " and the formatted
// message as one line on standard output when `level` is enabled.  The
// caller supplies any line feed.  `functionName` may be a full signature:
// only the function's name is printed.  Always returns -1.
int32_t osal_tracePrintf(uint32_t level, const char *functionName, const char *fileName,
                         int32_t line, uint32_t ignored, const char *format, ...)
    __attribute__((format(printf, 6, 7)));

// Traces from the calling function; each source file defines
// `static constexpr char kTraceFile[]` with the name its lines carry.
// The function is named by its full signature, which inside a lambda (a
// guarded body) still names the enclosing function; osal_tracePrintf prints
// only the name.
#define DMS_TRACE(level, ...) \
  osal_tracePrintf((level), __PRETTY_FUNCTION__, kTraceFile, __LINE__, 0, __VA_ARGS__)

#endif  // DMS_UTIL_OSAL_TRACE_H

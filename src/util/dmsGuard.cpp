#include "util/dmsGuard.h"

static constexpr char kTraceFile[] = "dmsGuard.c";

void dmsGuardReport(const char *where, const char *what) noexcept {
  DMS_TRACE(OSAL_TRACE_ERR, "Exception in %s(): %s\n", where != nullptr ? where : "?",
            what != nullptr ? what : "?");
}

// Library-wide set-up and the host-tunable scan switch.
#include "api/dlna_dmsApi.h"
#include "dlna_dms.h"
#include "util/osal_trace.h"

// A host that defines its own KVSUPPORT_XR_VAL overrides this default.
extern "C" {
DMS_EXPORT __attribute__((weak)) int KVSUPPORT_XR_VAL = 0;
}

extern "C" DMS_EXPORT int32_t dlna_dmsInit(void) {
  return dmsApiGuard("dlna_dmsInit", [] {
    osal_traceInitialize();
    return DMS_SUCCESS;
  });
}

extern "C" DMS_EXPORT int32_t dlna_dmsDeinit(void) { return DMS_SUCCESS; }

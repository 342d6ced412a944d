// ConnectionManager service: instance life cycle and constant tables.
#include "services/dmsCmsApi.h"

#include <atomic>
#include <memory>

#include "dlna_dms.h"
#include "services/dmsCmsEventHandler.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsCmsApi";

// Instance numbers start at 100 and are never given back.
static std::atomic<int32_t> gs_s32_cmsInstanceId{100};

// Initial values for subscribers.  SourceProtocolInfo is the wildcard here,
// while GetProtocolInfo answers the full list below: the two differ on purpose.
static const dmsStateVarPair gs_a_dmsCmsStatVarList[] = {
    // name                    value
    {"SourceProtocolInfo",     "http-get:*:*:*"},
    {"SinkProtocolInfo",       ""},
    {"CurrentConnectionIDs",   "0"},
    {nullptr,                  nullptr},
};

// Answer order of GetProtocolInfo.  The AVC_MP4_MP_SD_AC3 entry is published
// without DLNA.ORG_OP/DLNA.ORG_CI parameters.
const char *const gap_ch_dmsSupportedMediaProfileProtocolInfo[] = {
    "http-get:*:audio/x-sony-oma:DLNA.ORG_PN=ATRAC3plus;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=48000;channels=1:DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=48000;channels=2:DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=44100;channels=1:DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=44100;channels=2:DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=32000;channels=1:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=32000;channels=2:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=24000;channels=1:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=24000;channels=2:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=22050;channels=1:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=22050;channels=2:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=16000;channels=1:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=16000;channels=2:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=12000;channels=1:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=12000;channels=2:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=11025;channels=1:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=11025;channels=2:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=8000;channels=1:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=8000;channels=2:DLNA.ORG_PN=LPCM_low;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:video/x-ms-wmv:DLNA.ORG_PN=WMVSPML_MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_SM_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_LRG_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_MED;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_LRG;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:image/png:DLNA.ORG_PN=PNG_SM_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:image/png:DLNA.ORG_PN=PNG_LRG_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:image/png:DLNA.ORG_PN=PNG_LRG;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:image/gif:DLNA.ORG_PN=GIF_LRG;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:video/mpeg:DLNA.ORG_PN=MPEG_PS_NTSC;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:video/mpeg:DLNA.ORG_PN=MPEG_PS_PAL;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:video/mp4:DLNA.ORG_PN=AVC_MP4_MP_SD_AC3",
    "http-get:*:video/mp4:DLNA.ORG_PN=AVC_MP4_BL_CIF15_AAC_520;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/vnd.dlna.adts:DLNA.ORG_PN=AAC_ADTS_320;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/mp4:DLNA.ORG_PN=AAC_ISO_320;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/3gpp:DLNA.ORG_PN=AAC_ISO_320;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/x-ms-wma:DLNA.ORG_PN=WMABASE;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/x-ms-wma:DLNA.ORG_PN=WMAFULL;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/x-ms-wma:DLNA.ORG_PN=WMAPRO;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:video/x-ms-wmv:DLNA.ORG_PN=WMVHIGH_FULL;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:video/x-ms-wmv:DLNA.ORG_PN=WMVHIGH_PRO;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:video/x-ms-wmv:DLNA.ORG_PN=WMVMED_BASE;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:video/x-ms-wmv:DLNA.ORG_PN=WMVMED_FULL;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:video/x-ms-wmv:DLNA.ORG_PN=WMVMED_PRO;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    nullptr,
};

const char *const gap_ch_dmsExSupportedMediaProfileProtocolInfo[] = {
    "http-get:*:audio/L16;rate=48000;channels=1:DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=48000;channels=2:DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=44100;channels=1:DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:audio/L16;rate=44100;channels=2:DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "http-get:*:video/mpeg:DLNA.ORG_PN=MPEG_PS_NTSC;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    nullptr,
};

int32_t dmsCmsInit(dmsCmsInstance **out, dmsDevEventMgr *mgr) {
  if (out == nullptr || mgr == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  *out = nullptr;
  return dmsGuard("dmsCmsInit", DMS_ERR_NO_MEMORY, [&]() -> int32_t {
    auto instance = std::make_unique<dmsCmsInstance>();
    instance->instanceId = gs_s32_cmsInstanceId.fetch_add(1);
    instance->eventMgr = mgr;
    int32_t rc = dmsDevEventMgrRegisterCmsEventCallback(mgr, instance.get(), dmsCmsActionRequestCbf,
                                                        dmsCmsStateVariableRequestCbf);
    if (rc != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "%s%d\n", "CMS Event Manager Register failed, ErrorCode::", rc);
      return rc;  // the instance is released here, nothing refers to it
    }
    *out = instance.release();
    return DMS_SUCCESS;
  });
}

int32_t dmsCmsDeInit(dmsCmsInstance *instance) {
  if (instance == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  int32_t rc = dmsDevEventMgrUnRegisterCmsEventCallback(instance->eventMgr);
  if (rc != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "%s%d\n", "CMS Event Manager Un-Register failed, ErrorCode::", rc);
    return rc;
  }
  std::unique_ptr<dmsCmsInstance> owner(instance);
  return DMS_SUCCESS;
}

const dmsStateVarPair *dmsCmsGetStateVariableListInfo() { return gs_a_dmsCmsStatVarList; }

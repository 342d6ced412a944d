// ContentDirectory state variables with the initial values that a new
// subscriber receives.  Both update-id lists start empty and the system
// update id at 0.
#include "services/dmsDeviceEventMgr.h"

static constexpr char kTraceFile[] = "dmsCdsMgrStateVars";

static const dmsStateVarPair gs_a_dmsCdsStatVarList[] = {
    // name                   value
    {"ContainerUpdateIDs",    ""},
    {"TransferIDs",           ""},
    {"SystemUpdateID",        "0"},
    {nullptr,                 nullptr},
};

const dmsStateVarPair *dmsCdsMgrGetStateVarListInfo() { return gs_a_dmsCdsStatVarList; }

// The records a control request travels in from the front door to a
// service and back: who asked, what was asked, and the answer being built.
//
// One record per request, on the stack of the HTTP thread that handles it;
// nothing in it is shared.
#ifndef DMS_SERVICES_DMS_ACTION_REQUEST_H
#define DMS_SERVICES_DMS_ACTION_REQUEST_H

#include <ixml.h>

#include "services/dmsClientInfo.h"

#include <cstdint>
#include <string>


// One SOAP action.  The service reads its arguments from `arguments` (the
// whole request envelope; arguments are found by element name) and adds
// output arguments through dmsDevEventMgrAddActionResponse; a failure sets
// `errCode` and `errStr`, which become the UPnP fault.
struct dmsActionRequest {
  const char *actionName = "";
  const char *serviceId = "";
  IXML_Document *arguments = nullptr;       // borrowed
  const dmsClientInfo *client = nullptr;    // borrowed
  int32_t errCode = 0;
  std::string errStr;
  std::string responseType;  // service type named by the answer; empty until an argument is added
  std::string responseArgs;  // "<Name>value</Name>\r\n" per argument, values escaped
};

// One query of a state variable (QueryStateVariable).  A service that knows
// the variable sets `currentVal` and `hasValue`; `errCode` other than 0 makes
// the answer a fault.
struct dmsStateVarRequest {
  const char *serviceId = "";
  const char *stateVarName = "";
  const dmsClientInfo *client = nullptr;  // borrowed
  int32_t errCode = 0;
  std::string errStr;
  std::string currentVal;
  bool hasValue = false;
};

#endif  // DMS_SERVICES_DMS_ACTION_REQUEST_H

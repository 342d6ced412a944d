// What this build of the library holds of its optional features.  The build
// names them in DMS_FEATURE_LIST (src/CMakeLists.txt), for this file alone:
// every other file learns it by asking here.
#include <string_view>

#include "api/dlna_dmsApi.h"
#include "dlna_dms.h"

#ifndef DMS_FEATURE_LIST
#error "DMS_FEATURE_LIST names the optional features built (src/CMakeLists.txt)"
#endif

bool dmsFeatureBuilt(std::string_view name) {
  std::string_view rest = DMS_FEATURE_LIST;
  while (!rest.empty()) {
    const size_t space = rest.find(' ');
    if (rest.substr(0, space) == name) return true;
    rest = space == std::string_view::npos ? std::string_view() : rest.substr(space + 1);
  }
  return false;
}

extern "C" DMS_EXPORT const char *dlna_dmsFeatures(void) { return DMS_FEATURE_LIST; }

#include "util/dmsErrors.h"

int32_t dmsUtilErrMapToDmsErr(int32_t utilCode) {
  switch (utilCode) {
    case 0: return DMS_SUCCESS;
    case DLNA_UTIL_ERR_NO_MEMORY: return DMS_ERR_NO_MEMORY;
    case DLNA_UTIL_ERR_KEY_NOT_FOUND: return DMS_ERR_NOT_FOUND;
    case DLNA_UTIL_ERR_NULL_BUFFER:
    case DLNA_UTIL_ERR_INVALID_PARAM: return DMS_ERR_INVALID_PARAM;
    default: return DMS_ERR_FAILURE;
  }
}

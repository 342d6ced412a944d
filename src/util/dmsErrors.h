// Status codes of the utility layer and their mapping into the server's codes
// (the DMS_ERR_* codes are public, in dlna_dms.h).
#ifndef DMS_UTIL_DMS_ERRORS_H
#define DMS_UTIL_DMS_ERRORS_H

#include <cstdint>

#include "dlna_dms.h"

inline constexpr int32_t DLNA_UTIL_ERR_INVALID_PARAM = -250;
inline constexpr int32_t DLNA_UTIL_ERR_NO_MEMORY = -251;
inline constexpr int32_t DLNA_UTIL_ERR_NULL_BUFFER = -252;
inline constexpr int32_t DLNA_UTIL_ERR_KEY_NOT_FOUND = -253;

// -251 -> -97, -253 -> -69, -250 and -252 -> -100, 0 -> 0, anything else -40.
int32_t dmsUtilErrMapToDmsErr(int32_t utilCode);

#endif  // DMS_UTIL_DMS_ERRORS_H

// Detection as the server runs it, for the unit tests: one instance with the
// formats the content list registers, in the same order.
#ifndef DMS_TESTS_SUPPORT_DETECTION_H
#define DMS_TESTS_SUPPORT_DETECTION_H

#include <string>

#include "mfd/mfd_api.h"

namespace dmstest {

class Detection {
 public:
  Detection();
  ~Detection();
  Detection(const Detection &) = delete;
  Detection &operator=(const Detection &) = delete;
  // mfd_detectMediaFormat's result; *info is filled as it leaves it.
  int32_t detect(const std::string &path, mfdMediaInfo *info) const;

 private:
  mfdInstance *instance_ = nullptr;
};

// Silences the trace log for the life of the object (detection of hostile
// input is meant to complain).
class QuietTrace {
 public:
  QuietTrace();
  ~QuietTrace();
  QuietTrace(const QuietTrace &) = delete;
  QuietTrace &operator=(const QuietTrace &) = delete;

 private:
  uint32_t saved_;
};

}  // namespace dmstest

#endif  // DMS_TESTS_SUPPORT_DETECTION_H

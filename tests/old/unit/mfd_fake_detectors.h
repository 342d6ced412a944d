// Fake detectors and the fixture that installs them, for the detection
// framework tests: each registry row gets a fake that records (id, mode) and
// then does what the test set for that id; by default it declines the file.
#ifndef DMS_TESTS_UNIT_MFD_FAKE_DETECTORS_H
#define DMS_TESTS_UNIT_MFD_FAKE_DETECTORS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>
#include <cstdint>
#include <utility>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd_temp_file.h"

namespace mfdtest {

struct Call {
  uint32_t formatId;
  int mode;
};

using Behaviour = std::function<int(mfdMediaInfo *info, int mode)>;

inline thread_local std::vector<Call> gs_calls;
inline std::array<Behaviour, MFD_FORMAT_END> gs_behaviour;

template <size_t Row>
int fakeDetect(int, mfdMediaInfo *info, int mode, const char *) {
  uint32_t formatId = ga_s_mfdMediaProfileTags[Row].formatId;
  gs_calls.push_back({formatId, mode});
  return gs_behaviour[formatId] ? gs_behaviour[formatId](info, mode) : 0;
}

template <size_t... Rows>
std::array<mfdDetectCallback, 20> makeFakes(std::index_sequence<Rows...>) {
  return {fakeDetect<Rows>...};
}

// Recognises the file as `formatId` of `mediaClass` and lets `fill` set the
// rest in mode 3.
inline Behaviour recognise(uint32_t mediaClass, uint32_t formatId,
                           std::function<void(mfdMediaInfo *)> fill = nullptr) {
  return [=](mfdMediaInfo *info, int mode) {
    info->mediaClass = mediaClass;
    info->formatId = formatId;
    if (mode == MFD_MODE_PARSE && fill) fill(info);
    return 0;
  };
}

// The try order that the server's registration sequence must give.
inline const std::vector<uint32_t> kServerTryOrder = {25, 26, 18, 12, 1,  20, 21, 22,
                                                      3,  24, 6,  11, 10, 8,  15, 17};

// Puts the fakes into the callback table (registration copies them from
// there) and opens an instance; closing it at the end empties the registry.
class MfdFramework : public ::testing::Test {
 protected:
  void SetUp() override {
    std::copy(std::begin(gpa_f_mfdMediaFormatCallBack), std::end(gpa_f_mfdMediaFormatCallBack),
              saved.begin());
    std::array<mfdDetectCallback, 20> fakes = makeFakes(std::make_index_sequence<20>{});
    std::copy(fakes.begin(), fakes.end(), std::begin(gpa_f_mfdMediaFormatCallBack));
    gs_behaviour = {};
    gs_calls.clear();
    ASSERT_EQ(0, mfd_openInstance(&handle));
  }

  void TearDown() override {
    if (handle != nullptr) mfd_closeInstance(handle);
    std::copy(saved.begin(), saved.end(), std::begin(gpa_f_mfdMediaFormatCallBack));
    gs_behaviour = {};
  }

  void registerAll(const std::vector<uint32_t> &formatIds) {
    for (uint32_t formatId : formatIds) ASSERT_EQ(0, mfd_registerFormat(handle, formatId));
  }

  // The ids whose detectors a detection of `path` tried, in order.
  std::vector<uint32_t> triedOrder(const char *path, mfdInstance *through = nullptr) {
    gs_calls.clear();
    mfdMediaInfo info{};
    mfd_detectMediaFormat(through != nullptr ? through : handle, path, &info);
    std::vector<uint32_t> order;
    for (const Call &call : gs_calls) {
      if (call.mode == MFD_MODE_DETECT) order.push_back(call.formatId);
    }
    return order;
  }

  std::array<mfdDetectCallback, 20> saved{};
  mfdInstance *handle = nullptr;
  TempFile anyFile{patternBytes(3000)};
};

}  // namespace mfdtest

#endif  // DMS_TESTS_UNIT_MFD_FAKE_DETECTORS_H

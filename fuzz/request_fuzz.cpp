// libFuzzer target for the Range header reader of media answers, against
// file lengths from empty to the largest: a part lies inside the length and
// is not empty, a whole answer is the whole length, and only a "bytes="
// header can name a part or be unsatisfiable.  (The route lookup of any
// path, and with it the media and picture URL readers, is fuzzed by
// front_door_fuzz.)
//
// Input layout: byte 0 chooses the length (0xff: the header missing too);
// the rest is the Range header value.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>

#include "fuzz_support.h"
#include "http/dmsMediaServer.h"

namespace {

constexpr int64_t kLengths[] = {
    0, 1, 2, 3, 10, 100, 4096, 999999, int64_t{1} << 31, int64_t{1} << 32, 1000000000000000000,
    std::numeric_limits<int64_t>::max() - 1, std::numeric_limits<int64_t>::max(),
};

void check(const char *header, int64_t length) {
  dmsHttpByteRange range{-7, -7};
  const dmsHttpRangeAnswer answer = dmsHttpParseRange(header, length, range);
  const char *wrong = nullptr;
  if (answer == dmsHttpRangeAnswer::kWhole) {
    if (range.first != 0 || range.count != length) wrong = "a whole answer that is not the whole length";
  } else if (header == nullptr || std::strncmp(header, "bytes=", 6) != 0) {
    wrong = "a part or a refusal without bytes=";
  } else if (answer == dmsHttpRangeAnswer::kPart) {
    if (range.first < 0 || range.count < 1 || range.count > length - range.first) wrong = "a part outside the length";
  } else if (answer != dmsHttpRangeAnswer::kUnsatisfiable) {
    wrong = "an unknown answer";
  }
  if (wrong == nullptr) return;
  std::fprintf(stderr, "request_fuzz: %s for [%s] of %lld bytes: {%lld, %lld}\n", wrong,
               header != nullptr ? header : "(none)", static_cast<long long>(length),
               static_cast<long long>(range.first), static_cast<long long>(range.count));
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const std::string header(reinterpret_cast<const char *>(data) + 1, size - 1);
  const int64_t length = kLengths[data[0] % std::size(kLengths)];
  check(header.c_str(), length);
  if (data[0] == 0xff) check(nullptr, length);
  return 0;
}

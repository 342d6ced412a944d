// decodedJpegSize (dms_test.h): the tests' own JPEG decoder, in the
// support library only of a build with pictures, the one that links
// TurboJPEG.
#include <turbojpeg.h>

#include <vector>

#include "dms_test.h"

namespace dmstest {

std::string decodedJpegSize(const std::string &jpeg) {
  tjhandle decoder = tjInitDecompress();
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  const auto *data = reinterpret_cast<const unsigned char *>(jpeg.data());
  std::string size;
  if (tjDecompressHeader3(decoder, data, jpeg.size(), &width, &height, &subsampling, &colorspace) == 0) {
    std::vector<unsigned char> pixels(size_t(width) * height * 3);
    if (tjDecompress2(decoder, data, jpeg.size(), pixels.data(), width, 0, height, TJPF_RGB, TJFLAG_STOPONWARNING) == 0) {
      size = std::to_string(width) + "x" + std::to_string(height);
    }
  }
  tjDestroy(decoder);
  return size;
}

}  // namespace dmstest

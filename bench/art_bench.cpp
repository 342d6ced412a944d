// Thumbnail figures: the time to make a JPEG_TN (and a JPEG_SM) of a
// 12-megapixel photo with and without an Exif thumbnail, and a TV's photo
// grid: 100 thumbnails asked for by 4 clients at once, cold (each made on
// request) and warm (from the cache).
//
// The photos are made here with TurboJPEG (a synthetic 4000x3000 picture,
// and a copy carrying a 160x120 Exif thumbnail); the grid is 100 hard links
// of the photo without one, so that every thumbnail is decoded from the full
// picture.  It starts a real server on 127.0.0.1: run it inside a private
// network namespace, e.g.
//   unshare -n sh -c 'ip link set lo up && build/bench/art_bench'
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "dms_test.h"
#include "art/dmsArtImage.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A JPEG of a width x height picture with gradients and fine detail, so that
// it compresses like a photo rather than a flat test card.
std::string syntheticJpeg(int width, int height, int quality) {
  std::vector<unsigned char> pixels(size_t(width) * height * 3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      unsigned char *p = &pixels[(size_t(y) * width + x) * 3];
      p[0] = static_cast<unsigned char>(x * 255 / width);
      p[1] = static_cast<unsigned char>(y * 255 / height);
      p[2] = static_cast<unsigned char>((x * 7 + y * 13) ^ (x * y >> 5));
    }
  }
  tjhandle encoder = tjInitCompress();
  unsigned char *out = nullptr;
  unsigned long size = 0;
  tjCompress2(encoder, pixels.data(), width, 0, height, TJPF_RGB, &out, &size, TJSAMP_420, quality, 0);
  std::string jpeg(reinterpret_cast<const char *>(out), size);
  tjFree(out);
  tjDestroy(encoder);
  return jpeg;
}

void le16(std::string &out, unsigned v) { out += char(v & 0xFF), out += char(v >> 8 & 0xFF); }
void le32(std::string &out, unsigned v) { le16(out, v & 0xFFFF), le16(out, v >> 16); }

// `jpeg` with an APP1 Exif segment whose IFD1 holds `thumbnail`, as cameras write it.
std::string withExifThumbnail(const std::string &jpeg, const std::string &thumbnail) {
  std::string tiff = "II*";
  tiff += '\0';
  le32(tiff, 8);  // IFD0
  le16(tiff, 1);  // one entry: orientation 1
  le16(tiff, 0x0112), le16(tiff, 3), le32(tiff, 1), le32(tiff, 1);
  le32(tiff, 26);  // IFD1 right after
  le16(tiff, 2);
  le16(tiff, 0x0201), le16(tiff, 4), le32(tiff, 1), le32(tiff, 26 + 2 + 2 * 12 + 4);
  le16(tiff, 0x0202), le16(tiff, 4), le32(tiff, 1), le32(tiff, static_cast<unsigned>(thumbnail.size()));
  le32(tiff, 0);
  tiff += thumbnail;
  std::string segment = std::string("Exif\0\0", 6) + tiff;
  const size_t length = segment.size() + 2;
  std::string out = jpeg.substr(0, 2);  // SOI
  out += '\xFF', out += '\xE1', out += char(length >> 8), out += char(length & 0xFF);
  return out + segment + jpeg.substr(2);
}

void timeMaking(const char *label, const std::string &path, int box[2]) {
  constexpr int kRuns = 10;
  std::vector<double> times;
  dmsArtJpeg made;
  for (int i = 0; i < kRuns; ++i) {
    const auto start = Clock::now();
    if (!dmsArtScaleFile(path, box[0], box[1], made)) std::printf("%s: cannot be made\n", label);
    times.push_back(millisecondsSince(start));
  }
  std::sort(times.begin(), times.end());
  std::printf("%-44s %8.1f ms median %8.1f ms best  (%dx%d, %zu bytes)\n", label, times[kRuns / 2], times[0],
              made.width, made.height, made.bytes.size());
}

// Each client asks for every fourth thumbnail; the rate over the whole grid.
double gridRate(int port, const std::vector<std::string> &urls, int clients) {
  std::atomic<int> failures{0};
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      for (size_t i = c; i < urls.size(); i += clients) {
        if (dmstest::httpGet(port, urls[i]).status != 200) ++failures;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  const double seconds = millisecondsSince(start) / 1000;
  if (failures > 0) std::printf("%d thumbnails failed\n", failures.load());
  return urls.size() / seconds;
}

}  // namespace

int main() {
  dmstest::TempDir folder;
  const std::string photo = syntheticJpeg(4000, 3000, 90);
  const std::string plain = folder.write("photo.jpg", photo);
  const std::string exif = folder.write("photo-exif.jpg", withExifThumbnail(photo, syntheticJpeg(160, 120, 85)));
  std::printf("12-megapixel photo: %zu bytes\n\n", photo.size());
  int thumbnail[2] = {160, 160}, small[2] = {640, 480};
  timeMaking("JPEG_TN of the photo without Exif thumbnail", plain, thumbnail);
  timeMaking("JPEG_TN of the photo with Exif thumbnail", exif, thumbnail);
  timeMaking("JPEG_SM of the photo", plain, small);

  folder.mkdir("grid");
  for (int i = 0; i < 100; ++i) fs::create_hard_link(plain, folder / ("grid/p" + std::to_string(100 + i) + ".jpg"));
  dmstest::RunningServer server;
  if (!server.start({folder / "grid"}, "Art bench", 1000)) return 1;
  std::vector<std::string> urls;
  for (const dmstest::DidlObject &item : dmstest::children(server.port(), dmstest::children(server.port(), "0").at(0).id())) {
    urls.push_back("/web/" + item.id() + ".tn.jpg");
  }
  const double cold = gridRate(server.mediaPort(), urls, 4);
  const double warm = gridRate(server.mediaPort(), urls, 4);
  std::printf("\ngrid of %zu thumbnails, 4 clients: cold %.1f thumbnails/s, warm %.1f thumbnails/s\n", urls.size(),
              cold, warm);
  return 0;
}

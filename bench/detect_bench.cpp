// Media detection cost per file: every file under a folder (by default the
// test media fixtures) is detected as the server does it, with the page cache
// warm, over and over for about a second.  Printed per detected format and
// overall: detections per second, mean time, and mean bytes that the reader
// read from the file (the machine-independent measure of the work).
//
// usage: detect_bench [FOLDER]
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"
#include "util/osal_trace.h"

namespace {

namespace fs = std::filesystem;

struct Totals {
  uint64_t files = 0;
  uint64_t detections = 0;
  double nanoseconds = 0;
  uint64_t bytesRead = 0;
};

struct Sample {
  std::string path;
  std::string format;
};

std::vector<std::string> filesUnder(const fs::path &folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end;
       it.increment(error)) {
    if (it->is_regular_file(error)) files.push_back(it->path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string formatOf(mfdInstance *instance, const std::string &path) {
  mfdMediaInfo info{};
  mfd_detectMediaFormat(instance, path.c_str(), &info);
  return info.formatId == MFD_FORMAT_NONE ? "(none)" : mfd_formatTag(info.formatId);
}

void detectOnce(mfdInstance *instance, const Sample &sample, Totals &totals) {
  mfdMediaInfo info{};
  mfd_resetBytesRead();
  auto start = std::chrono::steady_clock::now();
  mfd_detectMediaFormat(instance, sample.path.c_str(), &info);
  std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
  totals.nanoseconds += elapsed.count();
  totals.bytesRead += mfd_bytesRead();
  ++totals.detections;
}

void printRow(const std::string &name, const Totals &totals) {
  double detections = static_cast<double>(totals.detections);
  std::printf("%-14s %6llu %14.0f %12.1f %14.0f\n", name.c_str(),
              static_cast<unsigned long long>(totals.files),
              detections * 1e9 / totals.nanoseconds, totals.nanoseconds / detections / 1e3,
              static_cast<double>(totals.bytesRead) / detections);
}

}  // namespace

int main(int argc, char **argv) {
  fs::path folder = argc > 1 ? fs::path(argv[1])
                             : fs::path(__FILE__).parent_path().parent_path() / "tests" /
                                   "fixtures" / "media";
  g_u32_osalTraceLevel = 0;
  mfdInstance *instance = nullptr;
  mfd_openInstance(&instance);
  for (uint32_t formatId : g_mfdAllServerFormatIds) mfd_registerFormat(instance, formatId);

  // The first pass warms the page cache and names each file's format.
  std::vector<Sample> samples;
  std::map<std::string, Totals> byFormat;
  for (const std::string &path : filesUnder(folder)) {
    samples.push_back({path, formatOf(instance, path)});
    ++byFormat[samples.back().format].files;
  }
  if (samples.empty()) {
    std::fprintf(stderr, "detect_bench: no files under %s\n", folder.c_str());
    return 1;
  }

  Totals overall;
  overall.files = samples.size();
  auto start = std::chrono::steady_clock::now();
  int rounds = 0;
  while (rounds < 3 || std::chrono::steady_clock::now() - start < std::chrono::seconds(1)) {
    for (const Sample &sample : samples) detectOnce(instance, sample, byFormat[sample.format]);
    ++rounds;
  }
  for (const auto &[name, totals] : byFormat) {
    overall.detections += totals.detections;
    overall.nanoseconds += totals.nanoseconds;
    overall.bytesRead += totals.bytesRead;
  }

  std::printf("%zu files under %s, %d rounds, page cache warm\n\n", samples.size(),
              folder.c_str(), rounds);
  std::printf("%-14s %6s %14s %12s %14s\n", "format", "files", "detections/s", "mean us",
              "bytes read");
  for (const auto &[name, totals] : byFormat) printRow(name, totals);
  printRow("all", overall);

  for (uint32_t formatId : g_mfdAllServerFormatIds) mfd_unregisterFormat(instance, formatId);
  mfd_closeInstance(instance);
  return 0;
}

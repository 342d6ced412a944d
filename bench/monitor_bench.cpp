// How soon a change on disk reaches a control point: the time from copying
// one MP3 into a watched folder (the copy closed) until Browse lists it, with
// 20,000 and 100,000 files already listed (median and worst of 20 copies),
// and the time until a burst of 2,500, 5,000 and 10,000 new files (hard
// links, made by this process) is all listed.  Starts a server, so run it in
// a private network namespace:
//   unshare -n sh -c 'ip link set lo up && build/bench/monitor_bench'
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "dms_test.h"
#include "util/osal_trace.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A library of `files` hard links of one MP3, 100 to a folder, and an empty
// folder "drop" to copy into.
void makeLibrary(const dmstest::TempDir &tree, int files) {
  // Several sources: a file takes at most 65,000 links.
  tree.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "song.mp3");
  for (int copy = 0; copy < 4; ++copy) tree.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "song" + std::to_string(copy) + ".mp3");
  for (int i = 0; i < files; ++i) {
    const std::string folder = tree / ("lib/f" + std::to_string(i / 100));
    if (i % 100 == 0) fs::create_directories(folder);
    fs::create_hard_link(tree / ("song" + std::to_string(i % 4) + ".mp3"), folder + "/" + std::to_string(i) + ".mp3");
  }
  fs::create_directories(tree / "lib/drop");
}

int listed(int port, const std::string &id) {
  return dmstest::browse(port, id, "BrowseDirectChildren", 0, 1).totalMatches;
}

void benchOneCopy(int files) {
  dmstest::TempDir tree;
  makeLibrary(tree, files);
  dmstest::RunningServer server;
  if (!server.start({tree / "lib"}, "Bench", 2 * files + 1000)) return;
  const std::string drop = dmstest::lookup(server.port(), "lib/drop").id();
  std::vector<double> times;
  for (int copy = 0; copy < 20; ++copy) {
    const auto start = Clock::now();
    fs::copy_file(tree / "song.mp3", tree / ("lib/drop/c" + std::to_string(copy) + ".mp3"));
    while (listed(server.port(), drop) != copy + 1 && msSince(start) < 5000) {
    }
    times.push_back(msSince(start));
  }
  std::sort(times.begin(), times.end());
  std::printf("one copy, %6d files listed: median %6.2f ms  worst %6.2f ms\n", files, times[times.size() / 2],
              times.back());
}

void benchBurst(int files) {
  dmstest::TempDir tree;
  makeLibrary(tree, 0);
  dmstest::RunningServer server;
  if (!server.start({tree / "lib"}, "Bench", 2 * files + 1000)) return;
  const std::string drop = dmstest::lookup(server.port(), "lib/drop").id();
  const auto start = Clock::now();
  for (int i = 0; i < files; ++i) {
    fs::create_hard_link(tree / "song.mp3", tree / ("lib/drop/" + std::to_string(i) + ".mp3"));
  }
  const double made = msSince(start);
  while (listed(server.port(), drop) != files && msSince(start) < 120000) usleep(2000);
  std::printf("burst of %6d new files: made in %7.1f ms, all listed after %7.1f ms (%5.1f us a file)\n", files,
              made, msSince(start), msSince(start) * 1000 / files);
}

}  // namespace

int main() {
  setenv("DMS_TRACE_LEVEL", "0", 1);
  for (int files : {20000, 100000}) benchOneCopy(files);
  for (int files : {2500, 5000, 10000}) benchBurst(files);
  return 0;
}

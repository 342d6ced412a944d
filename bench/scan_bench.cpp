// Cost of building and freeing the content list for libraries of real media
// files: 2,000, 20,000 and 100,000 hard links of four small fixtures (a JPEG,
// an MP3, a PNG and a WAV), 100 to a folder, plus two flat folders that hold
// all their files directly (the cost of appending children one at a time).
//
// Printed per library: scan time (best of three), free time, files scanned per
// second, the growth of the resident set over the first scan divided by the
// number of entries (pages freed by an earlier, larger list are reused, so a
// library smaller than one before it shows little growth), the heap bytes in
// use per entry (exact, from the allocator), and the folders left without an
// inotify watch (the kernel's per-user watch limit).  The scan must grow linearly: the 100,000
// scan may take at most 6 times the 20,000 one (5 is linear), and the flat
// 20,000 folder at most 15 times the flat 2,000 one (10 is linear).  Exit
// status 1 when either ratio is exceeded.
//
// usage: scan_bench [TEMPORARY-FOLDER]   (default /tmp)
#include <malloc.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "content/dmsClmApi.h"
#include "util/osal_trace.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kFilesPerFolder = 100;
constexpr int kRuns = 3;

struct Fixture {
  fs::path source;
  const char *extension;
};

// Resident set of this process in KiB.
long residentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

bool linkFile(const fs::path &source, const fs::path &target) {
  std::error_code error;
  fs::create_hard_link(source, target, error);
  if (!error) return true;
  return fs::copy_file(source, target, error) && !error;
}

// `files` links under `root`, in folders of `perFolder` (all in one folder
// when perFolder is 0).
bool buildLibrary(const fs::path &root, int files, int perFolder,
                  const std::vector<Fixture> &fixtures) {
  fs::path folder = root;
  fs::create_directories(folder);
  for (int i = 0; i < files; ++i) {
    if (perFolder > 0 && i % perFolder == 0) {
      char name[32];
      std::snprintf(name, sizeof name, "d%05d", i / perFolder);
      folder = root / name;
      fs::create_directory(folder);
    }
    const Fixture &fixture = fixtures[i % fixtures.size()];
    char name[32];
    std::snprintf(name, sizeof name, "f%06d.%s", i, fixture.extension);
    if (!linkFile(fixture.source, folder / name)) {
      std::fprintf(stderr, "cannot create %s\n", (folder / name).c_str());
      return false;
    }
  }
  return true;
}

struct Figures {
  std::string name;
  int files = 0;
  int32_t containers = 0;
  int32_t items = 0;
  double scanSeconds = 1e30;
  double freeSeconds = 1e30;
  long residentGrowthKiB = 0;
  double heapBytes = 0;
  int unwatched = 0;
  bool ok = true;
};

int unwatchedFolders(dmsContentEntry *container) {
  int count = 0;
  for (dmsContentEntry *child : dmsClmChildren(container)) {
    if (child->type != DMS_CLM_TYPE_CONTAINER) continue;
    if (child->container()->watchDescriptor < 0) ++count;
    count += unwatchedFolders(child);
  }
  return count;
}

Figures measure(const std::string &name, const fs::path &library, int files) {
  Figures figures;
  figures.name = name;
  figures.files = files;
  std::string path = library.string();
  char *paths[] = {path.data()};
  for (int run = 0; run < kRuns; ++run) {
    long before = residentKiB();
    size_t heapBefore = mallinfo2().uordblks;
    dmsContentListInfo *list = nullptr;
    auto start = Clock::now();
    int32_t result = dmsClmCreateContentList(&list, paths, 1, files * 2 + 1000);
    std::chrono::duration<double> scan = Clock::now() - start;
    if (result != 0 || list == nullptr) {
      std::fprintf(stderr, "dmsClmCreateContentList: %d\n", result);
      figures.ok = false;
      return figures;
    }
    if (run == 0) {
      figures.residentGrowthKiB = residentKiB() - before;
      figures.heapBytes = static_cast<double>(mallinfo2().uordblks) - static_cast<double>(heapBefore);
      dmsClmGetCounts(list, &figures.containers, &figures.items);
      auto lock = dmsClmReadLock(list);
      figures.unwatched = unwatchedFolders(list->root);
    }
    start = Clock::now();
    result = dmsClmFreeContentList(list);
    std::chrono::duration<double> release = Clock::now() - start;
    if (result != 0) {
      std::fprintf(stderr, "dmsClmFreeContentList: %d\n", result);
      figures.ok = false;
    }
    figures.scanSeconds = std::min(figures.scanSeconds, scan.count());
    figures.freeSeconds = std::min(figures.freeSeconds, release.count());
  }
  return figures;
}

void printRow(const Figures &figures) {
  double entries = static_cast<double>(figures.containers + figures.items);
  std::printf("%-10s %7d %7d %7d %9.1f %8.1f %9.0f %9ld %10.0f %11.0f %9d\n",
              figures.name.c_str(), figures.files, figures.containers, figures.items,
              figures.scanSeconds * 1e3, figures.freeSeconds * 1e3,
              figures.files / figures.scanSeconds, figures.residentGrowthKiB,
              entries > 0 ? figures.residentGrowthKiB * 1024.0 / entries : 0.0,
              entries > 0 ? figures.heapBytes / entries : 0.0, figures.unwatched);
}

}  // namespace

int main(int argc, char **argv) {
  g_u32_osalTraceLevel = 0;
  fs::path media = fs::path(__FILE__).parent_path().parent_path() / "tests" / "fixtures" / "media";
  std::vector<Fixture> fixtures = {
      {media / "image" / "jfif-640x480.jpg", "jpg"},
      {media / "audio" / "mp3" / "mpeg1-44k-cbr128.mp3", "mp3"},
      {media / "image" / "rgb-48x48.png", "png"},
      {media / "audio" / "wav" / "pcm16-44100-2ch.wav", "wav"},
  };
  for (const Fixture &fixture : fixtures) {
    if (!fs::exists(fixture.source)) {
      std::fprintf(stderr, "missing fixture %s\n", fixture.source.c_str());
      return 2;
    }
  }

  std::string pattern = (fs::path(argc > 1 ? argv[1] : "/tmp") / "scanbenchXXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    return 2;
  }
  fs::path base = pattern;

  struct Library {
    std::string name;
    int files;
    int perFolder;
  };
  const std::vector<Library> libraries = {
      {"tree-2k", 2000, kFilesPerFolder},
      {"tree-20k", 20000, kFilesPerFolder},
      {"tree-100k", 100000, kFilesPerFolder},
      {"flat-2k", 2000, 0},
      {"flat-20k", 20000, 0},
  };

  std::printf("%-10s %7s %7s %7s %9s %8s %9s %9s %10s %11s %9s\n", "library", "files",
              "folders", "items", "scan ms", "free ms", "files/s", "RSS+ KiB", "RSS B/ent",
              "heap B/ent", "unwatched");
  std::vector<Figures> results;
  bool ok = true;
  for (const Library &library : libraries) {
    fs::path root = base / library.name;
    if (!buildLibrary(root, library.files, library.perFolder, fixtures)) {
      ok = false;
      break;
    }
    Figures figures = measure(library.name, root, library.files);
    ok = ok && figures.ok;
    printRow(figures);
    std::fflush(stdout);
    results.push_back(figures);
    std::error_code error;
    fs::remove_all(root, error);
  }
  std::error_code error;
  fs::remove_all(base, error);
  if (!ok || results.size() != libraries.size()) return 2;

  double treeRatio = results[2].scanSeconds / results[1].scanSeconds;
  double flatRatio = results[4].scanSeconds / results[3].scanSeconds;
  std::printf("\nscan 100k / 20k (tree): %.2f  (5 is linear, limit 6)  %s\n", treeRatio,
              treeRatio <= 6.0 ? "linear" : "NOT LINEAR");
  std::printf("scan 20k / 2k (flat):   %.2f  (10 is linear, limit 15)  %s\n", flatRatio,
              flatRatio <= 15.0 ? "linear" : "NOT LINEAR");
  return treeRatio <= 6.0 && flatRatio <= 15.0 ? 0 : 1;
}

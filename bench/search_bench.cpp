// Search and sorting figures over one folder of 10,000 tracks: server CPU and
// latency per request for a page of 50 in the middle, by Browse unsorted and
// sorted (the first sorted request sorts, later pages use the kept order),
// and by Search: everything, a word inside titles, and sorted.
//
// It starts a real server on 127.0.0.1: run it inside a private network
// namespace, e.g.
//   unshare -n sh -c 'ip link set lo up && build/bench/search_bench'
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "dlna_dms.h"
#include "dms_test.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kTracks = 10000;

double cpuSeconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Runs `count` requests from this thread; prints the server's CPU (the
// process's less this thread's) and the mean latency per request.
void measure(int port, const char *label, const char *action, const std::string &args, int count) {
  const double processBefore = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
  const double threadBefore = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
  const auto start = Clock::now();
  int failures = 0;
  for (int i = 0; i < count; ++i) {
    if (dmstest::soap(port, dmstest::Service::kCds, action, args).status != 200) ++failures;
  }
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  const double server = (cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - processBefore) -
                        (cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - threadBefore);
  std::printf("%-34s %5d req  server CPU %7.3f ms/req  latency %7.3f ms  failures %d\n", label, count,
              server * 1000.0 / count, elapsed * 1000.0 / count, failures);
}

std::string browse(const std::string &id, const std::string &sort) {
  return "<ObjectID>" + id + "</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter>"
         "<StartingIndex>5000</StartingIndex><RequestedCount>50</RequestedCount><SortCriteria>" + sort +
         "</SortCriteria>";
}

std::string search(const std::string &criteria, const std::string &sort) {
  return "<ContainerID>0</ContainerID><SearchCriteria>" + criteria +
         "</SearchCriteria><Filter>*</Filter><StartingIndex>5000</StartingIndex>"
         "<RequestedCount>50</RequestedCount><SortCriteria>" + sort + "</SortCriteria>";
}

}  // namespace

int main() {
  const fs::path root = fs::temp_directory_path() / ("dms_search_bench_" + std::to_string(::getpid()));
  fs::create_directories(root / "tracks");
  const fs::path mp3 = fs::path(DMS_BENCH_FIXTURES) / "media/audio/mp3/mpeg1-44k-cbr128.mp3";
  for (int i = 1; i <= kTracks; ++i) {
    fs::create_hard_link(mp3, root / "tracks" / ("Track " + std::to_string(i) + ".mp3"));
  }
  if (::chdir(DMS_BENCH_WWW) != 0) return 1;
  ::setenv("DMS_TRACE_LEVEL", "0x0001", 0);
  dlna_dmsInit();
  std::string shared = root.string();
  char *paths[] = {shared.data()};
  dmsConfig config{};
  std::snprintf(config.ipAddress, sizeof config.ipAddress, "%s", "127.0.0.1");
  config.port = 49402;
  config.sharedPaths = paths;
  config.numSharedPaths = 1;
  config.maxContent = kTracks + 10;
  dmsHandle *server = nullptr;
  if (dlna_dmsCreate(&server, &config, nullptr) != 0 || dlna_dmsStart(server) != 0) {
    std::fprintf(stderr, "cannot start the server\n");
    return 1;
  }
  const int port = config.port;
  // Shared folder 1001, its folder "tracks" 1002.
  measure(port, "browse page, unsorted", "Browse", browse("1002", ""), 200);
  measure(port, "browse page, -dc:title, first", "Browse", browse("1002", "-dc:title"), 1);
  measure(port, "browse page, -dc:title, kept order", "Browse", browse("1002", "-dc:title"), 200);
  measure(port, "search *", "Search", search("*", ""), 100);
  measure(port, "search dc:title contains \"77\"", "Search", search("dc:title contains \"77\"", ""), 100);
  measure(port, "search *, +dc:title, first", "Search", search("*", "+dc:title"), 1);
  measure(port, "search *, +dc:title, kept order", "Search", search("*", "+dc:title"), 100);
  dlna_dmsStop(server);
  dlna_dmsDestroy(server);
  std::free(server);
  fs::remove_all(root);
  return 0;
}

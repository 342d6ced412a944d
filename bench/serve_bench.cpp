// Serving figures: Browse of a 100-child folder and BrowseMetadata of one item
// (requests per second, p50 and p99 latency and server CPU per request, with
// 1 and 8 clients), the folder and the views' All Tracks list of its 100
// songs with the views on, and streaming of a 1 GiB file (MB/s and server CPU per
// GiB with 1 and 4 streams), alone and with 16 paused players attached,
// beside reading the same file with `cat`.
//
// It starts a real server on 127.0.0.1: run it inside a private network
// namespace, e.g.
//   unshare -n sh -c 'ip link set lo up && build/bench/serve_bench'
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dlna_dms.h"
#include "dms_test.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr char kHost[] = "127.0.0.1";

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string browseArgs(const std::string &id, const char *flag) {
  return "<ObjectID>" + id + "</ObjectID><BrowseFlag>" + flag +
         "</BrowseFlag><Filter>*</Filter>"
         "<StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>";
}

double cpuSeconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The server runs in this process: its CPU is the process's CPU less what
// the client threads themselves used.
void benchBrowse(int port, const char *label, const std::string &id, const char *flag,
                 int clients, int requestsPerClient) {
  std::vector<std::vector<double>> latencies(clients);
  std::vector<double> clientCpu(clients);
  std::atomic<int> failures{0};
  const double processCpuBefore = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
  auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      const std::string args = browseArgs(id, flag);
      const double threadCpuBefore = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
      for (int i = 0; i < requestsPerClient; ++i) {
        auto begin = Clock::now();
        dmstest::HttpResponse response =
            dmstest::soap(port, dmstest::Service::kCds, "Browse", args);
        latencies[c].push_back(secondsSince(begin) * 1000.0);
        if (response.status != 200) ++failures;
      }
      clientCpu[c] = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - threadCpuBefore;
    });
  }
  for (auto &thread : threads) thread.join();
  double elapsed = secondsSince(start);
  double serverCpu = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - processCpuBefore;
  for (double used : clientCpu) serverCpu -= used;
  std::vector<double> all;
  for (auto &list : latencies) all.insert(all.end(), list.begin(), list.end());
  std::sort(all.begin(), all.end());
  std::printf("%-20s clients %d  %7.0f req/s  p50 %6.2f ms  p99 %6.2f ms  "
              "server CPU %5.3f ms/req  failures %d\n",
              label, clients, all.size() / elapsed, all[all.size() / 2],
              all[all.size() * 99 / 100], serverCpu * 1000.0 / all.size(), failures.load());
}

// Downloads `path` and counts the body bytes without keeping them.
int64_t download(int port, const std::string &path) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, kHost, &address.sin_addr);
  if (::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    ::close(fd);
    return 0;
  }
  std::string request = "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    ::close(fd);
    return 0;
  }
  timeval timeout{30, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  std::vector<char> buffer(1 << 20);
  int64_t total = 0;
  int64_t headerBytes = -1;
  std::string head;
  for (ssize_t n; (n = ::recv(fd, buffer.data(), buffer.size(), 0)) > 0;) {
    total += n;
    if (headerBytes < 0) {
      head.append(buffer.data(), static_cast<size_t>(std::min<ssize_t>(n, 4096)));
      size_t end = head.find("\r\n\r\n");
      if (end != std::string::npos) headerBytes = static_cast<int64_t>(end + 4);
    }
  }
  ::close(fd);
  return headerBytes < 0 ? 0 : total - headerBytes;
}

// Streams `streams` copies at once; prints the throughput and the server's
// CPU per GiB sent (the process's CPU less the client threads').
void benchStream(int port, const std::string &path, int streams, int64_t size, const char *label) {
  auto start = Clock::now();
  const double processBefore = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
  std::vector<std::thread> threads;
  std::vector<double> clientCpu(static_cast<size_t>(streams));
  std::atomic<int64_t> received{0};
  for (int s = 0; s < streams; ++s) {
    threads.emplace_back([&, s] {
      const double before = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
      received += download(port, path);
      clientCpu[static_cast<size_t>(s)] = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - before;
    });
  }
  for (auto &thread : threads) thread.join();
  double elapsed = secondsSince(start);
  double serverCpu = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - processBefore;
  for (double cpu : clientCpu) serverCpu -= cpu;
  const double gib = static_cast<double>(received.load()) / static_cast<double>(int64_t{1} << 30);
  std::printf("stream 1 GiB %-22s streams %d  %7.0f MB/s  server CPU %.3f s/GiB  (%s)\n", label, streams,
              received.load() / elapsed / 1e6, gib > 0 ? serverCpu / gib : 0.0,
              received.load() == size * streams ? "complete" : "INCOMPLETE");
}

// Streams from the server's port, then again with 16 players on pause
// attached, beside `cat` of the same file.
void benchStreaming(dmsHandle *server, const fs::path &big, int64_t bigSize) {
  const std::string bigPath = "/web/1002.wav";
  benchStream(dlna_dmsGetMediaPort(server), bigPath, 1, bigSize, "");
  benchStream(dlna_dmsGetMediaPort(server), bigPath, 4, bigSize, "");
  {
    // Players on pause: each read a little of the stream and stopped.
    std::vector<std::unique_ptr<dmstest::RawConnection>> paused;
    const int mediaPort = dlna_dmsGetMediaPort(server);
    for (int i = 0; i < 16; ++i) {
      paused.push_back(std::make_unique<dmstest::RawConnection>(mediaPort, "127.0.0.2", 4096));
      paused.back()->send("GET " + bigPath + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
      paused.back()->receive(16384);
    }
    benchStream(mediaPort, bigPath, 1, bigSize, "16 paused");
    benchStream(mediaPort, bigPath, 4, bigSize, "16 paused");
  }
  auto start = Clock::now();
  std::string command = "cat '" + big.string() + "' > /dev/null";
  if (std::system(command.c_str()) == 0) {
    std::printf("cat of the same file             %7.0f MB/s\n", bigSize / secondsSince(start) / 1e6);
  }
}

}  // namespace

int main(int argc, char **argv) {
  std::string www = argc > 1 ? argv[1] : DMS_BENCH_WWW;
  fs::path root = fs::temp_directory_path() / ("dms_serve_bench_" + std::to_string(::getpid()));
  fs::create_directories(root / "folder");
  fs::path mp3 = fs::path(DMS_BENCH_FIXTURES) / "media/audio/mp3/mpeg1-44k-cbr128.mp3";
  for (int i = 0; i < 100; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "song%03d.mp3", i);
    fs::create_hard_link(mp3, root / "folder" / name);
  }
  // 1 GiB of MPEG transport-stream-looking data would be detected as such;
  // a WAV header over zeroes is recognised at once and served from byte 0.
  fs::path big = root / "big.wav";
  const int64_t bigSize = int64_t{1} << 30;
  {
    std::ofstream out(big, std::ios::binary);
    std::string header = "RIFF\xff\xff\xff\x7fWAVEfmt ";
    header += std::string("\x10\0\0\0\x01\0\x02\0\x80\xbb\0\0\x00\xee\x02\0\x04\0\x18\0", 20);
    header += "data";
    header += std::string("\xff\xff\xff\x7f", 4);
    out << header;
    std::vector<char> block(1 << 20, 0);
    for (int64_t written = static_cast<int64_t>(header.size()); written < bigSize;) {
      int64_t n = std::min<int64_t>(static_cast<int64_t>(block.size()), bigSize - written);
      out.write(block.data(), n);
      written += n;
    }
  }

  if (::chdir(www.c_str()) != 0) return 1;
  ::setenv("DMS_TRACE_LEVEL", "0x0001", 0);
  dlna_dmsInit();
  std::string shared = root.string();
  char *paths[] = {shared.data()};
  dmsConfig config{};
  std::snprintf(config.ipAddress, sizeof config.ipAddress, "%s", kHost);
  config.port = 49400;
  config.sharedPaths = paths;
  config.numSharedPaths = 1;
  config.maxContent = 1000;
  dmsHandle *server = nullptr;
  if (dlna_dmsCreate(&server, &config, nullptr) != 0 || dlna_dmsStart(server) != 0) {
    std::fprintf(stderr, "cannot start the server\n");
    return 1;
  }
  // Shared folder 1001, big.wav 1002, folder 1003 (sorted names).
  benchBrowse(config.port, "browse 100 children", "1003", "BrowseDirectChildren", 1, 2000);
  benchBrowse(config.port, "browse 100 children", "1003", "BrowseDirectChildren", 8, 250);
  benchBrowse(config.port, "browse metadata", "1004", "BrowseMetadata", 1, 2000);
  benchBrowse(config.port, "browse metadata", "1004", "BrowseMetadata", 8, 250);
  // The same folder with the views on, and the All Tracks list that holds
  // its 100 songs as virtual items.
  dlna_dmsSetViews(server, 1);
  benchBrowse(config.port, "views: browse 100 children", "1003", "BrowseDirectChildren", 1, 2000);
  benchBrowse(config.port, "views: browse 100 children", "1003", "BrowseDirectChildren", 8, 250);
  benchBrowse(config.port, "views: All Tracks (100)", "4", "BrowseDirectChildren", 1, 2000);
  benchBrowse(config.port, "views: All Tracks (100)", "4", "BrowseDirectChildren", 8, 250);
  dlna_dmsSetViews(server, 0);
  // "serve_bench WWW browse" stops here, for profiling the Browse path.
  if (argc <= 2 || std::string(argv[2]) != "browse") benchStreaming(server, big, bigSize);
  dlna_dmsStop(server);
  dlna_dmsDestroy(server);
  std::free(server);
  fs::remove_all(root);
  return 0;
}

// Folders nested ten thousand deep: the scan, the list and its release use
// heap, not stack, so a thread with a small stack shares them; what the
// system can open by path (PATH_MAX) is listed and browsable.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "dms_test.h"

using namespace dmstest;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kStack = 1024 * 1024;  // the sanitizers' frames are larger
#else
constexpr size_t kStack = 256 * 1024;
#endif

// Runs `body` on a thread with a stack of `bytes`.
void onSmallStack(size_t bytes, std::function<void()> body) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, bytes);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, [](void *cls) -> void * {
    (*static_cast<std::function<void()> *>(cls))();
    return nullptr;
  }, &body), 0);
  pthread_attr_destroy(&attributes);
  pthread_join(thread, nullptr);
}

// Makes `depth` folders "d" inside each other below `root`, and a copy of
// `song` in the one at `songDepth`; by descriptors, as paths this long
// cannot be named.
void makeDeepTree(const std::string &root, int depth, int songDepth, const std::string &song) {
  int fd = ::open(root.c_str(), O_DIRECTORY | O_RDONLY);
  for (int level = 1; level <= depth && fd >= 0; ++level) {
    ::mkdirat(fd, "d", 0755);
    const int next = ::openat(fd, "d", O_DIRECTORY | O_RDONLY);
    ::close(fd);
    fd = next;
    if (level == songDepth) {
      const int file = ::openat(fd, "song.mp3", O_CREAT | O_WRONLY, 0644);
      ASSERT_EQ(::write(file, song.data(), song.size()), static_cast<ssize_t>(song.size()));
      ::close(file);
    }
  }
  if (fd >= 0) ::close(fd);
}

TEST(DeepTree, TenThousandNestedFoldersScanAndBrowse) {
  TempDir tree;
  const std::string share = tree.mkdir("share");
  makeDeepTree(share, 10000, 100, readFile(fixture("audio/mp3/mpeg1-44k-cbr128.mp3")));
  RunningServer server;
  onSmallStack(kStack, [&] { server.start({share}); });
  ASSERT_NE(server.port(), 0);
  std::string id = lookup(server.port(), "share").id();
  int depth = 0;
  bool songFound = false;
  for (CdsAnswer page; !id.empty() && depth < 12000; ++depth) {
    page = browse(server.port(), id, "BrowseDirectChildren");
    id.clear();
    for (const DidlObject &object : page.objects) {
      if (object.container) id = object.id();
      songFound = songFound || (depth == 100 && object.title() == "song");
    }
  }
  EXPECT_TRUE(songFound);
  EXPECT_GT(depth, 1000);  // down to where paths reach PATH_MAX
  onSmallStack(kStack, [&] { server.stop(); });
  EXPECT_EQ(std::system(("rm -rf '" + share + "'").c_str()), 0);
}

}  // namespace

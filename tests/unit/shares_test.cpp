// Opening for serving: only regular files inside the shared folders, also
// when a link or FIFO was swapped in after the scan; never blocking.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "content/dmsClmApi.h"
#include "content/dmsClmShares.h"
#include "dms_test.h"

namespace fs = std::filesystem;

TEST(Shares, OnlyRegularFilesInsideTheSharesOpen) {
  dmstest::TempDir tree;
  tree.write("share/inside.bin", "in");
  tree.write("outside/secret.bin", "secret");
  fs::create_symlink("inside.bin", tree / "share/link_in.bin");
  fs::create_symlink(tree / "outside/secret.bin", tree / "share/link_out.bin");
  fs::create_symlink(tree / "outside", tree / "share/folder_out");
  ::mkfifo((tree / "share/fifo.bin").c_str(), 0644);
  std::string share = tree / "share";
  char *paths[] = {share.data()};
  dmsContentListInfo *list = nullptr;
  ASSERT_EQ(dmsClmCreateContentList(&list, paths, 1, 100), 0);
  const struct {
    const char *path;
    bool opens;
  } rows[] = {
      {"share/inside.bin", true},          {"share/link_in.bin", true},
      {"share/link_out.bin", false},       {"share/folder_out/secret.bin", false},
      {"share/fifo.bin", false},           {"share", false},
      {"outside/secret.bin", false},       {"share/../outside/secret.bin", false},
  };
  for (bool wide : {false, true}) {
    list->wideLinks = wide;
    for (const auto &row : rows) {
      SCOPED_TRACE(std::string(row.path) + (wide ? " wide" : ""));
      const auto start = std::chrono::steady_clock::now();
      const int fd = dmsClmOpenShared(list, tree / row.path);
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
      const bool regularFile = std::string(row.path).find("fifo") == std::string::npos && std::string(row.path) != "share";
      EXPECT_EQ(fd >= 0, row.opens || (wide && regularFile));
      if (fd >= 0) ::close(fd);
    }
  }
  EXPECT_EQ(dmsClmFreeContentList(list), 0);
}

#include "content/dmsClmShares.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "content/dmsClmApi.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsClmShares.c";

namespace {

// The resolved form of `path`; empty when it cannot be resolved.
std::string realPathOf(const std::string &path) {
  std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
  return resolved ? std::string(resolved.get()) : std::string();
}

bool below(const std::string &path, const std::string &root) {
  if (root == "/") return true;
  return path.size() >= root.size() && path.compare(0, root.size(), root) == 0 &&
         (path.size() == root.size() || path[root.size()] == '/');
}

}  // namespace

void dmsClmSharesAdd(dmsContentListInfo *list, const std::string &sharedPath) {
  const std::string real = realPathOf(sharedPath);
  if (real.empty()) return;
  std::unique_lock writing(list->rwLock);
  list->shareRoots.push_back({sharedPath, real});
}

void dmsClmSharesRemove(dmsContentListInfo *list, const std::string &sharedPath) {
  auto &roots = list->shareRoots;
  roots.erase(std::remove_if(roots.begin(), roots.end(), [&](const auto &root) { return root.first == sharedPath; }),
              roots.end());
}

bool dmsClmInsideShares(const dmsContentListInfo *list, const std::string &realPath) {
  if (list->wideLinks.load(std::memory_order_relaxed)) return true;
  if (realPath.empty()) return false;
  return std::any_of(list->shareRoots.begin(), list->shareRoots.end(),
                     [&](const auto &root) { return below(realPath, root.second); });
}

bool dmsClmLinkStaysInside(const dmsContentListInfo *list, const std::string &path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return false;
  if (!S_ISLNK(status.st_mode)) return true;
  if (dmsClmInsideShares(list, realPathOf(path))) return true;
  DMS_TRACE(OSAL_TRACE_INFO, "[%s] links out of the shared folders: not listed\n", path.c_str());
  return false;
}

int dmsClmOpenShared(dmsContentListInfo *list, const std::string &path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return -1;
  struct stat status {};
  bool allowed = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  if (allowed) {
    // What was opened, whatever links lay on the way.
    const std::string opened = realPathOf("/proc/self/fd/" + std::to_string(fd));
    auto reading = dmsClmReadLock(list);
    allowed = dmsClmInsideShares(list, opened);
  }
  if (!allowed) {
    DMS_TRACE(OSAL_TRACE_INFO, "[%s] is not a regular file inside the shared folders: not served\n", path.c_str());
    ::close(fd);
    return -1;
  }
  return fd;
}

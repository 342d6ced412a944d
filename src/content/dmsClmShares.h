// The boundary of what the server may read: the real paths of the shared
// folders, and checks that a path, a symbolic link or an open file stays
// inside them.  A link whose target leaves every shared folder is neither
// listed, nor followed, nor served, unless the host allows links out
// (dlna_dmsSetWideLinks).  Only regular files are ever opened for serving.
//
// Locking: the list of roots is written with the change mutex and the
// exclusive lock held (shared folders added or removed), and read with
// either of them (the scan and the monitor hold the change mutex; serving
// takes the shared lock here).
#ifndef DMS_CONTENT_DMS_CLM_SHARES_H
#define DMS_CONTENT_DMS_CLM_SHARES_H

#include <string>

struct dmsContentListInfo;

// Records `sharedPath` (as given) with its real path.  Change mutex held;
// takes the exclusive lock itself.
void dmsClmSharesAdd(dmsContentListInfo *list, const std::string &sharedPath);
// Forgets the shared folder given as `sharedPath`.  Both locks held.
void dmsClmSharesRemove(dmsContentListInfo *list, const std::string &sharedPath);

// Whether `realPath` (already resolved) lies inside a shared folder, or links
// out are allowed.  Change mutex or shared lock held.
bool dmsClmInsideShares(const dmsContentListInfo *list, const std::string &realPath);

// Whether the entry at `path` may be listed: anything that is not a symbolic
// link, and a link whose target resolves inside the shares.  Change mutex
// held.
bool dmsClmLinkStaysInside(const dmsContentListInfo *list, const std::string &path);

// Opens `path` for reading without blocking (a FIFO swapped in cannot hang
// the caller) and returns its descriptor, or -1 when it is not a regular
// file or, resolved through /proc/self/fd, lies outside the shares (a link
// swapped in after the scan cannot lead out either).  Takes the shared lock.
int dmsClmOpenShared(dmsContentListInfo *list, const std::string &path);

#endif  // DMS_CONTENT_DMS_CLM_SHARES_H

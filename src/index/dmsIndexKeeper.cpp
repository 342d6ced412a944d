#include "index/dmsIndexKeeper.h"

#include <algorithm>
#include <memory>

#include <vector>

#include "index/dmsIndexPack.h"

namespace {

constexpr uint8_t kFolderRow = 1;
constexpr uint8_t kFileRow = 2;

// A check of a file's size and time: equal ones give equal checks; a
// changed file gives another but for one chance in four billion (it is then
// not written again until it changes once more).
uint32_t checkOf(int64_t size, int64_t modified) {
  uint64_t mixed = static_cast<uint64_t>(size) * 0x9E3779B97F4A7C15ull ^ static_cast<uint64_t>(modified);
  mixed ^= mixed >> 31;
  mixed *= 0xBF58476D1CE4E5B9ull;
  return static_cast<uint32_t>(mixed ^ (mixed >> 32));
}

}  // namespace

void dmsIndexKeeper::folder(uint32_t parentId, dmsTagPool &pool, std::unordered_map<std::string, Known> &out) {
  for (const dmsIndexStore::Row &row : store_->children(parentId)) {
    Known known;
    known.id = row.id;
    known.folder = row.kind == kFolderRow;
    known.size = row.size;
    known.modified = row.modified;
    // A row whose bytes this build cannot read, or whose file's time is not
    // before the last run began (it may have changed again within that
    // second), is known by its id only: the file is detected again.
    known.media = !known.folder && row.modified < store_->previousStart() &&
                  dmsIndexUnpackMedia(row.media, known.record) && dmsIndexUnpackTags(row.tags, pool, known.tags);
    out.emplace(row.name, known);
    // A shared folder that is not shared now is not taken for gone: its rows
    // stay, so that its ids come back when the host shares it again.
    if (firstScan_ && parentId != 0) recalled_.push_back({row.id, known.folder ? 0 : checkOf(row.size, row.modified)});
  }
}

dmsIndexStore::Row dmsIndexKeeper::rowOf(const dmsContentListInfo &list, const dmsContentEntry &entry) {
  dmsIndexStore::Row row;
  row.id = entry.id;
  row.parent = entry.parent != nullptr ? entry.parent->id : 0;
  row.name = entry.path;  // a shared folder's path as shared, else its name
  if (entry.type == DMS_CLM_TYPE_ITEM) {
    row.kind = kFileRow;
    row.size = entry.fileSize;
    row.modified = entry.media.modificationTime;
    row.media = dmsIndexPackMedia(entry.media);
    row.tags = dmsIndexPackTags(entry.tags, list.tagPool);
  } else {
    row.kind = kFolderRow;
  }
  return row;
}

void dmsIndexKeeper::put(const dmsContentListInfo &list, const dmsContentEntry &entry) {
  if (entry.type != DMS_CLM_TYPE_ROOT) store_->put(rowOf(list, entry));
}

void dmsIndexKeeper::writeAll(const dmsContentListInfo &list) {
  std::sort(recalled_.begin(), recalled_.end(), [](const Recalled &a, const Recalled &b) { return a.id < b.id; });
  const auto recalledAs = [this](const dmsContentEntry &entry) -> const Recalled * {
    auto at = std::lower_bound(recalled_.begin(), recalled_.end(), entry.id,
                               [](const Recalled &r, uint32_t id) { return r.id < id; });
    return at != recalled_.end() && at->id == entry.id ? &*at : nullptr;
  };
  // New entries and files that were read again (another size or time).
  std::vector<uint32_t> fresh;
  std::vector<const dmsContentEntry *> pending(dmsClmChildren(list.root).begin(), dmsClmChildren(list.root).end());
  while (!pending.empty()) {
    const dmsContentEntry *at = pending.back();
    pending.pop_back();
    const Recalled *was = recalledAs(*at);
    const bool file = at->type == DMS_CLM_TYPE_ITEM;
    if (was == nullptr || (file && was->check != checkOf(at->fileSize, at->media.modificationTime))) {
      fresh.push_back(at->id);
    }
    for (const dmsContentEntry *child : dmsClmChildren(at)) pending.push_back(child);
  }
  // Rows the index held that the list no longer has; rows below a folder
  // that is gone were never recalled, and go with the sweep.
  std::vector<uint32_t> gone;
  for (const Recalled &was : recalled_) {
    if (list.entriesById.find(was.id) == nullptr) gone.push_back(was.id);
  }
  std::vector<Recalled>().swap(recalled_);
  firstScan_ = false;  // later scans (a folder the host shares) are written as changes
  if (!gone.empty()) store_->remove(std::move(gone));
  // Written on the store's thread, 2,000 rows at a time, each looked up
  // again under the read lock (one gone meanwhile is skipped).
  auto ids = std::make_shared<std::vector<uint32_t>>(std::move(fresh));
  auto next = std::make_shared<size_t>(0);
  const dmsContentListInfo *source = &list;
  store_->produce([ids, next, source](std::vector<dmsIndexStore::Row> &chunk) {
    auto reading = dmsClmReadLock(source);
    for (; *next < ids->size() && chunk.size() < 2000; ++*next) {
      if (const dmsContentEntry *entry = source->entriesById.find((*ids)[*next])) {
        chunk.push_back(rowOf(*source, *entry));
      }
    }
  });
  store_->sweepOrphans();
  store_->setLastId(list.nextId - 1);
}

void dmsIndexKeeper::follow(const dmsContentListInfo &list, const dmsClmChangeSet &change) {
  std::vector<uint32_t> gone;
  for (const std::vector<uint32_t> *ids : {change.freedItems, change.freedFolders}) {
    if (ids != nullptr) gone.insert(gone.end(), ids->begin(), ids->end());
  }
  if (!gone.empty()) store_->remove(std::move(gone));
  for (const std::vector<uint32_t> *ids : {change.madeFolders, change.madeItems, change.changedItems}) {
    if (ids == nullptr) continue;
    for (uint32_t id : *ids) {
      if (const dmsContentEntry *entry = list.entriesById.find(id)) put(list, *entry);
    }
  }
  store_->setLastId(list.nextId - 1);
}

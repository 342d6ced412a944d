// The views' reader half: objects by id, and children in their default
// order (see dmsViews.h for the contract).
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <string>

#include "util/dlnaUtil_fold.h"
#include "views/dmsViews.h"
#include "views/dmsViewsInternal.h"

using namespace dmsViewsDetail;

namespace {

bool digitsAt(const char *text, size_t from, size_t count) {
  for (size_t i = from; i < from + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

int64_t number(const char *text, size_t from, size_t count) {
  int64_t value = 0;
  for (size_t i = from; i < from + count; ++i) value = value * 10 + (text[i] - '0');
  return value;
}

// One object's keys for the default order: two numbers, then the folded
// title, then the title as it is (so that "Zeta" and "zeta" always go the
// same way), then the id.
struct OrderKey {
  int64_t first = 0;
  int64_t second = 0;
  std::string title;
  std::string_view raw;
  uint32_t id = 0;
};

bool before(const OrderKey &a, const OrderKey &b) {
  if (a.first != b.first) return a.first < b.first;
  if (a.second != b.second) return a.second < b.second;
  const int titles = dlnaUtil_compareNatural(a.title, b.title);
  if (titles != 0) return titles < 0;
  return a.raw != b.raw ? a.raw < b.raw : a.id < b.id;
}

}  // namespace

int64_t dmsViewsDetail::dateKey(const dmsContentEntry &entry, const dmsTagPool &pool) {
  // "YYYY-MM-DDTHH:MM:SS" (a photo's date taken), else the file's time.
  const char *taken = pool.text(entry.tags.date);
  if (taken != nullptr && std::char_traits<char>::length(taken) >= 19 && digitsAt(taken, 0, 4) &&
      digitsAt(taken, 5, 2) && digitsAt(taken, 8, 2) && digitsAt(taken, 11, 2) && digitsAt(taken, 14, 2) &&
      digitsAt(taken, 17, 2)) {
    const int64_t day = number(taken, 0, 4) * 10000 + number(taken, 5, 2) * 100 + number(taken, 8, 2);
    return day * 1000000 + number(taken, 11, 2) * 10000 + number(taken, 14, 2) * 100 + number(taken, 17, 2);
  }
  const time_t modified = static_cast<time_t>(entry.media.modificationTime);
  struct tm local {};
  if (localtime_r(&modified, &local) == nullptr || local.tm_year + 1900 < 1 || local.tm_year + 1900 > 9999) return 0;
  const int64_t day = (local.tm_year + 1900) * 10000LL + (local.tm_mon + 1) * 100 + local.tm_mday;
  return day * 1000000 + local.tm_hour * 10000 + local.tm_min * 100 + local.tm_sec;
}

std::string_view dmsViewsDetail::itemTitle(const dmsContentEntry &entry, const dmsTagPool &pool) {
  if (const char *title = pool.text(entry.tags.title)) return title;
  std::string_view name = entry.path;
  const size_t slash = name.rfind('/');
  if (slash != std::string_view::npos) name.remove_prefix(slash + 1);
  const size_t dot = name.rfind('.');
  return dot == std::string_view::npos ? name : name.substr(0, dot);
}

void dmsViews::fillObject(uint32_t id, const Container &from, dmsViewObject &out) const {
  out = dmsViewObject{};
  out.id = id;
  out.parentId = from.parentId;
  out.upnpClass = kKinds[from.kind].upnpClass;
  out.childCount = static_cast<uint32_t>(from.containers.size() + from.memberCount()) +
                   kindCount_[static_cast<size_t>(from.allOf)];
  if (id == dmsViewIds::kPlaylists) out.childCount = static_cast<uint32_t>(playlists_.size());
  switch (from.kind) {
    case kFixed:
      out.title = from.fixedTitle;
      break;
    case kYear:
    case kMonth: {
      const uint32_t date = id - dmsViewIds::kDateBase;
      if (from.kind == kYear) {
        std::snprintf(out.number, sizeof out.number, "%04u", date / 100);
      } else {
        std::snprintf(out.number, sizeof out.number, "%04u-%02u", date / 100, date % 100);
      }
      break;
    }
    default:
      out.title = list_->tagPool.text(from.titleTag);
      if (out.title == nullptr) out.title = kUnknownArtist;
      break;
  }
}

bool dmsViews::findItem(uint32_t id, dmsViewObject &out) const {
  const uint32_t fileId = dmsViewIds::fileOf(id);
  const uint32_t slot = dmsViewIds::slotOf(id);
  auto at = std::lower_bound(rows_.begin(), rows_.end(), fileId,
                             [](const FileRow &r, uint32_t file) { return r.fileId < file; });
  if (at == rows_.end() || at->fileId != fileId || at->kind == FileKind::kNone) return false;
  const FileKindRow &kind = kFileKinds[static_cast<size_t>(at->kind)];
  uint32_t parentId = 0;
  if (slot == kind.allSlot) {
    parentId = kind.allList;
  } else if (slot >= at->first && slot < at->first + at->count) {
    parentId = at->container[slot - at->first];
  }
  if (parentId == 0) return false;
  out = dmsViewObject{};
  out.id = id;
  out.parentId = parentId;
  out.fileId = fileId;
  return true;
}

bool dmsViews::find(uint32_t id, dmsViewObject &out) const {
  if (!dmsViewIds::isViewId(id)) return false;
  std::shared_lock reading(mutex_);
  if (id >= dmsViewIds::kVirtualBase) return findItem(id, out);
  if (id >= dmsViewIds::kPlaylistBase) return findPlaylistObject(id, out);
  const Container *found = container(id);
  if (found == nullptr) return false;
  fillObject(id, *found, out);
  return true;
}

dmsViews::Order dmsViews::children(uint32_t id) const {
  if (!dmsViewIds::isViewId(id) || id >= dmsViewIds::kVirtualBase) return nullptr;
  std::shared_lock reading(mutex_);
  if (id == dmsViewIds::kPlaylists || (id >= dmsViewIds::kPlaylistBase && id < dmsViewIds::kPlaylistItemBase)) {
    return playlistChildren(id);
  }
  const Container *found = container(id);
  if (found == nullptr) return nullptr;
  {
    std::lock_guard ordering(orderMutex_);
    if (found->ordered != nullptr) return found->ordered;
  }
  // Two readers may work the same order out at once; the later keeps its.
  Order made = std::make_shared<const std::vector<uint32_t>>(defaultOrder(*found));
  std::lock_guard ordering(orderMutex_);
  found->ordered = made;
  return made;
}

// Containers first, by name (the fixed ones as their table lists them),
// then the items by the container's order.
std::vector<uint32_t> dmsViews::defaultOrder(const Container &from) const {
  const dmsTagPool &pool = list_->tagPool;
  std::vector<OrderKey> keys;
  keys.reserve(from.containers.size() + from.members.size() + kindCount_[static_cast<size_t>(from.allOf)]);
  dmsViewObject object;
  for (uint32_t id : from.containers) {
    OrderKey key;
    key.id = id;
    key.first = -1;  // before every item
    if (id > dmsViewIds::kLastFixed) {
      fillObject(id, *container(id), object);
      dlnaUtil_foldCase(object.titleText(), key.title);
      if (object.title != nullptr) key.raw = object.title;
    }
    keys.push_back(std::move(key));
  }
  const auto addItem = [&](uint32_t id) {
    OrderKey key;
    key.id = id;
    const dmsContentEntry *entry = list_->entriesById.find(dmsViewIds::fileOf(id));
    if (entry != nullptr) {
      if (from.items == ItemOrder::kByDiscTrack) {
        key.first = entry->tags.disc;
        key.second = entry->tags.track;
      } else if (from.items == ItemOrder::kByDate) {
        key.first = dateKey(*entry, pool);
      }
      key.raw = itemTitle(*entry, pool);
      dlnaUtil_foldCase(key.raw, key.title);
    }
    keys.push_back(std::move(key));
  };
  for (uint32_t id : from.members) {
    if ((id & Container::kGone) == 0) addItem(id);
  }
  if (from.allOf != FileKind::kNone) {
    const uint8_t slot = kFileKinds[static_cast<size_t>(from.allOf)].allSlot;
    for (const FileRow &listed : rows_) {
      if (listed.kind == from.allOf) addItem(dmsViewIds::virtualId(listed.fileId, slot));
    }
  }
  std::sort(keys.begin(), keys.end(), before);
  std::vector<uint32_t> ids;
  ids.reserve(keys.size());
  for (const OrderKey &key : keys) ids.push_back(key.id);
  return ids;
}

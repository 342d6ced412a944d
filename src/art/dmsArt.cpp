#include "art/dmsArt.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "tags/dmsClmPicture.h"
#include "art/dmsArtImage.h"
#include "content/dmsClmShares.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsArt";

namespace {

struct Box {
  int32_t width;
  int32_t height;
};
constexpr Box kThumbnailBox{160, 160};
constexpr Box kSmallBox{640, 480};

bool isPicture(const dmsMediaRecord &media) {
  return media.formatId == MFD_FORMAT_JPEG || media.formatId == MFD_FORMAT_JPEG2 ||
         media.formatId == MFD_FORMAT_PNG;
}

// Images keep their width and height where audio keeps its bit and sample rates.
bool hasSize(const dmsMediaRecord &media) { return media.bitrate > 0 && media.sampleRate > 0; }

bool largerThan(const dmsMediaRecord &media, Box box) {
  return media.bitrate > box.width || media.sampleRate > box.height;
}

uint64_t keyOf(uint32_t id, dmsArtKind kind) { return uint64_t{id} << 2 | static_cast<uint32_t>(kind); }

// The version of an entry's file: a rewritten file makes new pictures.
uint64_t stampOf(const dmsContentEntry &entry) {
  return static_cast<uint64_t>(entry.media.fileSize) * 1000003u ^ static_cast<uint64_t>(entry.media.modificationTime);
}

void writeResolution(char (&out)[16], const dmsMediaRecord &media, Box box) {
  int32_t width = 0;
  int32_t height = 0;
  dmsArtFitSize(media.bitrate, media.sampleRate, box.width, box.height, &width, &height);
  std::snprintf(out, sizeof out, "%dx%d", static_cast<int>(width), static_cast<int>(height));
}

bool isTrack(const dmsContentEntry &entry) {
  return entry.type == DMS_CLM_TYPE_ITEM && entry.media.mediaClass == MFD_CLASS_AUDIO;
}

// A track's cover: in its tags, else its folder's file.
bool hasCover(const dmsContentEntry &entry) {
  if (!isTrack(entry)) return false;
  if ((entry.tags.flags & DMS_TAGS_PICTURE) != 0) return true;
  return entry.parent != nullptr && entry.parent->container() != nullptr &&
         !entry.parent->container()->coverName.empty();
}

bool offered(const dmsArtCache *cache, const dmsContentEntry &entry, dmsArtKind kind) {
  return cache == nullptr || !cache->failed(keyOf(entry.id, kind), stampOf(entry));
}

// Where a picture is made from, copied under the list's lock.
struct Source {
  std::string path;
  bool embedded = false;  // the picture in the file's tags
  mfdMediaInfo info{};
  uint64_t stamp = 0;
};

bool findSource(dmsContentListInfo *list, uint32_t id, dmsArtKind kind, Source &out) {
  auto reading = dmsClmReadLock(list);
  dmsContentEntry *entry = nullptr;
  if (dmsClmGetContentEntryById(list, &entry, id) != 0 || entry == nullptr || entry->type != DMS_CLM_TYPE_ITEM) {
    return false;
  }
  const dmsMediaRecord &media = entry->media;
  switch (kind) {
    case dmsArtKind::kThumbnail:
      if (!isPicture(media) || !hasSize(media)) return false;
      break;
    case dmsArtKind::kSmall:
      if (!isPicture(media) || !largerThan(media, kSmallBox)) return false;
      break;
    case dmsArtKind::kAlbum:
      if (!hasCover(*entry)) return false;
      break;
  }
  out.stamp = stampOf(*entry);
  out.info = dmsClmExpandMedia(media);
  out.embedded = kind == dmsArtKind::kAlbum && (entry->tags.flags & DMS_TAGS_PICTURE) != 0;
  if (kind == dmsArtKind::kAlbum && !out.embedded) {
    out.path = dmsClmEntryPath(entry->parent) + "/" + entry->parent->container()->coverName;
  } else {
    out.path = dmsClmEntryPath(entry);
  }
  return true;
}

bool make(const Source &source, dmsArtKind kind, dmsArtJpeg &out) {
  const Box box = kind == dmsArtKind::kSmall ? kSmallBox : kThumbnailBox;
  if (!source.embedded) return dmsArtScaleFile(source.path, box.width, box.height, out);
  std::string picture;
  if (!dmsClmReadPicture(source.path, source.info, picture)) return false;
  return dmsArtScaleImage(reinterpret_cast<const uint8_t *>(picture.data()), picture.size(), box.width,
                          box.height, out);
}

}  // namespace

void dmsArtOffers(const dmsContentEntry *entry, const dmsArtCache *cache, dmsArtOffer &out) {
  out = dmsArtOffer{};
  if (entry == nullptr) return;
  if (entry->type == DMS_CLM_TYPE_ITEM) {
    const dmsMediaRecord &media = entry->media;
    if (isPicture(media) && hasSize(media)) {
      if (offered(cache, *entry, dmsArtKind::kThumbnail)) writeResolution(out.thumbnailResolution, media, kThumbnailBox);
      if (largerThan(media, kSmallBox) && offered(cache, *entry, dmsArtKind::kSmall)) {
        writeResolution(out.smallResolution, media, kSmallBox);
      }
    }
    if (hasCover(*entry) && offered(cache, *entry, dmsArtKind::kAlbum)) out.albumArtId = entry->id;
    return;
  }
  for (const dmsContentEntry *child : dmsClmChildren(entry)) {
    if (hasCover(*child) && offered(cache, *child, dmsArtKind::kAlbum)) {
      out.albumArtId = child->id;
      return;
    }
  }
}

dmsArtCache::Picture dmsArtGet(dmsContentListInfo *list, dmsArtCache *cache, uint32_t id, dmsArtKind kind,
                               bool *cached) {
  if (cached != nullptr) *cached = false;
  if (list == nullptr || cache == nullptr) return nullptr;
  return dmsGuard("dmsArtGet", dmsArtCache::Picture(), [&]() -> dmsArtCache::Picture {
    Source source;
    if (!findSource(list, id, kind, source)) return nullptr;
    const uint64_t key = keyOf(id, kind);
    if (cache->failed(key, source.stamp)) return nullptr;
    if (dmsArtCache::Picture kept = cache->find(key, source.stamp)) {
      if (cached != nullptr) *cached = true;
      return kept;
    }
    // The picture's file is read only while it is a regular file inside the
    // shares (a link or FIFO swapped in since the scan is refused).
    const int checked = dmsClmOpenShared(list, source.path);
    if (checked < 0) return nullptr;
    ::close(checked);
    dmsArtJpeg made;
    if (!make(source, kind, made)) {
      DMS_TRACE(OSAL_TRACE_INFO, "No picture can be made of [%s]\n", source.path.c_str());
      cache->markFailed(key, source.stamp);
      return nullptr;
    }
    auto picture = std::make_shared<const std::string>(std::move(made.bytes));
    cache->store(key, source.stamp, picture);
    return picture;
  });
}

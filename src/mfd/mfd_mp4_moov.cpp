// Box headers, the top-level walk and the movie box walk of ISO base media
// files.  Everything is read at file positions through the reader; a box's
// size decides where the next one starts, so media data is jumped over
// whatever its size (64-bit sizes included).
#include <algorithm>
#include <array>
#include <limits>

#include "mfd/mfd_api.h"
#include "mfd/mfd_mp4_box.h"
#include "mfd/mfd_video.h"
#include "util/osal_trace.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_mp4_moov.c";

namespace {

constexpr int kMaxTopLevelBoxes = 64;
constexpr int kMaxMovieBoxes = 512;  // boxes looked at inside the movie box
constexpr size_t kMaxTracks = 32;
constexpr size_t kMaxSampleEntryBytes = 4096;

constexpr uint32_t kFtyp = mfdVideo_fourCc("ftyp");
constexpr uint32_t kMoov = mfdVideo_fourCc("moov");
constexpr uint32_t kMvhd = mfdVideo_fourCc("mvhd");
constexpr uint32_t kTrak = mfdVideo_fourCc("trak");
constexpr uint32_t kTkhd = mfdVideo_fourCc("tkhd");
constexpr uint32_t kMdia = mfdVideo_fourCc("mdia");
constexpr uint32_t kMdhd = mfdVideo_fourCc("mdhd");
constexpr uint32_t kHdlr = mfdVideo_fourCc("hdlr");
constexpr uint32_t kMinf = mfdVideo_fourCc("minf");
constexpr uint32_t kStbl = mfdVideo_fourCc("stbl");
constexpr uint32_t kStsd = mfdVideo_fourCc("stsd");

// Box types an ISO or QuickTime file may start with.
constexpr uint32_t kFirstBoxTypes[] = {
    kFtyp, kMoov, mfdVideo_fourCc("mdat"), mfdVideo_fourCc("free"), mfdVideo_fourCc("skip"),
    mfdVideo_fourCc("wide"),
};

// Reads up to `count` bytes of the box's payload from `offset` on.
std::vector<uint8_t> readPayload(const mfdMp4Box &box, int64_t offset, size_t count) {
  std::vector<uint8_t> bytes;
  const int64_t available = box.end - box.payload - offset;
  if (available <= 0 || mfdVideo_seek(box.payload + offset) != 0) return bytes;
  mfdVideo_readAvailable(bytes, static_cast<size_t>(std::min<int64_t>(available, int64_t(count))));
  return bytes;
}

// Calls visit(box) for each child box in [begin, end) while the shared
// budget of boxes lasts.
template <typename Visit>
void forEachChild(int64_t begin, int64_t end, int &budget, Visit visit) {
  for (int64_t position = begin; budget > 0; --budget) {
    mfdMp4Box box;
    if (!mfdMp4_readBox(position, end, box) || box.end > end) return;
    visit(box);
    if (box.toEnd) return;
    position = box.end;
  }
}

// Time scale and duration of a movie or media header (version 0 or 1).
void readTimes(const mfdMp4Box &box, uint32_t &timescale, uint64_t &duration) {
  const std::vector<uint8_t> bytes = readPayload(box, 0, 32);
  if (bytes.size() >= 32 && bytes[0] == 1) {
    timescale = mfdVideo_be32(bytes.data() + 20);
    duration = mfdVideo_be64(bytes.data() + 24);
  } else if (bytes.size() >= 20 && bytes[0] == 0) {
    timescale = mfdVideo_be32(bytes.data() + 12);
    const uint32_t shortDuration = mfdVideo_be32(bytes.data() + 16);
    duration = shortDuration == UINT32_MAX ? 0 : shortDuration;
  }
}

// Picture size of a track header: the last two 16.16 fields.
void readTrackHeader(const mfdMp4Box &box, mfdMp4Track &track) {
  const std::vector<uint8_t> bytes = readPayload(box, 0, 96);
  const size_t size = !bytes.empty() && bytes[0] == 1 ? 96 : 84;
  if (bytes.size() < size) return;
  track.width = static_cast<int32_t>(mfdVideo_be32(bytes.data() + size - 8) >> 16);
  track.height = static_cast<int32_t>(mfdVideo_be32(bytes.data() + size - 4) >> 16);
}

void readSampleDescription(const mfdMp4Box &stsd, mfdMp4Track &track) {
  // Version and flags, entry count, then the first entry.
  mfdMp4Box entry;
  if (!mfdMp4_readBox(stsd.payload + 8, stsd.end, entry) || entry.end > stsd.end) return;
  track.entryType = entry.type;
  const int64_t size = entry.end - entry.payload;
  std::vector<uint8_t> bytes;
  if (mfdVideo_seek(entry.payload) != 0) return;
  mfdVideo_readAvailable(bytes, static_cast<size_t>(std::min<int64_t>(size, kMaxSampleEntryBytes)));
  mfdMp4_parseSampleEntry(entry.type, bytes.data(), bytes.size(), track);
}

void readMediaInformation(const mfdMp4Box &minf, mfdMp4Track &track, int &budget) {
  forEachChild(minf.payload, minf.end, budget, [&](const mfdMp4Box &stbl) {
    if (stbl.type != kStbl) return;
    forEachChild(stbl.payload, stbl.end, budget, [&](const mfdMp4Box &stsd) {
      if (stsd.type == kStsd && track.entryType == 0) readSampleDescription(stsd, track);
    });
  });
}

void readMedia(const mfdMp4Box &mdia, mfdMp4Track &track, int &budget) {
  // The handler decides how the sample entry reads: find it first.
  forEachChild(mdia.payload, mdia.end, budget, [&](const mfdMp4Box &box) {
    if (box.type == kMdhd) readTimes(box, track.timescale, track.duration);
    if (box.type != kHdlr) return;
    const std::vector<uint8_t> bytes = readPayload(box, 0, 12);
    if (bytes.size() == 12) track.handler = mfdVideo_be32(bytes.data() + 8);
  });
  forEachChild(mdia.payload, mdia.end, budget, [&](const mfdMp4Box &minf) {
    if (minf.type == kMinf) readMediaInformation(minf, track, budget);
  });
}

void readTrack(const mfdMp4Box &trak, mfdMp4Movie &movie, int &budget) {
  if (movie.tracks.size() >= kMaxTracks) return;
  mfdMp4Track track;
  int32_t headerWidth = 0;
  int32_t headerHeight = 0;
  forEachChild(trak.payload, trak.end, budget, [&](const mfdMp4Box &box) {
    if (box.type == kTkhd) {
      readTrackHeader(box, track);
      headerWidth = track.width;
      headerHeight = track.height;
    } else if (box.type == kMdia) {
      readMedia(box, track, budget);
    }
  });
  if (track.width == 0 || track.height == 0) {
    track.width = headerWidth;
    track.height = headerHeight;
  }
  movie.tracks.push_back(track);
}

}  // namespace

bool mfdMp4_readBox(int64_t position, int64_t limit, mfdMp4Box &box) {
  box = mfdMp4Box{};
  if (position < 0 || limit - position < 8 || mfdVideo_seek(position) != 0) return false;
  std::array<uint8_t, 16> header{};
  if (mfdVideo_readBytes(header.data(), 8) != 0) return false;
  const uint32_t size = mfdVideo_be32(header.data());
  box.type = mfdVideo_be32(header.data() + 4);
  box.start = position;
  box.payload = position + 8;
  if (size == 0) {
    box.end = limit;
    box.toEnd = true;
    return true;
  }
  if (size == 1) {  // 64-bit size after the type
    if (limit - position < 16 || mfdVideo_readBytes(header.data() + 8, 8) != 0) return false;
    const uint64_t largeSize = mfdVideo_be64(header.data() + 8);
    constexpr uint64_t kMax = std::numeric_limits<int64_t>::max();
    if (largeSize < 16 || largeSize > kMax - static_cast<uint64_t>(position)) return false;
    box.payload = position + 16;
    box.end = position + static_cast<int64_t>(largeSize);
    return true;
  }
  if (size < 8) return false;
  box.end = position + size;
  return true;
}

bool mfdMp4_walkTopLevel(int64_t fileSize, mfdMp4TopLevel &top) {
  top = mfdMp4TopLevel{};
  int64_t position = 0;
  for (int count = 0; count < kMaxTopLevelBoxes; ++count) {
    mfdMp4Box box;
    if (!mfdMp4_readBox(position, fileSize, box)) return false;
    if (count == 0 && std::find(std::begin(kFirstBoxTypes), std::end(kFirstBoxTypes), box.type) ==
                          std::end(kFirstBoxTypes)) {
      return false;
    }
    if (box.type == kFtyp && !top.fileType) {
      const std::vector<uint8_t> brand = readPayload(box, 0, 4);
      const bool whole = brand.size() == 4 && box.end - box.payload >= 8;  // brand and version
      if (!whole && count == 0) return false;
      top.fileType = whole;
      if (whole) top.majorBrand = mfdVideo_be32(brand.data());
    }
    if (box.type == kMoov) {
      top.moovFound = box.end <= fileSize;
      top.moov = box;
      return top.moovFound;
    }
    if (box.toEnd || box.end >= fileSize) return false;
    position = box.end;
  }
  return false;
}

void mfdMp4_parseMovie(const mfdMp4Box &moov, mfdMp4Movie &movie) {
  movie = mfdMp4Movie{};
  int budget = kMaxMovieBoxes;
  forEachChild(moov.payload, moov.end, budget, [&](const mfdMp4Box &box) {
    if (box.type == kMvhd) readTimes(box, movie.timescale, movie.duration);
    if (box.type == kTrak) readTrack(box, movie, budget);
  });
}

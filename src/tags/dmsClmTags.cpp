#include "tags/dmsClmTags.h"

#include "tags/dmsClmTagLib.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <taglib/asffile.h>
#include <taglib/flacfile.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/oggflacfile.h>
#include <taglib/opusfile.h>
#include <taglib/vorbisfile.h>
#include <taglib/tdebuglistener.h>
#include <taglib/tfilestream.h>
#include <taglib/tpropertymap.h>
#include <taglib/wavfile.h>

#include <cstdlib>
#include <mutex>

#include "mfd/mfd_formats.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsClmTags";

namespace {

// TagLib reports malformed tags on standard error; they are the file's
// business, so they go to the trace at INFO level instead.
class TraceListener : public TagLib::DebugListener {
 public:
  void printMessage(const TagLib::String &message) override {
    DMS_TRACE(OSAL_TRACE_INFO, "TagLib: %s", message.toCString(true));
  }
};

}  // namespace

void dmsClmRouteTagLibMessages() {
  static std::once_flag routed;
  std::call_once(routed, [] {
    static TraceListener listener;
    TagLib::setDebugListener(&listener);
  });
}

std::unique_ptr<TagLib::FileStream> dmsClmOpenStream(const std::string &path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return nullptr;
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    return nullptr;
  }
  // The stream takes the descriptor over (and closes it) once it is open.
  auto stream = std::make_unique<TagLib::FileStream>(fd, true);
  if (!stream->isOpen()) {
    ::close(fd);
    return nullptr;
  }
  return stream;
}

std::unique_ptr<TagLib::File> dmsClmOpenTagged(mfdTagLayout layout, TagLib::FileStream *stream) {
  switch (layout) {
    case mfdTagLayout::kMpeg:
      return std::make_unique<TagLib::MPEG::File>(stream, TagLib::ID3v2::FrameFactory::instance(), false);
    case mfdTagLayout::kMp4: return std::make_unique<TagLib::MP4::File>(stream, false);
    case mfdTagLayout::kAsf: return std::make_unique<TagLib::ASF::File>(stream, false);
    case mfdTagLayout::kWav: return std::make_unique<TagLib::RIFF::WAV::File>(stream, false);
    case mfdTagLayout::kFlac:
      return std::make_unique<TagLib::FLAC::File>(stream, TagLib::ID3v2::FrameFactory::instance(), false);
    case mfdTagLayout::kOggVorbis: return std::make_unique<TagLib::Ogg::Vorbis::File>(stream, false);
    case mfdTagLayout::kOggOpus: return std::make_unique<TagLib::Ogg::Opus::File>(stream, false);
    case mfdTagLayout::kOggFlac: return std::make_unique<TagLib::Ogg::FLAC::File>(stream, false);
    case mfdTagLayout::kNone:
    case mfdTagLayout::kExif: break;
  }
  return nullptr;
}

namespace {

std::string first(const TagLib::PropertyMap &properties, const char *key) {
  const auto found = properties.find(key);
  if (found == properties.end() || found->second.isEmpty()) return {};
  return found->second.front().stripWhiteSpace().toCString(true);
}

// "3", "3/12" or " 03 " as 3; 0 for anything else.
uint32_t leadingNumber(const std::string &text) {
  const char *cursor = text.c_str();
  while (*cursor == ' ') ++cursor;
  char *end = nullptr;
  const unsigned long value = std::strtoul(cursor, &end, 10);
  return end != cursor && value <= 0xFFFF ? static_cast<uint32_t>(value) : 0;
}

// The date as ISO 8601 (YYYY, YYYY-MM or YYYY-MM-DD) from what tags hold:
// "2019", "2019-07-14", "2019-07-14T15:30", "2019/07/14"; empty otherwise.
std::string isoDate(const std::string &text) {
  auto digits = [&](size_t at, size_t count) {
    if (at + count > text.size()) return false;
    for (size_t i = at; i < at + count; ++i) {
      if (text[i] < '0' || text[i] > '9') return false;
    }
    return true;
  };
  if (!digits(0, 4) || (text.size() > 4 && text[4] != '-' && text[4] != '/' && text[4] != 'T')) return {};
  std::string date = text.substr(0, 4);
  if (text.size() >= 7 && text[4] != 'T' && digits(5, 2)) {
    date += "-" + text.substr(5, 2);
    if (text.size() >= 10 && (text[7] == '-' || text[7] == '/') && digits(8, 2)) date += "-" + text.substr(8, 2);
  }
  return date;
}

}  // namespace

bool dmsClmReadTaggedFile(const std::string &path, mfdTagLayout layout, dmsTagText &out) {
  return dmsGuard("dmsClmReadTags", false, [&] {
    dmsClmRouteTagLibMessages();
    const std::unique_ptr<TagLib::FileStream> stream = dmsClmOpenStream(path);  // never for writing
    if (stream == nullptr) return false;
    std::unique_ptr<TagLib::File> file = dmsClmOpenTagged(layout, stream.get());
    if (file == nullptr || !file->isValid()) return false;
    const TagLib::PropertyMap properties = file->properties();
    out.title = first(properties, "TITLE");
    out.artist = first(properties, "ARTIST");
    out.albumArtist = first(properties, "ALBUMARTIST");
    out.album = first(properties, "ALBUM");
    out.genre = first(properties, "GENRE");
    out.date = isoDate(first(properties, "DATE"));
    // The generic mapping of a RIFF INFO list keeps only the year of ICRD.
    if (auto *wav = dynamic_cast<TagLib::RIFF::WAV::File *>(file.get()); wav != nullptr && !wav->hasID3v2Tag()) {
      const std::string created = isoDate(wav->InfoTag()->fieldText("ICRD").toCString(true));
      if (created.size() > out.date.size()) out.date = created;
    }
    out.track = leadingNumber(first(properties, "TRACKNUMBER"));
    out.disc = leadingNumber(first(properties, "DISCNUMBER"));
    out.hasPicture = dmsClmPictureOf(*file, nullptr);
    return !out.empty();
  });
}

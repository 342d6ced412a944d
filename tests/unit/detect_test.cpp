// Media format detection as the server runs it (every format it registers,
// in its order).  Each fixture file is checked against the table
// tests/fixtures/expected.tsv; one real file per detector is cut to every
// length and damaged at random, and detection must still end cleanly; a
// short table of hand-built files covers what no encoder-made fixture can.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "detection.h"
#include "dms_test.h"
#include "mfd/mfd_api.h"

namespace {

namespace fs = std::filesystem;
using dmstest::Bytes;
using dmstest::Detection;
using dmstest::QuietTrace;
using dmstest::TempDir;

const std::string kMedia = std::string(DMS_TEST_FIXTURES) + "/media/";

// A row of expected.tsv: what the server must publish for a file; tag "-"
// for a file it must not list.  Width and height are the picture's (images)
// or the video stream's.  Sample rate and channels are 0 where the format's
// detector does not report them (ADTS channels, program and transport stream
// audio, raw PCM); the duration is ffprobe's, 0 where detection reports none
// (images, elementary video, raw PCM of unknown layout).
struct Expected {
  std::string path, tag, mediaClass, mime, profile;
  int32_t width = 0, height = 0, sampleRate = 0, channels = 0;
  uint32_t durationMs = 0;
  bool wellFormed = true;
};

void PrintTo(const Expected &row, std::ostream *out) { *out << row.path; }

std::vector<Expected> loadTable() {
  std::vector<Expected> rows;
  for (const auto &f : dmstest::fixtureTable("expected.tsv")) {
    Expected row;
    row.path = f.empty() ? "" : f[0];
    try {
      row.wellFormed = f.size() == 10;
      if (row.wellFormed) {
        row = {f[0], f[1], f[2], f[3], f[4], std::stoi(f[5]), std::stoi(f[6]), std::stoi(f[7]),
               std::stoi(f[8]), static_cast<uint32_t>(std::stoul(f[9]))};
      }
    } catch (const std::exception &) {
      row.wellFormed = false;
    }
    rows.push_back(row);
  }
  return rows;
}

std::string className(uint32_t mediaClass) {
  static const char *const kNames[] = {"-", "image", "audio", "video", "av"};
  return mediaClass < 5 ? kNames[mediaClass] : "?";
}

// The DLNA.ORG_PN value of a profile field; "-" for a field without one
// (empty, or the operation and flags fields of a format with no profile).
std::string profileValue(const std::string &field) {
  const std::string key = "DLNA.ORG_PN=";
  if (field.empty() || field.rfind("DLNA.ORG_OP=", 0) == 0) return "-";
  if (field.rfind(key, 0) != 0) return "?" + field;
  return field.substr(key.size(), field.find(';') - key.size());
}

struct Range { int64_t offset, size; };

// Where the sample data of a RIFF file lies: the payload of its "data"
// chunk (chunks are word-aligned: an odd size has a pad byte), cut at the
// end of the file.
Range riffSampleData(const std::string &bytes) {
  auto le32 = [&](size_t at) {
    return uint32_t(uint8_t(bytes[at])) | uint32_t(uint8_t(bytes[at + 1])) << 8 |
           uint32_t(uint8_t(bytes[at + 2])) << 16 | uint32_t(uint8_t(bytes[at + 3])) << 24;
  };
  for (size_t at = 12; at + 8 <= bytes.size();) {
    const uint32_t size = le32(at + 4);
    if (bytes.compare(at, 4, "data") == 0) {
      return {int64_t(at + 8), std::min<int64_t>(size, bytes.size() - at - 8)};
    }
    at += 8 + size_t{size} + (size & 1);
  }
  return {-1, -1};
}

void checkDetection(const Detection &detection, const std::string &path, const Expected &want) {
  mfdMediaInfo info{};
  const int32_t result = detection.detect(path, &info);
  if (want.tag == "-") {  // the server lists a file only for result 0 and a class
    EXPECT_TRUE(result != 0 || info.mediaClass == MFD_CLASS_NONE) << mfd_formatTag(info.formatId);
    return;
  }
  ASSERT_EQ(result, 0);
  EXPECT_EQ(mfd_formatTag(info.formatId), want.tag);
  EXPECT_EQ(className(info.mediaClass), want.mediaClass);
  ASSERT_NE(info.mimeType, nullptr);
  EXPECT_EQ(std::string(info.mimeType), want.mime);
  EXPECT_EQ(profileValue(info.profileName), want.profile);
  const char *mime = nullptr, *profile = nullptr, *protocol = nullptr;
  ASSERT_EQ(mfd_getMediaProtocolDetails(&info, &mime, &profile, &protocol), 0);
  EXPECT_STREQ(mime, info.mimeType);
  EXPECT_STREQ(profile, info.profileName);
  EXPECT_EQ(std::string(info.protocolInfo),
            "http-get:*:" + want.mime + ":" + (profile[0] == '\0' ? "*" : profile));
  const bool image = info.mediaClass == MFD_CLASS_IMAGE;
  EXPECT_EQ(image ? info.width : info.videoWidth, want.width);
  EXPECT_EQ(image ? info.height : info.videoHeight, want.height);
  if (!image) {  // the same words hold an image's size
    EXPECT_EQ(info.sampleRate, want.sampleRate);
    EXPECT_EQ(info.channels, want.channels);
  }
  if (want.durationMs == 0) {
    EXPECT_EQ(info.duration, 0u);
  } else {
    EXPECT_NEAR(info.duration, want.durationMs, 100);
  }
  // A WAV file published as LPCM is served from its sample data on; every
  // other file whole.
  const std::string bytes = dmstest::readFile(path);
  const bool samplesOnly = want.tag == "WAV" && want.profile.rfind("LPCM", 0) == 0;
  const Range range = samplesOnly ? riffSampleData(bytes) : Range{0, int64_t(bytes.size())};
  EXPECT_EQ(info.dataOffset, range.offset);
  EXPECT_EQ(info.fileSize, range.size);
}

// ---- every fixture file -----------------------------------------------------

class DetectFixture : public ::testing::TestWithParam<Expected> {};

TEST_P(DetectFixture, PublishesWhatTheTableSays) {
  ASSERT_TRUE(GetParam().wellFormed) << "malformed row: " << GetParam().path;
  QuietTrace quiet;
  Detection detection;
  checkDetection(detection, kMedia + GetParam().path, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Files, DetectFixture, ::testing::ValuesIn(loadTable()),
                         [](const ::testing::TestParamInfo<Expected> &info) {
                           std::string name = info.param.path;
                           for (char &c : name) c = std::isalnum(uint8_t(c)) ? c : '_';
                           return name + "_" + std::to_string(info.index);
                         });

TEST(DetectTable, HasOneRowForEveryFixtureFile) {
  std::set<std::string> rows, files;
  for (const Expected &row : loadTable()) EXPECT_TRUE(rows.insert(row.path).second) << row.path;
  for (const auto &entry : fs::recursive_directory_iterator(kMedia)) {
    if (entry.is_regular_file()) files.insert(fs::relative(entry.path(), kMedia).string());
  }
  for (const std::string &file : files) EXPECT_EQ(rows.count(file), 1u) << "no row for " << file;
  for (const std::string &row : rows) EXPECT_EQ(files.count(row), 1u) << "no file for " << row;
  EXPECT_GT(files.size(), 100u);
}

// ---- hand-built files --------------------------------------------------------

// An "ea3" tag, a 96-byte unencrypted EA3 header with the codec and its
// parameters 32 bytes in, then silence.
std::string atrac(int codec, uint32_t parameters, size_t audioBytes) {
  return Bytes().text("ea3").u8({3, 0, 0}).be32(0).text("EA3").u8({1, 0, 0x60, 0xFF, 0xFF})
      .zeros(24).u8({codec}).u8({int(parameters >> 16), int(parameters >> 8 & 0xFF),
                                 int(parameters & 0xFF)})
      .zeros(60 + audioBytes).str();
}

// MPEG-1 layer III frames, 128 kbit/s at 44.1 kHz, mono, 417 bytes; the
// first carries a VBRI frame count (500 frames, 400,000 bytes).
std::string vbriStream() {
  Bytes first = Bytes().u8({0xFF, 0xFB, 0x90, 0xC4}).zeros(32).text("VBRI")
                    .u8({0, 1, 0, 0, 0, 50}).be32(400000).be32(500);
  first.zeros(417 - first.size());
  const std::string plain = Bytes().u8({0xFF, 0xFB, 0x90, 0xC4}).zeros(413).str();
  return first.str() + plain + plain + plain;
}

// "ADIF", no copyright id, constant rate of 96,000 bit/s, 48 kHz; 12,000 bytes.
std::string adif() {
  const uint64_t bits = uint64_t{96000} << 37 | uint64_t{3} << 3;
  return Bytes().text("ADIF").be32(uint32_t(bits >> 32)).be32(uint32_t(bits)).zeros(11988).str();
}

// As written to a pipe: the RIFF and data sizes left at 0xFFFFFFFF.
std::string streamedWav() {
  return Bytes().text("RIFF").le32(0xFFFFFFFF).text("WAVE").text("fmt ").le32(16).le16(1).le16(2)
      .le32(48000).le32(192000).le16(4).le16(16).text("data").le32(0xFFFFFFFF).zeros(1920).str();
}

// The free box and media data header of a fixture turned into one media
// data box with a 64-bit size (same length: the movie box stays in place).
std::string withLargeMdat() {
  std::string bytes = dmstest::readFile(kMedia + "video/m4a-aac-moov-last.m4a");
  const std::string header = Bytes().be32(1).text("mdat").be32(0).be32(12284 + 8).str();
  return bytes.replace(28, header.size(), header);
}

// A 5,000-byte APP2 segment in front of a fixture's own segments.
std::string withLargeSegment() {
  const std::string bytes = dmstest::readFile(kMedia + "image/jfif-640x480.jpg");
  return bytes.substr(0, 2) + Bytes().u8({0xFF, 0xE2}).be16(5002).str() + std::string(5000, 'Z') +
         bytes.substr(2);
}

struct Built {
  const char *why;
  std::function<std::string()> bytes;
  Expected want;                  // path: the file's name
  const char *sameAs = nullptr;  // or: what the table says for this fixture
};

const Built kBuilt[] = {
    {"no Debian encoder writes ATRAC3", [] { return atrac(0, 1u << 13 | 48, 384 * 100); },
     {"a.oma", "ATRAC3", "audio", "audio/x-sony-oma", "ATRAC3plus", 0, 0, 44100, 2, 2322}},
    {"nor ATRAC3plus", [] { return atrac(1, 2u << 13 | 2u << 10 | 185, 1488 * 50); },
     {"b.oma", "ATRAC3", "audio", "audio/x-sony-oma", "ATRAC3plus", 0, 0, 48000, 2, 2133}},
    {"encoders write ADTS, not ADIF", adif,
     {"a.aac", "MPEG2/4_AAC", "audio", "audio/vnd.dlna.adts", "AAC_ADTS_320", 0, 0, 48000, 0,
      1000}},
    {"lame writes Xing/Info frames, never VBRI", vbriStream,
     {"v.mp3", "MP3", "audio", "audio/mpeg", "MP3", 0, 0, 44100, 1, 13061}},
    {"the fixtures were written to files, whose sizes get filled in", streamedWav,
     {"s.wav", "WAV", "audio", "audio/L16;rate=48000;channels=2", "LPCM", 0, 0, 48000, 2, 10}},
    {"encoders use 64-bit box sizes only past 4 GiB", withLargeMdat, {},
     "video/m4a-aac-moov-last.m4a"},
    {"the fixture encoders write no segment large enough to be jumped over", withLargeSegment, {},
     "image/jfif-640x480.jpg"},
};

TEST(DetectBuilt, FilesNoFixtureStandsFor) {
  QuietTrace quiet;
  Detection detection;
  TempDir dir;
  for (const Built &built : kBuilt) {
    SCOPED_TRACE(built.why);
    Expected want = built.want;
    for (const Expected &row : loadTable()) {
      if (built.sameAs != nullptr && row.path == built.sameAs) want = row;
    }
    const std::string path = dir.write(fs::path(want.path).filename().string(), built.bytes());
    checkDetection(detection, path, want);
  }
}

// ---- damaged files ------------------------------------------------------------

struct Subject {
  std::string name, bytes;
};

// One real file per detector (ATRAC, with no fixture: the hand-built one).
std::vector<Subject> subjects() {
  std::vector<Subject> list{{"a.oma", atrac(0, 1u << 13 | 48, 3840)}};
  for (const char *file :
       {"audio/mp3/id3-small.mp3", "audio/aac/adts-48k-mono.aac", "audio/ac3/ac3-44k-stereo.ac3",
        "audio/wav/junk-list-first.wav", "audio/pcm/x-b-lpcm-1.pcm",
        "image/exif-intel-4000x3000.jpg", "image/rgb-48x48.png", "image/gif89a-800x600.gif",
        "image/tiff-le-rgb-320x240.tif",
        "video/ps-mpeg2-pal-720x576-mp2.mpg", "video/ts-h264-aac-320x240.ts",
        "video/es-mpeg4-320x240.m4v", "video/mp4-mpeg4-aac-320x240.mp4",
        "video/asf-wmv2-wmav2-320x240.wmv"}) {
    list.push_back({fs::path(file).filename().string(), dmstest::readFile(kMedia + file)});
  }
  return list;
}

// What any file must give, however damaged: one of the driver's results,
// strings for a file given a class, and a served range inside the file.
std::string problem(const Detection &detection, const std::string &path, int64_t length) {
  mfdMediaInfo info{};
  const int32_t result = detection.detect(path, &info);
  if (result != 0 && result != 1 && result != 2 && result != 8) {
    return "result " + std::to_string(result);
  }
  if (info.mediaClass != MFD_CLASS_NONE && info.mimeType == nullptr) return "class, no MIME type";
  if (info.fileSize < 0 || info.fileSize > length - std::min(info.dataOffset, length)) {
    return "served range " + std::to_string(info.dataOffset) + "+" + std::to_string(info.fileSize);
  }
  return "";
}

struct OpenFile { int fd; ~OpenFile() { ::close(fd); } };

// Every prefix (each cut through the headers, about 120 beyond), then
// random changes of up to eight bytes, half of them in the first 4 KiB,
// where headers are.
TEST(DetectDamage, CutsAndRandomByteChangesEndCleanly) {
  QuietTrace quiet;
  Detection detection;
  TempDir dir;
  constexpr int64_t kEveryLength = 2048;
  std::mt19937 random(20240611);
  for (const Subject &subject : subjects()) {
    const std::string path = dir.write(subject.name, subject.bytes);
    const OpenFile file{::open(path.c_str(), O_WRONLY | O_CLOEXEC)};
    ASSERT_GE(file.fd, 0);
    const int64_t size = int64_t(subject.bytes.size());
    const int64_t stride = std::max<int64_t>(1, (size - kEveryLength) / 120) | 1;
    for (int64_t length = size; length >= 0; length -= length > kEveryLength ? stride : 1) {
      ASSERT_EQ(::ftruncate(file.fd, length), 0);
      ASSERT_EQ(problem(detection, path, length), "") << subject.name << " cut to " << length;
    }
    ASSERT_EQ(::pwrite(file.fd, subject.bytes.data(), size_t(size), 0), size);
    for (int round = 0; round < 300; ++round) {
      std::vector<size_t> changed(1 + random() % 8);
      for (size_t &at : changed) {
        at = random() % (random() % 2 == 0 ? std::min<size_t>(size, 4096) : size);
        const char value = char(random());
        ASSERT_EQ(::pwrite(file.fd, &value, 1, off_t(at)), 1);
      }
      ASSERT_EQ(problem(detection, path, size), "") << subject.name << " round " << round;
      for (size_t at : changed) ASSERT_EQ(::pwrite(file.fd, &subject.bytes[at], 1, off_t(at)), 1);
    }
  }
}

}  // namespace

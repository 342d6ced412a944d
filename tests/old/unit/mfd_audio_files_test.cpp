// The whole detection (content list formats, in the content list's order) on
// audio files made by common encoders, on every truncation of a few of them,
// and on hostile bytes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <string>

#include "mfd/mfd_api.h"
#include "mfd_audio_test_support.h"

namespace {

using mfdtest::Bytes;
using mfdtest::Detection;
using mfdtest::fixture;
using mfdtest::readFile;
using mfdtest::ScratchDir;
using mfdtest::sizeOf;

constexpr int32_t kAverage = -1;  // variable rate: checked against size and time

// The image detectors, tried before the audio ones, report a failed read
// (which ends the detection with 1) on files shorter than their signatures.
constexpr size_t kLongestImageSignature = 8;

struct Expected {
  const char *file;
  int32_t bitrate;
  int32_t sampleRate;
  int32_t channels;
  uint32_t duration;  // ms, as a player shows it
  uint32_t tolerance;
};

struct Published {
  uint32_t formatId;
  const char *mimeType;
  const char *protocolInfo;
  const char *profileName;
};

constexpr Published kMp3 = {MFD_FORMAT_MP3, "audio/mpeg",
                            "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
                            "DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0"};
constexpr Published kAdts = {
    MFD_FORMAT_AAC, "audio/vnd.dlna.adts",
    "http-get:*:audio/vnd.dlna.adts:DLNA.ORG_PN=AAC_ADTS_320;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
    "DLNA.ORG_PN=AAC_ADTS_320;DLNA.ORG_OP=01;DLNA.ORG_CI=0"};
constexpr Published kAc3 = {MFD_FORMAT_AC3, "audio/x-ac3", "http-get:*:audio/x-ac3:*", ""};

void checkPublished(const mfdMediaInfo &info, const Published &published) {
  EXPECT_EQ(MFD_CLASS_AUDIO, info.mediaClass);
  EXPECT_EQ(published.formatId, info.formatId);
  EXPECT_EQ(published.formatId, info.audioCodec);
  EXPECT_STREQ(published.mimeType, info.mimeType);
  EXPECT_STREQ(published.protocolInfo, info.protocolInfo);
  EXPECT_STREQ(published.profileName, info.profileName);
}

void checkFile(const Detection &detection, const Expected &expected, const Published &published) {
  SCOPED_TRACE(expected.file);
  const std::string path = fixture(expected.file);
  mfdMediaInfo info{};
  ASSERT_EQ(0, detection.detect(path, info));
  checkPublished(info, published);
  EXPECT_EQ(expected.sampleRate, info.sampleRate);
  EXPECT_EQ(expected.channels, info.channels);
  EXPECT_EQ(0, info.dataOffset);
  EXPECT_EQ(sizeOf(path), info.fileSize);
  EXPECT_NEAR(expected.duration, info.duration, expected.tolerance);
  if (expected.bitrate != kAverage) {
    EXPECT_EQ(expected.bitrate, info.bitrate);
  } else if (info.duration != 0) {
    const double measured = sizeOf(path) * 8.0 / info.duration;
    EXPECT_NEAR(measured, info.bitrate, measured * 0.1);
  }
}

TEST(MfdAudioFilesTest, Mp3FilesOfEveryVersion) {
  Detection detection;
  const Expected files[] = {
      {"mp3/mpeg1-44k-cbr128.mp3", 128, 44100, 2, 1045, 30},
      {"mp3/mpeg1-44k-cbr128-notag.mp3", 128, 44100, 2, 1045, 30},
      {"mp3/mpeg1-48k-cbr128-mono.mp3", 128, 48000, 1, 1032, 30},
      {"mp3/mpeg1-44k-vbr.mp3", kAverage, 44100, 2, 1045, 30},
      {"mp3/mpeg1-44k-vbr-notag.mp3", kAverage, 44100, 2, 1043, 30},
      {"mp3/mpeg2-22k-cbr64.mp3", 64, 22050, 2, 1071, 30},
      {"mp3/mpeg2-24k-vbr.mp3", kAverage, 24000, 2, 1056, 30},
      {"mp3/mpeg2-16k-cbr32-mono-notag.mp3", 32, 16000, 1, 1080, 40},
      {"mp3/mpeg25-11k-cbr32.mp3", 32, 11025, 2, 1149, 60},
      {"mp3/mpeg25-8k-cbr16-mono-notag.mp3", 16, 8000, 1, 1152, 80},
      {"mp3/mpeg25-8k-vbr-mono.mp3", kAverage, 8000, 1, 1152, 80},
      {"mp3/first-frame-padded.mp3", 128, 44100, 2, 1019, 30},
  };
  for (const Expected &expected : files) checkFile(detection, expected, kMp3);
}

TEST(MfdAudioFilesTest, Mp3FilesBehindId3Tags) {
  Detection detection;
  const Expected files[] = {
      {"mp3/id3-small.mp3", 128, 44100, 2, 1045, 30},
      {"mp3/id3-picture.mp3", 64, 22050, 2, 1071, 30},  // the tag is larger than the search
      {"mp3/id3-footer.mp3", 128, 44100, 2, 1045, 30},
  };
  for (const Expected &expected : files) checkFile(detection, expected, kMp3);
}

TEST(MfdAudioFilesTest, AdtsFiles) {
  Detection detection;
  struct AdtsFile {
    Expected expected;
    int32_t formatWord;
  };
  // The rate word is the sample rate x channels x 6; channels stay 0.
  const AdtsFile files[] = {
      {{"aac/adts-44k-stereo.aac", 44100 * 2 * 6, 44100, 0, 1045, 30}, 2},
      {{"aac/adts-48k-mono.aac", 48000 * 6, 48000, 0, 1024, 30}, 1},
  };
  for (const AdtsFile &file : files) {
    checkFile(detection, file.expected, kAdts);
    mfdMediaInfo info{};
    detection.detect(fixture(file.expected.file), info);
    EXPECT_EQ(file.formatWord, info.formatWord) << file.expected.file;
  }
}

TEST(MfdAudioFilesTest, Ac3Files) {
  Detection detection;
  struct Ac3File {
    Expected expected;
    int32_t codingMode, lfe;
  };
  const Ac3File files[] = {
      {{"ac3/ac3-48k-stereo.ac3", 192, 48000, 2, 1024, 0}, 2, 0},
      {{"ac3/ac3-44k-stereo.ac3", 128, 44100, 2, 1010, 0}, 2, 0},
      {{"ac3/ac3-48k-5.1.ac3", 384, 48000, 6, 512, 0}, 7, 1},
  };
  for (const Ac3File &file : files) {
    checkFile(detection, file.expected, kAc3);
    mfdMediaInfo info{};
    detection.detect(fixture(file.expected.file), info);
    EXPECT_EQ(file.codingMode, info.formatWord) << file.expected.file;
    EXPECT_EQ(file.lfe, info.formatWord2) << file.expected.file;
  }
}

TEST(MfdAudioFilesTest, RawPcmFilesByName) {
  Detection detection;
  struct PcmFile {
    const char *file;
    uint32_t profileCode;
    const char *mimeType;
    uint32_t duration;
  };
  const PcmFile files[] = {
      {"pcm/x-b-lpcm-1.pcm", 1, "audio/L16;rate=44100;channels=1", 50},
      {"pcm/x-b-lpcm-2.pcm", 2, "audio/L16;rate=44100;channels=2", 50},
      {"pcm/x-b-lpcm-3.pcm", 3, "audio/L16;rate=48000;channels=1", 50},
      {"pcm/x-b-lpcm-4.pcm", 4, "audio/L16;rate=48000;channels=2", 50},
      {"pcm/plain.pcm", 5, "audio/wav", 0},
      {"pcm/a.lpcm", 5, "audio/wav", 0},
  };
  for (const PcmFile &file : files) {
    SCOPED_TRACE(file.file);
    const std::string path = fixture(file.file);
    mfdMediaInfo info{};
    ASSERT_EQ(0, detection.detect(path, info));
    EXPECT_EQ(MFD_CLASS_AUDIO, info.mediaClass);
    EXPECT_EQ(MFD_FORMAT_LPCM, info.formatId);
    EXPECT_EQ(file.profileCode, info.profileCode);
    EXPECT_STREQ(file.mimeType, info.mimeType);
    const bool lpcm = file.profileCode != 5;
    EXPECT_STREQ(lpcm ? "DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01" : "", info.profileName);
    EXPECT_EQ(std::string("http-get:*:") + file.mimeType + ":" +
                  (lpcm ? "DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01" : "*"),
              info.protocolInfo);
    EXPECT_EQ(sizeOf(path), info.fileSize);
    EXPECT_EQ(0, info.dataOffset);
    EXPECT_EQ(file.duration, info.duration);
  }
}

TEST(MfdAudioFilesTest, FilesThatAreNotAudio) {
  Detection detection;
  for (const char *file :
       {"negative/notes.txt", "negative/empty.mp3", "negative/truncated-header.mp3",
        "negative/random.mp3", "negative/mp3-renamed.wav"}) {
    SCOPED_TRACE(file);
    const std::string path = fixture(file);
    mfdMediaInfo info{};
    const int32_t result = detection.detect(path, info);
    if (sizeOf(path) < static_cast<int64_t>(kLongestImageSignature)) {
      EXPECT_TRUE(result == MFD_ERR_UNSUPPORTED || result == MFD_ERR_INVALID_PARAM) << result;
    } else {
      EXPECT_EQ(MFD_ERR_UNSUPPORTED, result);
    }
    EXPECT_EQ(MFD_FORMAT_NONE, info.formatId);
    EXPECT_EQ(MFD_CLASS_NONE, info.mediaClass);
    EXPECT_STREQ("", info.mimeType);
    EXPECT_STREQ("", info.protocolInfo);
    EXPECT_EQ(sizeOf(path), info.fileSize);
    EXPECT_EQ(0u, info.duration);
  }
}

// Every prefix of a valid file is either not recognised or recognised as
// that format; none makes a detector fail or read out of bounds.
void checkTruncations(const Detection &detection, const char *file, const char *name,
                      uint32_t formatId, size_t longest) {
  SCOPED_TRACE(file);
  ScratchDir dir;
  const Bytes whole = readFile(fixture(file));
  ASSERT_GE(whole.size(), longest);
  size_t firstRecognised = 0;
  const std::string path = dir.write(name, whole);
  for (size_t length = longest + 1; length-- > 0;) {
    ASSERT_EQ(0, ::truncate(path.c_str(), static_cast<off_t>(length)));
    mfdMediaInfo info{};
    const int32_t result = detection.detect(path, info);
    // 1 also when the file was recognised but its details are cut off (the
    // reader's end-of-file status from mode 3, kept in the record).
    const bool failureAllowed = length < kLongestImageSignature || info.formatId == formatId;
    ASSERT_TRUE(result == 0 || result == MFD_ERR_UNSUPPORTED ||
                (failureAllowed && result == MFD_ERR_INVALID_PARAM))
        << length << ": " << result;
    ASSERT_EQ(result != MFD_ERR_UNSUPPORTED && length >= kLongestImageSignature ? formatId : 0u,
              info.formatId)
        << length;
    ASSERT_GE(info.fileSize, 0) << length;
    ASSERT_LE(info.fileSize, static_cast<int64_t>(length)) << length;
    if (result == 0) firstRecognised = length;
  }
  EXPECT_GT(firstRecognised, 0u);
}

TEST(MfdAudioTruncationTest, EveryPrefixIsDetectedCleanly) {
  Detection detection;
  checkTruncations(detection, "mp3/id3-small.mp3", "cut.mp3", MFD_FORMAT_MP3, 1100);
  checkTruncations(detection, "wav/pcm16-44100-2ch.wav", "cut.wav", MFD_FORMAT_WAV, 120);
  checkTruncations(detection, "aac/adts-44k-stereo.aac", "cut.aac", MFD_FORMAT_AAC, 300);
  checkTruncations(detection, "ac3/ac3-48k-stereo.ac3", "cut.ac3", MFD_FORMAT_AC3, 800);
}

TEST(MfdAudioHostileTest, RandomBytesBehindAudioHeadersNeverBreakDetection) {
  Detection detection;
  ScratchDir dir;
  const Bytes prefixes[] = {
      {},
      {'I', 'D', '3', 4, 0, 0x10},
      {0xFF, 0xFB, 0x90, 0x44},
      {0xFF, 0xE3, 0x28, 0xC0},
      {0xFF, 0xF1},
      {'A', 'D', 'I', 'F'},
      {0x0B, 0x77},
      {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'},
      {'R', 'F', '6', '4', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'd', 'y', '6', '4'},
      {'e', 'a', '3', 3, 0, 0, 0, 0, 0, 0, 'E', 'A', '3', 1, 0, 0x60, 0xFF, 0xFF},
  };
  const char *names[] = {"h.mp3", "h.aac", "h.ac3", "h.wav", "h.ea3", "h.pcm", "h"};
  std::mt19937 random(20240601);
  for (int round = 0; round < 300; ++round) {
    const Bytes &prefix = prefixes[round % std::size(prefixes)];
    Bytes bytes = prefix;
    const size_t length = random() % 3000;
    // Mostly sync-like bytes, so that the searches find candidates.
    for (size_t index = 0; index < length; ++index) {
      const uint32_t draw = random();
      bytes.push_back(draw % 4 == 0 ? 0xFF : static_cast<uint8_t>(draw >> 8));
    }
    // Rewritten in place: creating hundreds of files is slow on a busy disk.
    const std::string path = dir.write(names[round % std::size(names)], {});
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GT(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::pwrite(fd, bytes.data(), bytes.size(), 0));
    ::close(fd);
    mfdMediaInfo info{};
    const int32_t result = detection.detect(path, info);
    EXPECT_TRUE(result == 0 || result == MFD_ERR_INVALID_PARAM || result == MFD_ERR_UNSUPPORTED)
        << round << ": " << result;
    EXPECT_NE(nullptr, info.mimeType) << round;
  }
}

}  // namespace

// WAV and ATRAC detection: on headers built here (the RIFF chunk walk, the
// sample layout words, the ATRAC header found behind its tag), and the whole
// detection on WAV files written by common tools.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "mfd/mfd_api.h"
#include "mfd_audio_test_support.h"

namespace {

using mfdtest::appendBe32;
using mfdtest::appendLe16;
using mfdtest::appendLe32;
using mfdtest::appendSyncSafe;
using mfdtest::appendText;
using mfdtest::appendZeros;
using mfdtest::Bytes;
using mfdtest::Detection;
using mfdtest::DetectorRun;
using mfdtest::fixture;
using mfdtest::runDetector;
using mfdtest::ScratchDir;
using mfdtest::sizeOf;

void append(Bytes &bytes, const Bytes &more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes chunk(const std::string &id, const Bytes &payload) {
  Bytes bytes;
  appendText(bytes, id);
  appendLe32(bytes, static_cast<uint32_t>(payload.size()));
  append(bytes, payload);
  if (payload.size() % 2 != 0) bytes.push_back(0);  // word alignment
  return bytes;
}

Bytes formatPayload(uint32_t tag, uint32_t channels, uint32_t rate, uint32_t bits) {
  Bytes payload;
  appendLe16(payload, tag);
  appendLe16(payload, channels);
  appendLe32(payload, rate);
  appendLe32(payload, rate * channels * bits / 8);
  appendLe16(payload, channels * bits / 8);
  appendLe16(payload, bits);
  return payload;
}

// WAVE_FORMAT_EXTENSIBLE with a sub-format GUID that begins with `subFormat`.
Bytes extensiblePayload(uint32_t subFormat, uint32_t channels, uint32_t rate, uint32_t bits) {
  Bytes payload = formatPayload(0xFFFE, channels, rate, bits);
  appendLe16(payload, 22);
  appendLe16(payload, bits);
  appendLe32(payload, 3);
  appendLe16(payload, subFormat);
  payload.insert(payload.end(), {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00,
                                 0x38, 0x9B, 0x71});
  return payload;
}

Bytes riff(const Bytes &chunks) {
  Bytes bytes;
  appendText(bytes, "RIFF");
  appendLe32(bytes, static_cast<uint32_t>(chunks.size() + 4));
  appendText(bytes, "WAVE");
  append(bytes, chunks);
  return bytes;
}

DetectorRun runWav(const ScratchDir &dir, const Bytes &bytes) {
  return runDetector(mediaFormatWavDetect, MFD_FORMAT_WAV, dir.write("a.wav", bytes));
}

TEST(MfdWavTest, FormatChunkAtByte12GivesRateChannelsAndBitRate) {
  ScratchDir dir;
  Bytes chunks = chunk("fmt ", formatPayload(1, 2, 44100, 16));
  append(chunks, chunk("data", Bytes(17640, 0)));
  DetectorRun run = runWav(dir, riff(chunks));
  EXPECT_EQ(0, run.mode2);
  EXPECT_EQ(0, run.mode3);
  EXPECT_EQ(MFD_CLASS_AUDIO, run.info.mediaClass);
  EXPECT_EQ(MFD_FORMAT_WAV, run.info.formatId);
  EXPECT_EQ(MFD_FORMAT_WAV, run.info.audioCodec);
  EXPECT_EQ(44100, run.info.sampleRate);
  EXPECT_EQ(2, run.info.channels);
  EXPECT_EQ(1411200, run.info.bitrate);
  EXPECT_EQ(16, run.info.bitsPerSample);
  EXPECT_EQ(1, run.info.sampleFormat);
  EXPECT_EQ(44, run.info.dataOffset);
  EXPECT_EQ(17640, run.info.fileSize);
  EXPECT_EQ(100u, run.info.duration);
}

// With the chunk walk, a "fmt " chunk behind other chunks is still found;
// a RIFF file without one is recognised with no rate or channels.
TEST(MfdWavTest, ChunkWalkFindsFormatAndDataBehindOtherChunks) {
  ScratchDir dir;
  Bytes chunks = chunk("JUNK", Bytes(28, 0));
  append(chunks, chunk("LIST", Bytes(13, 'i')));  // odd size: a pad byte follows
  append(chunks, chunk("fmt ", formatPayload(1, 1, 22050, 16)));
  append(chunks, chunk("fact", Bytes(4, 0)));
  append(chunks, chunk("data", Bytes(4410, 0)));
  DetectorRun run = runWav(dir, riff(chunks));
  EXPECT_EQ(22050, run.info.sampleRate);
  EXPECT_EQ(1, run.info.channels);
  EXPECT_EQ(352800, run.info.bitrate);
  EXPECT_EQ(12 + 36 + 22 + 24 + 12 + 8, run.info.dataOffset);
  EXPECT_EQ(4410, run.info.fileSize);
  EXPECT_EQ(100u, run.info.duration);

  Bytes dataFirst = chunk("data", Bytes(801, 0));  // odd data size, then the format
  append(dataFirst, chunk("fmt ", formatPayload(1, 1, 8000, 8)));
  run = runWav(dir, riff(dataFirst));
  EXPECT_EQ(8000, run.info.sampleRate);
  EXPECT_EQ(8, run.info.bitsPerSample);
  EXPECT_EQ(20, run.info.dataOffset);
  EXPECT_EQ(801, run.info.fileSize);

  run = runWav(dir, riff(chunk("LIST", Bytes(40, 'i'))));
  EXPECT_EQ(MFD_FORMAT_WAV, run.info.formatId);
  EXPECT_EQ(0, run.info.sampleRate);
  EXPECT_EQ(0, run.info.channels);
  EXPECT_EQ(0, run.info.bitrate);
}

TEST(MfdWavTest, ExtensibleFormatResolvesToItsSubFormat) {
  ScratchDir dir;
  Bytes floatChunks = chunk("fmt ", extensiblePayload(3, 2, 48000, 32));
  append(floatChunks, chunk("data", Bytes(64, 0)));
  DetectorRun run = runWav(dir, riff(floatChunks));
  EXPECT_EQ(3, run.info.sampleFormat);
  EXPECT_EQ(32, run.info.bitsPerSample);
  EXPECT_EQ(48000, run.info.sampleRate);

  Bytes pcmChunks = chunk("fmt ", extensiblePayload(1, 6, 48000, 16));
  append(pcmChunks, chunk("data", Bytes(64, 0)));
  run = runWav(dir, riff(pcmChunks));
  EXPECT_EQ(1, run.info.sampleFormat);
  EXPECT_EQ(6, run.info.channels);

  // A short extensible chunk keeps the tag itself.
  Bytes shortChunks = chunk("fmt ", formatPayload(0xFFFE, 2, 44100, 24));
  run = runWav(dir, riff(shortChunks));
  EXPECT_EQ(0xFFFE, run.info.sampleFormat);
  EXPECT_EQ(24, run.info.bitsPerSample);
}

TEST(MfdWavTest, DeclaredDataSizeBeyondTheFileIsCut) {
  ScratchDir dir;
  Bytes chunks = chunk("fmt ", formatPayload(1, 2, 48000, 16));
  appendText(chunks, "data");
  appendLe32(chunks, 0xFFFFFFFF);  // as written by a streaming encoder
  appendZeros(chunks, 1920);
  DetectorRun run = runWav(dir, riff(chunks));
  EXPECT_EQ(44, run.info.dataOffset);
  EXPECT_EQ(1920, run.info.fileSize);
  EXPECT_EQ(10u, run.info.duration);
}

TEST(MfdWavTest, OnlyRiffWaveAndTheDy64FormAreRecognised) {
  ScratchDir dir;
  Bytes rf64Standard;
  appendText(rf64Standard, "RF64");
  appendLe32(rf64Standard, 0xFFFFFFFF);
  appendText(rf64Standard, "WAVE");
  append(rf64Standard, chunk("ds64", Bytes(28, 0)));
  append(rf64Standard, chunk("fmt ", formatPayload(1, 2, 44100, 16)));
  EXPECT_EQ(MFD_CLASS_NONE, runWav(dir, rf64Standard).info.mediaClass);

  Bytes rf64Dy64 = rf64Standard;
  rf64Dy64[12] = 'd';
  rf64Dy64[13] = 'y';
  DetectorRun run = runWav(dir, rf64Dy64);
  EXPECT_EQ(MFD_FORMAT_WAV, run.info.formatId);
  EXPECT_EQ(44100, run.info.sampleRate);

  Bytes avi;
  appendText(avi, "RIFF");
  appendLe32(avi, 4);
  appendText(avi, "AVI ");
  EXPECT_EQ(MFD_CLASS_NONE, runWav(dir, avi).info.mediaClass);
  EXPECT_EQ(MFD_CLASS_NONE, runWav(dir, Bytes{'R', 'I', 'F', 'F'}).info.mediaClass);
}

TEST(MfdWavTest, HostileChunkSizesEndTheWalk) {
  ScratchDir dir;
  Bytes huge = chunk("LIST", Bytes(8, 0));
  huge[4] = huge[5] = huge[6] = huge[7] = 0xFF;  // runs past the end
  append(huge, chunk("fmt ", formatPayload(1, 2, 44100, 16)));
  DetectorRun run = runWav(dir, riff(huge));
  EXPECT_EQ(0, run.mode3);
  EXPECT_EQ(MFD_FORMAT_WAV, run.info.formatId);
  EXPECT_EQ(0, run.info.sampleRate);

  Bytes many;
  for (int index = 0; index < 200; ++index) append(many, chunk("JUNK", Bytes(2, 0)));
  append(many, chunk("fmt ", formatPayload(1, 2, 44100, 16)));
  run = runWav(dir, riff(many));  // more chunks than are walked
  EXPECT_EQ(MFD_FORMAT_WAV, run.info.formatId);
  EXPECT_EQ(0, run.info.sampleRate);

  run = runWav(dir, riff(chunk("fmt ", Bytes(6, 0x01))));  // a format chunk of six bytes
  EXPECT_EQ(0x0101, run.info.sampleFormat);
  EXPECT_EQ(0x0101, run.info.channels);
  EXPECT_EQ(0, run.info.sampleRate);
}

TEST(MfdWavTest, ChunkBeyondFourGibibytesIsReached) {
  ScratchDir dir;
  constexpr uint32_t kJunkSize = 0xFFFFFFF0u;  // the next chunk lies past 4 GiB
  Bytes head = riff({});
  appendText(head, "JUNK");
  appendLe32(head, kJunkSize);
  const std::string path = dir.write("big.wav", head);
  Bytes tail = chunk("fmt ", formatPayload(1, 2, 48000, 16));
  append(tail, chunk("data", Bytes(192, 0)));
  const int64_t tailStart = 20 + static_cast<int64_t>(kJunkSize);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GT(fd, 0);
  // Sparse: only the two ends take space.
  ASSERT_EQ(static_cast<ssize_t>(tail.size()), ::pwrite(fd, tail.data(), tail.size(), tailStart));
  ::close(fd);
  DetectorRun run = runDetector(mediaFormatWavDetect, MFD_FORMAT_WAV, path);
  EXPECT_EQ(48000, run.info.sampleRate);
  EXPECT_EQ(tailStart + 24 + 8, run.info.dataOffset);
  EXPECT_EQ(192, run.info.fileSize);
  EXPECT_EQ(1u, run.info.duration);
}

// ---------------------------------------------------------------- WAV files

struct WavLayout {
  const char *file;
  int32_t sampleRate, channels, bitsPerSample, sampleFormat;
  uint32_t duration;
};

void checkWavLayout(const mfdMediaInfo &info, const WavLayout &layout) {
  EXPECT_EQ(MFD_CLASS_AUDIO, info.mediaClass);
  EXPECT_EQ(MFD_FORMAT_WAV, info.formatId);
  EXPECT_EQ(MFD_FORMAT_WAV, info.audioCodec);
  EXPECT_EQ(layout.sampleRate, info.sampleRate);
  EXPECT_EQ(layout.channels, info.channels);
  EXPECT_EQ(layout.bitsPerSample, info.bitsPerSample);
  EXPECT_EQ(layout.sampleFormat, info.sampleFormat);
  EXPECT_EQ(layout.duration, info.duration);
}

TEST(MfdWavFilesTest, SixteenBitPcmAtEveryLpcmRateIsServedFromItsSamples) {
  Detection detection;
  for (int32_t rate : {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000}) {
    for (int32_t channels : {1, 2}) {
      const std::string name =
          "wav/pcm16-" + std::to_string(rate) + "-" + std::to_string(channels) + "ch.wav";
      SCOPED_TRACE(name);
      const std::string path = fixture(name);
      mfdMediaInfo info{};
      ASSERT_EQ(0, detection.detect(path, info));
      const int64_t dataSize = sizeOf(path) - 44;
      const uint32_t duration = static_cast<uint32_t>(dataSize * 1000 / (rate * channels * 2));
      checkWavLayout(info, {name.c_str(), rate, channels, 16, 1, duration});
      EXPECT_EQ(rate * channels * 16, info.bitrate);
      const std::string mime =
          "audio/L16;rate=" + std::to_string(rate) + ";channels=" + std::to_string(channels);
      const std::string profile = std::string("DLNA.ORG_PN=") +
                                  (rate >= 44100 ? "LPCM" : "LPCM_low") +
                                  ";DLNA.ORG_OP=01;DLNA.ORG_CI=0";
      EXPECT_EQ(mime, info.mimeType);
      EXPECT_EQ(profile, info.profileName);
      EXPECT_EQ("http-get:*:" + mime + ":" + profile, info.protocolInfo);
      EXPECT_EQ(44, info.dataOffset);
      EXPECT_EQ(dataSize, info.fileSize);
    }
  }
}

TEST(MfdWavFilesTest, SampleDataIsFoundBehindListAndJunkChunks) {
  Detection detection;
  struct Case {
    const char *file;
    int64_t dataOffset;
  };
  for (const Case &c : {Case{"wav/list-after-fmt.wav", 70}, Case{"wav/junk-list-first.wav", 106}}) {
    SCOPED_TRACE(c.file);
    mfdMediaInfo info{};
    ASSERT_EQ(0, detection.detect(fixture(c.file), info));
    checkWavLayout(info, {c.file, 44100, 2, 16, 1, 50});
    EXPECT_STREQ("audio/L16;rate=44100;channels=2", info.mimeType);
    EXPECT_EQ(c.dataOffset, info.dataOffset);
    EXPECT_EQ(8820, info.fileSize);
  }
}

TEST(MfdWavFilesTest, OtherSampleLayoutsArePlainWavFiles) {
  Detection detection;
  const WavLayout layouts[] = {
      {"wav/pcm24-48000-2ch.wav", 48000, 2, 24, 1, 50},        // extensible, PCM
      {"wav/float32-44100-2ch.wav", 44100, 2, 32, 3, 50},      // extensible, float
      {"wav/float32-44100-1ch-sox.wav", 44100, 1, 32, 3, 50},  // float tag
      {"wav/pcm16-48000-6ch.wav", 48000, 6, 16, 1, 50},        // six channels
      {"wav/pcm8-22050-1ch.wav", 22050, 1, 8, 1, 50},          // 8-bit
      {"wav/pcm16-96000-2ch.wav", 96000, 2, 16, 1, 50},        // no LPCM rate
      {"wav/mp3-in-riff.wav", 44100, 2, 0, 0x55, 1044},        // MP3 in RIFF
  };
  for (const WavLayout &layout : layouts) {
    SCOPED_TRACE(layout.file);
    const std::string path = fixture(layout.file);
    mfdMediaInfo info{};
    ASSERT_EQ(0, detection.detect(path, info));
    checkWavLayout(info, layout);
    EXPECT_STREQ("audio/x-wav", info.mimeType);
    EXPECT_STREQ("http-get:*:audio/x-wav:*", info.protocolInfo);
    EXPECT_STREQ("", info.profileName);
    EXPECT_EQ(0, info.dataOffset);
    EXPECT_EQ(sizeOf(path), info.fileSize);
  }
}

// ---------------------------------------------------------------- ATRAC

// An "ea3" tag of `tagSize` body bytes, then a 96-byte "EA3" header with
// the encryption field and the codec word, then `audioBytes` of audio.
Bytes atracFile(uint32_t tagSize, uint8_t encryption, uint8_t codec, uint32_t parameters,
                size_t audioBytes) {
  Bytes bytes;
  appendText(bytes, "ea3");
  bytes.insert(bytes.end(), {3, 0, 0});
  appendSyncSafe(bytes, tagSize);
  appendZeros(bytes, tagSize);
  appendText(bytes, "EA3");
  bytes.push_back(1);
  bytes.insert(bytes.end(), {0x00, 0x60});  // header size 96
  bytes.insert(bytes.end(), {encryption, encryption});
  appendZeros(bytes, 24);
  bytes.push_back(codec);
  bytes.insert(bytes.end(),
               {static_cast<uint8_t>(parameters >> 16), static_cast<uint8_t>(parameters >> 8),
                static_cast<uint8_t>(parameters)});
  appendZeros(bytes, 96 - 36);
  appendZeros(bytes, audioBytes);
  return bytes;
}

DetectorRun runAtrac(const ScratchDir &dir, const Bytes &bytes) {
  return runDetector(mediaFormatAtracDetect, MFD_FORMAT_ATRAC3, dir.write("a.ea3", bytes));
}

TEST(MfdAtracTest, Atrac3HeaderBehindAnEmptyTag) {
  ScratchDir dir;
  // 44.1 kHz (code 1), frames of 48 x 8 = 384 bytes: 132.3 kbit/s.
  DetectorRun run = runAtrac(dir, atracFile(0, 0xFF, 0, 1u << 13 | 48, 384 * 100));
  EXPECT_EQ(0, run.mode2);
  EXPECT_EQ(0, run.mode3);
  EXPECT_EQ(MFD_CLASS_AUDIO, run.info.mediaClass);
  EXPECT_EQ(MFD_FORMAT_ATRAC3, run.info.formatId);
  EXPECT_EQ(MFD_FORMAT_ATRAC3, run.info.audioCodec);
  EXPECT_EQ(44100, run.info.sampleRate);
  EXPECT_EQ(2, run.info.channels);
  EXPECT_EQ(2, run.info.formatWord);
  EXPECT_EQ(132300, run.info.bitrate);
  EXPECT_EQ(2321u, run.info.duration);  // 100 x 1024 / 44100 s
}

TEST(MfdAtracTest, Atrac3PlusHeaderIsReadRelativeToALargeTag) {
  ScratchDir dir;
  // 48 kHz (code 2), channel code 2, frames of (185 + 1) x 8 bytes.
  DetectorRun run = runAtrac(dir, atracFile(3000, 0x80, 1, 2u << 13 | 2u << 10 | 185, 1488 * 50));
  EXPECT_EQ(MFD_FORMAT_ATRAC3, run.info.formatId);
  EXPECT_EQ(MFD_FORMAT_ATRAC3_PLUS, run.info.audioCodec);
  EXPECT_EQ(48000, run.info.sampleRate);
  EXPECT_EQ(2, run.info.channels);
  EXPECT_EQ(2, run.info.formatWord);
  EXPECT_EQ(186 * 64 * 48000 / 1024, run.info.bitrate);
  EXPECT_EQ(2133u, run.info.duration);  // 50 x 2048 / 48000 s
}

TEST(MfdAtracTest, EncryptedOrOtherContentKeepsTheTagValues) {
  ScratchDir dir;
  DetectorRun run = runAtrac(dir, atracFile(0, 0x00, 0, 1u << 13 | 48, 384));
  EXPECT_EQ(0, run.mode3);
  EXPECT_EQ(MFD_FORMAT_ATRAC3, run.info.formatId);
  EXPECT_EQ(0, run.info.sampleRate);
  EXPECT_EQ(0, run.info.channels);
  EXPECT_EQ(0, run.info.bitrate);

  run = runAtrac(dir, atracFile(0, 0xFF, 2, 1u << 13 | 48, 384));  // MP3 inside
  EXPECT_EQ(MFD_FORMAT_ATRAC3, run.info.formatId);
  EXPECT_EQ(0, run.info.sampleRate);

  run = runAtrac(dir, atracFile(0, 0xFF, 0, 7u << 13 | 48, 384));  // undefined rate code
  EXPECT_EQ(0, run.info.sampleRate);
  EXPECT_EQ(0u, run.info.duration);
}

TEST(MfdAtracTest, UpperCaseTagAndBrokenFiles) {
  ScratchDir dir;
  Bytes upper = atracFile(0, 0xFF, 0, 1u << 13 | 48, 384);
  upper[0] = 'E';
  upper[1] = 'A';
  EXPECT_EQ(MFD_FORMAT_ATRAC3, runAtrac(dir, upper).info.formatId);

  EXPECT_EQ(MFD_CLASS_NONE,
            runAtrac(dir, Bytes{'I', 'D', '3', 3, 0, 0, 0, 0, 0, 0}).info.mediaClass);

  // A tag that claims more than the file holds: the jump fails.
  Bytes cut = atracFile(0, 0xFF, 0, 1u << 13 | 48, 0);
  cut[9] = 0x7F;
  DetectorRun run = runAtrac(dir, cut);
  EXPECT_NE(0, run.mode2);

  // A header that is not "EA3" behind the tag: recognised by the tag only.
  Bytes noHeader = atracFile(0, 0xFF, 0, 1u << 13 | 48, 384);
  noHeader[10] = 'X';
  run = runAtrac(dir, noHeader);
  EXPECT_EQ(0, run.mode3);
  EXPECT_EQ(0, run.info.sampleRate);
}

}  // namespace

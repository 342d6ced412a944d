// MP3, AAC, AC3 and LPCM detection: the detectors on small streams built
// here (edge cases of each header), and the whole detection on encoder-made
// files (tests/fixtures/make-audio-fixtures.sh).
#include "mfd/mfd_audio.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "mfd/mfd_api.h"
#include "mfd_audio_test_support.h"

namespace {

using mfdtest::appendBe32;
using mfdtest::appendSyncSafe;
using mfdtest::appendText;
using mfdtest::appendZeros;
using mfdtest::BitWriter;
using mfdtest::Bytes;
using mfdtest::DetectorRun;
using mfdtest::runDetector;
using mfdtest::ScratchDir;

// ---------------------------------------------------------------- MP3

// A layer III frame: header bytes, then zeros up to `length`.
Bytes mp3Frame(uint8_t versionByte, uint8_t rateByte, uint8_t modeByte, size_t length) {
  Bytes frame{0xFF, versionByte, rateByte, modeByte};
  appendZeros(frame, length - frame.size());
  return frame;
}

// MPEG-1 layer III, 128 kbit/s, 44.1 kHz, joint stereo: 417 bytes, 418 padded.
Bytes frame128(bool padded = false) {
  return mp3Frame(0xFB, padded ? 0x92 : 0x90, 0x44, padded ? 418 : 417);
}

// MPEG-1 layer III, 64 kbit/s, 44.1 kHz: 208 bytes.
Bytes frame64() { return mp3Frame(0xFB, 0x50, 0x44, 208); }

void append(Bytes &bytes, const Bytes &more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes frames(const Bytes &frame, int count) {
  Bytes bytes;
  for (int index = 0; index < count; ++index) append(bytes, frame);
  return bytes;
}

void appendId3Header(Bytes &bytes, uint8_t flags, uint32_t size) {
  appendText(bytes, "ID3");
  bytes.push_back(4);
  bytes.push_back(0);
  bytes.push_back(flags);
  appendSyncSafe(bytes, size);
}

DetectorRun runMp3(const ScratchDir &dir, const Bytes &bytes, const std::string &name = "a.mp3") {
  return runDetector(mediaFormatMp3Detect, MFD_FORMAT_MP3, dir.write(name, bytes));
}

TEST(MfdMp3Test, TwoUnpaddedMpeg1FramesAreRecognised) {
  ScratchDir dir;
  DetectorRun run = runMp3(dir, frames(frame128(), 2));
  EXPECT_EQ(0, run.mode2);
  EXPECT_EQ(0, run.mode3);
  EXPECT_EQ(MFD_CLASS_AUDIO, run.info.mediaClass);
  EXPECT_EQ(MFD_FORMAT_MP3, run.info.formatId);
  EXPECT_EQ(MFD_FORMAT_MP3, run.info.audioCodec);
  EXPECT_EQ(128, run.info.bitrate);
  EXPECT_EQ(44100, run.info.sampleRate);
  EXPECT_EQ(2, run.info.channels);
  EXPECT_EQ(2, run.info.formatWord);
  EXPECT_EQ(52u, run.info.duration);  // 2 x 1152 samples
}

TEST(MfdMp3Test, FrameLengthFollowsThePaddingBit) {
  ScratchDir dir;
  Bytes padded = frame128(true);
  padded.back() = 0x5A;  // the padding slot holds data
  append(padded, frame128());
  EXPECT_EQ(MFD_FORMAT_MP3, runMp3(dir, padded).info.formatId);

  // An unpadded frame followed by a zero byte: the next sync is still found.
  Bytes zeroAfter = frame128();
  zeroAfter.push_back(0);
  append(zeroAfter, frame128());
  EXPECT_EQ(MFD_FORMAT_MP3, runMp3(dir, zeroAfter).info.formatId);

  // A nonzero byte there: the first frame is not confirmed, and the second
  // has no successor.
  Bytes junkAfter = frame128();
  junkAfter.push_back(0x5A);
  append(junkAfter, frame128());
  DetectorRun run = runMp3(dir, junkAfter);
  EXPECT_EQ(0, run.mode2);
  EXPECT_EQ(MFD_CLASS_NONE, run.info.mediaClass);
}

TEST(MfdMp3Test, FramesAreFoundAtAnyByteOffset) {
  ScratchDir dir;
  for (size_t junk : {1u, 2u, 5u, 7u, 1000u}) {
    Bytes bytes(junk, 'x');
    append(bytes, frames(frame128(), 2));
    DetectorRun run = runMp3(dir, bytes);
    EXPECT_EQ(MFD_FORMAT_MP3, run.info.formatId) << junk;
    EXPECT_EQ(52u, run.info.duration) << junk;
  }
}

TEST(MfdMp3Test, Mpeg2AndMpeg25HeadersUseTheirOwnTables) {
  ScratchDir dir;
  struct Case {
    uint8_t versionByte, rateByte, modeByte;
    size_t length;
    int32_t bitrate, sampleRate, channels;
  };
  const Case cases[] = {
      {0xF3, 0x80, 0x44, 208, 64, 22050, 2},   // MPEG-2, 64 kbit/s, 22.05 kHz
      {0xF3, 0x84, 0xC4, 192, 64, 24000, 1},   // MPEG-2, 24 kHz, mono
      {0xF3, 0x48, 0xC0, 144, 32, 16000, 1},   // MPEG-2, 16 kHz
      {0xE3, 0x40, 0x44, 208, 32, 11025, 2},   // MPEG-2.5, 11.025 kHz
      {0xE3, 0x28, 0xC0, 144, 16, 8000, 1},    // MPEG-2.5, 8 kHz
      {0xE3, 0xE4, 0x00, 960, 160, 12000, 2},  // MPEG-2.5, 160 kbit/s at 12 kHz
      {0xFA, 0x98, 0xC0, 576, 128, 32000, 1},  // MPEG-1 with CRC, 32 kHz
  };
  for (const Case &c : cases) {
    DetectorRun run =
        runMp3(dir, frames(mp3Frame(c.versionByte, c.rateByte, c.modeByte, c.length), 3));
    SCOPED_TRACE(c.sampleRate);
    EXPECT_EQ(MFD_FORMAT_MP3, run.info.formatId);
    EXPECT_EQ(c.bitrate, run.info.bitrate);
    EXPECT_EQ(c.sampleRate, run.info.sampleRate);
    EXPECT_EQ(c.channels, run.info.channels);
    const double samples = (c.versionByte & 0x08) != 0 ? 1152.0 : 576.0;
    EXPECT_EQ(static_cast<uint32_t>(3 * samples * 1000 / c.sampleRate), run.info.duration);
  }
}

TEST(MfdMp3Test, LayerOneTwoAndReservedHeadersAreNotMp3) {
  ScratchDir dir;
  for (uint8_t versionByte : {0xFD, 0xFF, 0xF5, 0xEB, 0xE5}) {  // layers II, I; MPEG-2 II; reserved
    DetectorRun run = runMp3(dir, frames(mp3Frame(versionByte, 0x90, 0x44, 417), 3));
    EXPECT_EQ(MFD_CLASS_NONE, run.info.mediaClass) << int{versionByte};
  }
  // Free format and the forbidden index, a reserved sample rate.
  for (uint8_t rateByte : {0x00, 0xF0, 0x9C}) {
    DetectorRun run = runMp3(dir, frames(mp3Frame(0xFB, rateByte, 0x44, 417), 3));
    EXPECT_EQ(MFD_CLASS_NONE, run.info.mediaClass) << int{rateByte};
  }
}

TEST(MfdMp3Test, Id3TagIsSearchedPastFromItsEnd) {
  ScratchDir dir;
  // Size 0x00000A00 as syncsafe bytes: 1280; the search starts at 1290.
  Bytes bytes;
  appendText(bytes, "ID3");
  bytes.insert(bytes.end(), {3, 0, 0, 0x00, 0x00, 0x0A, 0x00});
  append(bytes, frames(frame64(), 2));  // inside the tag: must not count
  appendZeros(bytes, 1290 - bytes.size());
  append(bytes, frames(frame128(), 2));
  DetectorRun run = runMp3(dir, bytes);
  EXPECT_EQ(MFD_FORMAT_MP3, run.info.formatId);
  EXPECT_EQ(128, run.info.bitrate);
  EXPECT_EQ(52u, run.info.duration);  // from byte 1290 on
}

TEST(MfdMp3Test, Id3FooterFlagAndConsecutiveTagsAreSkipped) {
  ScratchDir dir;
  Bytes bytes;
  appendId3Header(bytes, 0x10, 20);  // footer: 10 + 20 + 10 bytes
  appendZeros(bytes, 20);
  appendText(bytes, "3DI");
  bytes.insert(bytes.end(), {4, 0, 0x10});
  appendSyncSafe(bytes, 20);
  appendId3Header(bytes, 0, 500);  // a second tag, with frames inside
  append(bytes, frames(frame64(), 2));
  appendZeros(bytes, 500 - 2 * 208);
  append(bytes, frames(frame128(), 2));
  DetectorRun run = runMp3(dir, bytes);
  EXPECT_EQ(MFD_FORMAT_MP3, run.info.formatId);
  EXPECT_EQ(128, run.info.bitrate);
}

TEST(MfdMp3Test, Id3TagBeyondTheReadLimitIsJumpedOver) {
  ScratchDir dir;
  constexpr uint32_t kTagSize = 300000;  // more than 30 reader blocks
  Bytes bytes;
  appendId3Header(bytes, 0, kTagSize);
  append(bytes, frames(frame64(), 2));
  appendZeros(bytes, 10 + kTagSize - bytes.size());
  append(bytes, frames(frame128(), 4));
  DetectorRun run = runMp3(dir, bytes);
  EXPECT_EQ(MFD_FORMAT_MP3, run.info.formatId);
  EXPECT_EQ(128, run.info.bitrate);
  EXPECT_EQ(104u, run.info.duration);
}

TEST(MfdMp3Test, Id3TagRunningPastTheEndIsNotMp3) {
  ScratchDir dir;
  Bytes bytes;
  appendId3Header(bytes, 0, 5000);
  append(bytes, frames(frame128(), 2));
  DetectorRun run = runMp3(dir, bytes);
  EXPECT_EQ(0, run.mode2);
  EXPECT_EQ(MFD_CLASS_NONE, run.info.mediaClass);
}

// A first frame carrying a frame-count tag at `offset`, then `count` frames.
Bytes taggedStream(size_t offset, const Bytes &tag) {
  Bytes first = mp3Frame(0xFB, 0x90, 0xC4, 417);  // mono
  std::copy(tag.begin(), tag.end(), first.begin() + static_cast<std::ptrdiff_t>(offset));
  Bytes bytes = first;
  append(bytes, frames(mp3Frame(0xFB, 0x90, 0xC4, 417), 3));
  return bytes;
}

TEST(MfdMp3Test, XingFrameCountGivesPlayingTimeAndAverageRate) {
  ScratchDir dir;
  Bytes xing;
  appendText(xing, "Xing");
  appendBe32(xing, 3);  // frames and bytes
  appendBe32(xing, 1000);
  appendBe32(xing, 2000000);
  DetectorRun run = runMp3(dir, taggedStream(4 + 17, xing));  // after mono side info
  EXPECT_EQ(1u, static_cast<uint32_t>(run.info.channels));
  EXPECT_EQ(1, run.info.formatWord);
  EXPECT_EQ(26122u, run.info.duration);  // 1000 x 1152 / 44100 s
  EXPECT_EQ(613, run.info.bitrate);      // 16,000,000 bits in 26,122 ms

  // "Info" marks a constant rate: the header's rate stays.
  std::memcpy(xing.data(), "Info", 4);
  run = runMp3(dir, taggedStream(4 + 17, xing));
  EXPECT_EQ(26122u, run.info.duration);
  EXPECT_EQ(128, run.info.bitrate);
}

TEST(MfdMp3Test, VbriFrameCountGivesPlayingTime) {
  ScratchDir dir;
  Bytes vbri;
  appendText(vbri, "VBRI");
  vbri.insert(vbri.end(), {0, 1, 0, 0, 0, 50});  // version, delay, quality
  appendBe32(vbri, 400000);                      // bytes
  appendBe32(vbri, 500);                         // frames
  DetectorRun run = runMp3(dir, taggedStream(36, vbri));
  EXPECT_EQ(13061u, run.info.duration);  // 500 x 1152 / 44100 s
  EXPECT_EQ(245, run.info.bitrate);
}

TEST(MfdMp3Test, ExcludedExtensionsAreLeftToTheirDetectors) {
  ScratchDir dir;
  const std::string file = dir.write("stream.mp3", frames(frame128(), 3));
  for (const char *name : {"x.WAV", "x.wav", "x.Pcm", "x.bmp"}) {
    DetectorRun run = runDetector(mediaFormatMp3Detect, MFD_FORMAT_MP3, file, name);
    EXPECT_EQ(MFD_CLASS_NONE, run.info.mediaClass) << name;
  }
  EXPECT_EQ(MFD_FORMAT_MP3,
            runDetector(mediaFormatMp3Detect, MFD_FORMAT_MP3, file, "x.wav.mp3").info.formatId);
}

TEST(MfdMp3Test, TablesKeepTheMpeg1Values) {
  EXPECT_EQ(128, ga_s32_mp3BitRateIndex[9]);
  EXPECT_EQ(320, ga_s32_mp3BitRateIndex[14]);
  EXPECT_EQ(-1, ga_s32_mp3BitRateIndex[15]);
  EXPECT_EQ(44100, ga_s32_mp3SampleRateIndex[0]);
  EXPECT_EQ(-1, ga_s32_mp3SampleRateIndex[3]);
}

// ---------------------------------------------------------------- AAC

// An ADTS frame of `length` bytes: MPEG-4, no CRC, the given rate index and
// channel configuration.
Bytes adtsFrame(uint32_t rateIndex, uint32_t configuration, uint32_t length) {
  BitWriter bits;
  bits.put(0xFFF, 12);
  bits.put(0, 1);  // MPEG-4
  bits.put(0, 2);  // layer
  bits.put(1, 1);  // no CRC
  bits.put(1, 2);  // AAC LC
  bits.put(rateIndex, 4);
  bits.put(0, 1);
  bits.put(configuration, 3);
  bits.put(0, 4);
  bits.put(length, 13);
  bits.put(0x7FF, 11);
  bits.put(0, 2);
  Bytes frame = bits.bytes();
  appendZeros(frame, length - frame.size());
  return frame;
}

TEST(MfdAacTest, AdtsHeaderGivesRateAndFrameBasedPlayingTime) {
  ScratchDir dir;
  Bytes bytes;
  for (int index = 0; index < 20; ++index) append(bytes, adtsFrame(4, 2, 100 + index % 2 * 20));
  DetectorRun run = runDetector(mediaFormatAacDetect, MFD_FORMAT_AAC, dir.write("a.aac", bytes));
  EXPECT_EQ(0, run.mode3);
  EXPECT_EQ(MFD_CLASS_AUDIO, run.info.mediaClass);
  EXPECT_EQ(MFD_FORMAT_AAC, run.info.formatId);
  EXPECT_EQ(MFD_FORMAT_AAC, run.info.audioCodec);
  EXPECT_EQ(44100, run.info.sampleRate);
  EXPECT_EQ(2, run.info.formatWord);
  EXPECT_EQ(44100 * 2 * 6, run.info.bitrate);
  EXPECT_EQ(0, run.info.channels);
  EXPECT_EQ(464u, run.info.duration);  // 20 x 1024 / 44100 s

  // Channel configuration 0 and 7, an undefined rate index.
  run = runDetector(mediaFormatAacDetect, MFD_FORMAT_AAC, dir.write("b.aac", adtsFrame(3, 7, 64)));
  EXPECT_EQ(48000, run.info.sampleRate);
  EXPECT_EQ(8, run.info.formatWord);
  EXPECT_EQ(48000 * 6 * 6, run.info.bitrate);
  run = runDetector(mediaFormatAacDetect, MFD_FORMAT_AAC, dir.write("c.aac", adtsFrame(13, 0, 64)));
  EXPECT_EQ(MFD_FORMAT_AAC, run.info.formatId);
  EXPECT_EQ(0, run.info.sampleRate);
  EXPECT_EQ(-1, run.info.formatWord);
  EXPECT_EQ(0u, run.info.duration);
}

TEST(MfdAacTest, Mp3LayerBitsAreLeftToTheMp3Detector) {
  ScratchDir dir;
  for (uint8_t second : {0xFA, 0xFB, 0xF2, 0xF3}) {
    const std::string file = dir.write("a.mp3", frames(mp3Frame(second, 0x90, 0x44, 417), 2));
    EXPECT_EQ(MFD_CLASS_NONE,
              runDetector(mediaFormatAacDetect, MFD_FORMAT_AAC, file).info.mediaClass)
        << int{second};
  }
  for (uint8_t second : {0xF1, 0xF9, 0xF0, 0xF8}) {  // MPEG-4 and MPEG-2 ADTS
    const std::string file = dir.write("a.aac", {0xFF, second, 0x50, 0x80, 0x02, 0x1F, 0xFC});
    EXPECT_EQ(MFD_FORMAT_AAC, runDetector(mediaFormatAacDetect, MFD_FORMAT_AAC, file).info.formatId)
        << int{second};
  }
}

TEST(MfdAacTest, AdifHeaderGivesBitRateAndSampleRate) {
  ScratchDir dir;
  for (uint32_t streamType : {0u, 1u}) {
    BitWriter bits;
    bits.put(0x41444946, 32);  // "ADIF"
    bits.put(1, 1);            // copyright id present
    bits.put(0, 72);
    bits.put(0, 2);
    bits.put(streamType, 1);
    bits.put(96000, 23);
    bits.put(0, streamType == 1 ? 10 : 30);
    bits.put(3, 4);  // 48000 Hz
    Bytes bytes = bits.bytes();
    appendZeros(bytes, 12000 - bytes.size());
    DetectorRun run = runDetector(mediaFormatAacDetect, MFD_FORMAT_AAC, dir.write("a.aac", bytes));
    SCOPED_TRACE(streamType);
    EXPECT_EQ(0, run.mode3);
    EXPECT_EQ(MFD_FORMAT_AAC, run.info.formatId);
    EXPECT_EQ(96000, run.info.bitrate);
    EXPECT_EQ(48000, run.info.sampleRate);
    EXPECT_EQ(1000u, run.info.duration);  // 96,000 bits at 96 kbit/s
  }
}

TEST(MfdAacTest, ExcludedExtensionsAreLeftToTheirDetectors) {
  ScratchDir dir;
  const std::string file = dir.write("a.aac", adtsFrame(4, 2, 100));
  for (const char *name : {"x.WAV", "x.pcm", "x.BMP"}) {
    EXPECT_EQ(MFD_CLASS_NONE,
              runDetector(mediaFormatAacDetect, MFD_FORMAT_AAC, file, name).info.mediaClass)
        << name;
  }
}

// ---------------------------------------------------------------- AC3

// An AC3 sync frame: sync word, CRC, rate and size codes, bit stream id 8,
// mode 0, the coding mode with its mix levels, the LFE bit; zeros to the
// frame size of the column that the rate code selects.
Bytes ac3Frame(uint32_t rateCode, uint32_t sizeCode, uint32_t codingMode, uint32_t lfe) {
  BitWriter bits;
  bits.put(0x0B77, 16);
  bits.put(0, 16);
  bits.put(rateCode, 2);
  bits.put(sizeCode, 6);
  bits.put(8, 5);
  bits.put(0, 3);
  bits.put(codingMode, 3);
  if ((codingMode & 1) != 0 && codingMode != 1) bits.put(1, 2);
  if ((codingMode & 4) != 0) bits.put(1, 2);
  if (codingMode == 2) bits.put(2, 2);
  bits.put(lfe, 1);
  static constexpr uint32_t kColumn[4] = {2, 1, 0, 1};
  Bytes frame = bits.bytes();
  appendZeros(frame, ga_u16_frmSizeTab[sizeCode][kColumn[rateCode]] * 2u - frame.size());
  return frame;
}

DetectorRun runAc3(const ScratchDir &dir, const Bytes &bytes) {
  return runDetector(mediaFormatAc3Detect, MFD_FORMAT_AC3, dir.write("a.ac3", bytes));
}

TEST(MfdAc3Test, SecondSyncWordConfirmsTheStream) {
  ScratchDir dir;
  DetectorRun run = runAc3(dir, frames(ac3Frame(0, 20, 2, 0), 2));  // 48 kHz, 192 kbit/s
  EXPECT_EQ(0, run.mode3);
  EXPECT_EQ(MFD_CLASS_AUDIO, run.info.mediaClass);
  EXPECT_EQ(MFD_FORMAT_AC3, run.info.formatId);
  EXPECT_EQ(MFD_FORMAT_AC3, run.info.audioCodec);
  EXPECT_EQ(48000, run.info.sampleRate);
  EXPECT_EQ(192, run.info.bitrate);
  EXPECT_EQ(2, run.info.channels);
  EXPECT_EQ(2, run.info.formatWord);
  EXPECT_EQ(0, run.info.formatWord2);
  EXPECT_EQ(64u, run.info.duration);  // 1536 bytes at 192 kbit/s

  EXPECT_EQ(MFD_CLASS_NONE, runAc3(dir, ac3Frame(0, 20, 2, 0)).info.mediaClass);  // one frame
}

TEST(MfdAc3Test, CodingModeAndLfeGiveTheChannels) {
  ScratchDir dir;
  struct Case {
    uint32_t codingMode, lfe;
    int32_t channels;
  };
  for (const Case &c : {Case{0, 0, 2}, Case{1, 1, 2}, Case{2, 1, 3}, Case{3, 0, 3}, Case{4, 0, 3},
                        Case{5, 1, 5}, Case{6, 0, 4}, Case{7, 1, 6}}) {
    DetectorRun run = runAc3(dir, frames(ac3Frame(2, 16, c.codingMode, c.lfe), 2));  // 32 kHz
    SCOPED_TRACE(c.codingMode);
    EXPECT_EQ(32000, run.info.sampleRate);
    EXPECT_EQ(128, run.info.bitrate);
    EXPECT_EQ(c.channels, run.info.channels);
    EXPECT_EQ(static_cast<int32_t>(c.codingMode), run.info.formatWord);
    EXPECT_EQ(static_cast<int32_t>(c.lfe), run.info.formatWord2);
  }
}

TEST(MfdAc3Test, RateCode3ReadsThe44kColumnAndGivesRate0) {
  ScratchDir dir;
  Bytes bytes = frames(ac3Frame(3, 1, 2, 0), 2);
  ASSERT_EQ(2u * 70 * 2, bytes.size());  // 44.1 kHz column: 70 words
  DetectorRun run = runAc3(dir, bytes);
  EXPECT_EQ(MFD_FORMAT_AC3, run.info.formatId);
  EXPECT_EQ(0, run.info.sampleRate);
  EXPECT_EQ(32, run.info.bitrate);
}

TEST(MfdAc3Test, ProgramStreamPackStartEndsTheScan) {
  ScratchDir dir;
  Bytes pack{0x00, 0x00, 0x01, 0xBA};
  appendZeros(pack, 10);
  append(pack, frames(ac3Frame(0, 8, 2, 0), 2));
  EXPECT_EQ(MFD_CLASS_NONE, runAc3(dir, pack).info.mediaClass);

  // 0x01BA without a zero pair before it does not stop the scan.
  Bytes noZeros{0x11, 0x01, 0xBA, 0x22};
  append(noZeros, frames(ac3Frame(0, 8, 2, 0), 2));
  EXPECT_EQ(MFD_FORMAT_AC3, runAc3(dir, noZeros).info.formatId);
}

TEST(MfdAc3Test, ScanGoesOnPastFalseSyncWords) {
  ScratchDir dir;
  Bytes bytes{0x0B, 0x77, 0x00, 0x00, 0x3F, 0x01};                  // invalid frame size code
  bytes.insert(bytes.end(), {0x0B, 0x77, 0x00, 0x00, 0x08, 0x02});  // no second sync word
  append(bytes, Bytes(300, 0x55));
  append(bytes, frames(ac3Frame(1, 9, 2, 0), 2));
  EXPECT_EQ(MFD_FORMAT_AC3, runAc3(dir, bytes).info.formatId);

  Bytes late(9000, 0x55);  // beyond the 8192 bytes scanned
  append(late, frames(ac3Frame(1, 9, 2, 0), 2));
  EXPECT_EQ(MFD_CLASS_NONE, runAc3(dir, late).info.mediaClass);
}

// ---------------------------------------------------------------- LPCM

TEST(MfdLpcmTest, ProfileCodeComesFromTheNameBeforeTheDot) {
  ScratchDir dir;
  const std::string file = dir.write("samples.bin", Bytes(9600, 0));
  struct Case {
    const char *name;
    uint32_t profileCode;  // 0: not recognised
  };
  for (const Case &c : {Case{"music-b-lpcm-3.pcm", 3}, Case{"b-lpcm-3.pcm", 3}, Case{"a.lpcm", 5},
                        Case{"/media/B-LPCM-1.PCM", 1}, Case{"/media/x-b-lpcm-2.LPCM", 2},
                        Case{"/media/x-b-lpcm-4.pcm", 4}, Case{"/media/b-lpcm-5.pcm", 5},
                        Case{"/b.lpcm/b-lpcm-4", 0}, Case{"/media/b-lpcm-4.wav", 0},
                        Case{"/media/song.mp3", 0}, Case{"pcm", 0}, Case{".pcm", 5}}) {
    DetectorRun run = runDetector(mediaFormatLpcmDetect, MFD_FORMAT_LPCM, file, c.name);
    SCOPED_TRACE(c.name);
    EXPECT_EQ(0, run.mode2);
    EXPECT_EQ(c.profileCode, run.info.profileCode);
    EXPECT_EQ(c.profileCode != 0 ? MFD_FORMAT_LPCM : MFD_FORMAT_NONE, run.info.formatId);
    EXPECT_EQ(c.profileCode != 0 ? MFD_FORMAT_LPCM : 0u, run.info.audioCodec);
  }
}

TEST(MfdLpcmTest, PlayingTimeFollowsTheVariant) {
  ScratchDir dir;
  const std::string file = dir.write("samples.bin", Bytes(96000, 0));
  struct Case {
    const char *name;
    uint32_t duration;
  };
  for (const Case &c :
       {Case{"x-b-lpcm-1.pcm", 1088}, Case{"x-b-lpcm-2.pcm", 544}, Case{"x-b-lpcm-3.pcm", 1000},
        Case{"x-b-lpcm-4.pcm", 500}, Case{"plain.pcm", 0}}) {
    EXPECT_EQ(c.duration,
              runDetector(mediaFormatLpcmDetect, MFD_FORMAT_LPCM, file, c.name).info.duration)
        << c.name;
  }
}

}  // namespace

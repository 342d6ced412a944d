#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"
#include "mfd_fake_detectors.h"
#include "mfd_temp_file.h"

namespace {

using mfdtest::Behaviour;
using mfdtest::gs_behaviour;
using mfdtest::gs_calls;
using MfdDetectPayload = mfdtest::MfdFramework;
using mfdtest::patternBytes;
using mfdtest::recognise;
using mfdtest::TempFile;

// ---- WAV payload and playing time -----------------------------------------------

// A RIFF/WAVE file: 44-byte header with the "data" tag at byte 36, then
// `dataBytes` of samples.
std::vector<uint8_t> wavFile(uint32_t dataBytes) {
  std::vector<uint8_t> bytes;
  bytes.reserve(44 + dataBytes);
  auto text = [&](const char *tag) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(tag[i]));
  };
  auto le = [&](uint32_t value, int size) {
    for (int i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  };
  text("RIFF"), le(36 + dataBytes, 4), text("WAVE");
  text("fmt "), le(16, 4), le(1, 2), le(2, 2), le(44100, 4), le(176400, 4), le(4, 2), le(16, 2);
  text("data"), le(dataBytes, 4);
  for (uint32_t i = 0; i < dataBytes; ++i) bytes.push_back(mfdtest::patternByte(i));
  return bytes;
}

// A WAV detector's findings: format and, when known, data offset and size.
Behaviour wav(int32_t bitsPerSample, int64_t dataOffset, int64_t dataSize) {
  return recognise(MFD_CLASS_AUDIO, MFD_FORMAT_WAV, [=](mfdMediaInfo *info) {
    info->audioCodec = MFD_FORMAT_WAV;
    info->channels = 2;
    info->sampleRate = 44100;
    info->bitsPerSample = bitsPerSample;
    info->sampleFormat = 1;
    info->bitrate = 44100 * 2 * bitsPerSample;
    info->dataOffset = dataOffset;
    info->fileSize = dataSize;
  });
}

TEST_F(MfdDetectPayload, AnLpcmWavIsServedFromPastItsDataTag) {
  TempFile file(wavFile(176400), ".wav");
  registerAll({MFD_FORMAT_WAV});
  gs_behaviour[MFD_FORMAT_WAV] = wav(16, 0, 0);  // the driver searches the tag
  mfdMediaInfo info{};
  ASSERT_EQ(0, mfd_detectMediaFormat(handle, file.name(), &info));
  EXPECT_STREQ("DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01;DLNA.ORG_CI=0", info.profileName);
  EXPECT_EQ(44, info.dataOffset);
  EXPECT_EQ(176400, info.fileSize);
  EXPECT_EQ(1000u, info.duration);
}

TEST_F(MfdDetectPayload, TheWavDetectorsDataChunkAndDeclaredSizeWin) {
  TempFile file(patternBytes(5000), ".wav");
  registerAll({MFD_FORMAT_WAV});
  gs_behaviour[MFD_FORMAT_WAV] = wav(16, 100, 1764);
  mfdMediaInfo info{};
  ASSERT_EQ(0, mfd_detectMediaFormat(handle, file.name(), &info));
  EXPECT_EQ(100, info.dataOffset);
  EXPECT_EQ(1764, info.fileSize);
  EXPECT_EQ(10u, info.duration);  // 1764 bytes at 176400 bytes/s

  gs_behaviour[MFD_FORMAT_WAV] = wav(16, 100, 1000000);  // more than the file holds
  ASSERT_EQ(0, mfd_detectMediaFormat(handle, file.name(), &info));
  EXPECT_EQ(100, info.dataOffset);
  EXPECT_EQ(4900, info.fileSize);
  EXPECT_EQ(27u, info.duration);  // 4900 * 8000 / 1411200
}

TEST_F(MfdDetectPayload, AWavWithoutDataTagFallsBackToTheFixedOffset) {
  TempFile file(std::vector<uint8_t>(2000, 0), ".wav");
  registerAll({MFD_FORMAT_WAV});
  gs_behaviour[MFD_FORMAT_WAV] = wav(16, 0, 0);
  mfdMediaInfo info{};
  ASSERT_EQ(0, mfd_detectMediaFormat(handle, file.name(), &info));
  EXPECT_EQ(997, info.dataOffset);
  EXPECT_EQ(2000 - 997, info.fileSize);
}

TEST_F(MfdDetectPayload, AWavThatIsNotLpcmIsServedWhole) {
  TempFile file(wavFile(264600), ".wav");
  registerAll({MFD_FORMAT_WAV});
  gs_behaviour[MFD_FORMAT_WAV] = wav(24, 44, 264600);
  mfdMediaInfo info{};
  ASSERT_EQ(0, mfd_detectMediaFormat(handle, file.name(), &info));
  EXPECT_STREQ("audio/x-wav", info.mimeType);
  EXPECT_EQ(0, info.dataOffset);
  EXPECT_EQ(44 + 264600, info.fileSize);
  EXPECT_EQ(1000u, info.duration);
}

TEST_F(MfdDetectPayload, OnlyKbitFormatsGetTheSizeOverRateFallback) {
  TempFile file(patternBytes(48000));
  registerAll({MFD_FORMAT_MP3});
  auto audio = [](uint32_t formatId, int32_t bitrate, uint32_t duration) {
    return recognise(MFD_CLASS_AUDIO, formatId, [=](mfdMediaInfo *info) {
      info->bitrate = bitrate;
      info->duration = duration;
    });
  };
  struct Case {
    uint32_t formatId;
    int32_t bitrate;
    uint32_t detectorDuration;
    uint32_t expected;
  };
  const Case cases[] = {
      // id                   rate    own   expected
      {MFD_FORMAT_MP3,        128,    0,    3000},  // 48000 * 8 / 128
      {MFD_FORMAT_MP3,        128,    1234, 1234},
      {MFD_FORMAT_MP3,        -1,     0,    0},
      {MFD_FORMAT_AC3,        192,    0,    2000},
      {MFD_FORMAT_AAC,        529200, 0,    0},
      {MFD_FORMAT_AAC,        529200, 777,  777},
      {MFD_FORMAT_ATRAC3,     132,    0,    0},
      {MFD_FORMAT_LPCM,       1411,   0,    0},
  };
  for (const Case &test : cases) {
    gs_behaviour[MFD_FORMAT_MP3] = audio(test.formatId, test.bitrate, test.detectorDuration);
    mfdMediaInfo info{};
    ASSERT_EQ(0, mfd_detectMediaFormat(handle, file.name(), &info));
    EXPECT_EQ(test.expected, info.duration) << test.formatId << " " << test.bitrate;
  }
}

TEST_F(MfdDetectPayload, ImagesHaveNoPlayingTime) {
  registerAll({MFD_FORMAT_JPEG});
  gs_behaviour[MFD_FORMAT_JPEG] = recognise(MFD_CLASS_IMAGE, MFD_FORMAT_JPEG, [](mfdMediaInfo *info) {
    info->width = 640;
    info->height = 480;
    info->duration = 99;
  });
  mfdMediaInfo info{};
  ASSERT_EQ(0, mfd_detectMediaFormat(handle, anyFile.name(), &info));
  EXPECT_EQ(0u, info.duration);
  EXPECT_EQ(640, info.width);
}

// ---- Threads ------------------------------------------------------------------

// Detectors that read their magic through the reader: 32 bits, then the
// width in mode 3.
Behaviour byMagic(uint32_t magic, uint32_t formatId) {
  return [=](mfdMediaInfo *info, int mode) {
    uint32_t value = 0;
    if (mfd_getDataBits(&value, 32) != 0) return 1;
    if (mode == MFD_MODE_PARSE) {
      info->width = static_cast<int32_t>(value);
    } else if (value == magic) {
      info->mediaClass = MFD_CLASS_IMAGE;
      info->formatId = formatId;
    }
    return 0;
  };
}

TEST_F(MfdDetectPayload, ThreadsDetectAtOnceWhileAnotherFormatComesAndGoes) {
  TempFile png({0x89, 'P', 'N', 'G', 0, 0, 1, 0, 0, 0, 0, 0}, ".png");
  TempFile gif({'G', 'I', 'F', '8', 0, 0, 2, 0, 0, 0, 0, 0}, ".gif");
  registerAll({MFD_FORMAT_PNG, MFD_FORMAT_GIF});
  gs_behaviour[MFD_FORMAT_PNG] = byMagic(0x89504E47, MFD_FORMAT_PNG);
  gs_behaviour[MFD_FORMAT_GIF] = byMagic(0x47494638, MFD_FORMAT_GIF);
  std::atomic<int> wrong{0};
  auto detect = [&](const TempFile *file, uint32_t formatId, int32_t width) {
    for (int round = 0; round < 400; ++round) {
      mfdMediaInfo info{};
      int32_t result = mfd_detectMediaFormat(handle, file->name(), &info);
      if (result != 0 || info.formatId != formatId || info.width != width) ++wrong;
    }
  };
  std::thread first(detect, &png, MFD_FORMAT_PNG, 256);
  std::thread second(detect, &gif, MFD_FORMAT_GIF, 512);
  for (int round = 0; round < 200; ++round) {
    EXPECT_EQ(0, mfd_registerFormat(handle, MFD_FORMAT_TIFF));
    EXPECT_EQ(0, mfd_unregisterFormat(handle, MFD_FORMAT_TIFF));
  }
  first.join();
  second.join();
  EXPECT_EQ(0, wrong.load());
}

}  // namespace

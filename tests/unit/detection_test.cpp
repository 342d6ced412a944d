// Format detection on real files made by real encoders: every fixture against
// its row in fixtures/detection.tsv (what the file is, measured with the
// encoders' own tools), then every truncation and random damage of one file
// per detector, and the bit reader the detectors read through.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "detection.h"
#include "dms_test.h"
#include "mfd/mfd_reader.h"

using namespace dmstest;

namespace {

struct Expected {
  std::string path, format, mediaClass, mime, profile;
  int result = 0, width = 0, height = 0, rate = 0, channels = 0, durationMs = 0;
  int64_t dataOffset = 0;
};

std::vector<Expected> expectations() {
  std::vector<Expected> rows;
  std::ifstream table(std::string(DMS_TEST_FIXTURES) + "/detection.tsv");
  for (std::string line; std::getline(table, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    Expected row;
    std::string number;
    auto next = [&]() -> std::string {
      std::getline(fields, number, '\t');
      return number;
    };
    row.path = next();
    row.result = std::stoi(next());
    if (row.result == 0) {
      row.format = next(), row.mediaClass = next(), row.mime = next(), row.profile = next();
      row.width = std::stoi(next()), row.height = std::stoi(next()), row.rate = std::stoi(next());
      row.channels = std::stoi(next()), row.durationMs = std::stoi(next());
      row.dataOffset = std::stoll(next());
    }
    rows.push_back(row);
  }
  return rows;
}

std::string profileOf(const mfdMediaInfo &info) {
  const std::string field = info.profileName != nullptr ? info.profileName : "";
  const size_t at = field.find("DLNA.ORG_PN=");
  return at == std::string::npos ? "-" : field.substr(at + 12, field.find(';', at) - at - 12);
}

const char *className(uint32_t mediaClass) {
  static const char *const kNames[] = {"-", "image", "audio", "video", "av"};
  return mediaClass < 5 ? kNames[mediaClass] : "?";
}

class FixtureDetection : public ::testing::TestWithParam<Expected> {};

TEST_P(FixtureDetection, MatchesWhatTheFileIs) {
  const Expected &row = GetParam();
  Detection detection;
  QuietTrace quiet;
  mfdMediaInfo info;
  const int32_t result = detection.detect(fixture(row.path), &info);
  EXPECT_EQ(result, row.result);
  if (row.result != 0) return;  // not listed: nothing else matters
  EXPECT_EQ(mfd_formatTag(info.formatId), row.format);
  EXPECT_STREQ(className(info.mediaClass), row.mediaClass.c_str());
  EXPECT_STREQ(info.mimeType, row.mime.c_str());
  EXPECT_EQ(profileOf(info), row.profile);
  if (info.mediaClass == MFD_CLASS_IMAGE) {
    EXPECT_EQ(info.width, row.width);
    EXPECT_EQ(info.height, row.height);
  } else {
    if (row.width != 0) {
      EXPECT_EQ(info.videoWidth, row.width);
      EXPECT_EQ(info.videoHeight, row.height);
    }
    EXPECT_EQ(info.sampleRate, row.rate);
    EXPECT_EQ(info.channels, row.channels);
    EXPECT_NEAR(static_cast<double>(info.duration), row.durationMs, 100);
  }
  // What is served: from the payload start to the end of the file.
  EXPECT_EQ(info.dataOffset, row.dataOffset);
  EXPECT_EQ(info.fileSize + info.dataOffset,
            static_cast<int64_t>(std::filesystem::file_size(fixture(row.path))));
}

INSTANTIATE_TEST_SUITE_P(EveryFixture, FixtureDetection, ::testing::ValuesIn(expectations()),
                         [](const auto &info) {
                           std::string name = info.param.path;
                           for (char &c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                           return name;
                         });

TEST(FixtureDetection, EveryFixtureFileHasARow) {
  std::set<std::string> listed;
  for (const Expected &row : expectations()) listed.insert(row.path);
  const std::string root = fixture("");
  for (const auto &file : std::filesystem::recursive_directory_iterator(root)) {
    if (!file.is_regular_file()) continue;
    EXPECT_EQ(listed.count(file.path().string().substr(root.size())), 1u) << file.path();
  }
}

// One real file per detector, for the damage runners.
const char *const kOnePerDetector[] = {
    "audio/mp3/mpeg1-44k-cbr128.mp3",   "audio/aac/adts-44k-stereo.aac",
    "audio/ac3/ac3-48k-stereo.ac3",     "audio/wav/junk-list-first.wav",
    "audio/pcm/x-b-lpcm-2.pcm",         "image/exif-intel-4000x3000.jpg",
    "image/rgb-48x48.png",              "image/gif89a-800x600.gif",
    "image/tiff-be-rgb16-640x480.tif",  "video/ps-mpeg2-pal-720x576-mp2.mpg",
    "video/ts-h264-aac-320x240.ts",     "video/es-mpeg4-320x240.m4v",
    "video/m4a-aac-moov-last.m4a",      "video/asf-wmv2-wmav2-320x240.wmv",
};

// Detection of damaged input ends with a known code, and a record that
// claims a class names its MIME type.
void expectClean(const Detection &detection, const std::string &path, const std::string &what) {
  mfdMediaInfo info;
  const int32_t result = detection.detect(path, &info);
  EXPECT_TRUE(result == 0 || result == 1 || result == 2 || result == 8) << what << ": " << result;
  if (result == 0 && info.mediaClass != MFD_CLASS_NONE) {
    EXPECT_NE(info.mimeType, nullptr) << what;
  }
}

TEST(DamagedInput, EveryTruncationEndsCleanly) {
  Detection detection;
  QuietTrace quiet;
  TempDir scratch;
  for (const char *name : kOnePerDetector) {
    const std::string bytes = readFile(fixture(name));
    const std::string path = scratch.write(std::filesystem::path(name).filename(), bytes);
    const size_t stride = bytes.size() / 1500 + 1;  // about 1,500 lengths per file
    int fd = ::open(path.c_str(), O_WRONLY);
    for (size_t length = bytes.size(); length-- > 0;) {
      if (length % stride != 0 && length > 600) continue;  // every length near the start
      ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(length)), 0);
      expectClean(detection, path, std::string(name) + " cut at " + std::to_string(length));
    }
    ::close(fd);
  }
}

TEST(DamagedInput, RandomDamageEndsCleanly) {
  Detection detection;
  QuietTrace quiet;
  TempDir scratch;
  std::mt19937 random(2024);
  for (const char *name : kOnePerDetector) {
    const std::string original = readFile(fixture(name));
    for (int round = 0; round < 150; ++round) {
      std::string bytes = original;
      const int changes = 1 + static_cast<int>(random() % 16);
      // Damage mostly the headers, where the detectors decide.
      const size_t span = std::min<size_t>(bytes.size(), round % 2 ? 512 : bytes.size());
      for (int i = 0; i < changes; ++i) bytes[random() % span] = static_cast<char>(random());
      const std::string path = scratch.write(std::filesystem::path(name).filename(), bytes);
      expectClean(detection, path, std::string(name) + " round " + std::to_string(round));
    }
  }
}

// ---- the bit reader -----------------------------------------------------------

TEST(BitReader, FieldsAcrossWindowsJumpsAndTheReadLimit) {
  TempDir scratch;
  std::string bytes(300000, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + (i >> 8));
  const std::string path = scratch.write("counting.bin", bytes);
  auto byteAt = [&](size_t i) { return static_cast<uint8_t>(bytes[i]); };
  int fd = ::open(path.c_str(), O_RDONLY);
  ASSERT_EQ(mfd_getDataInit(fd, MFD_FORMAT_MP3), 0);
  uint32_t value = 0;
  // Fields of odd widths keep their bit alignment across window refills.
  uint64_t bit = 0;
  for (int width : {3, 13, 32, 1, 7, 32, 24, 5}) {
    for (int repeat = 0; repeat < 40; ++repeat, bit += width) {
      ASSERT_EQ(mfd_getDataBits(&value, width), 0);
      uint64_t expected = 0;
      for (int b = 0; b < width; ++b) {
        const uint64_t at = bit + b;
        expected = expected << 1 | (byteAt(at / 8) >> (7 - at % 8) & 1u);
      }
      ASSERT_EQ(value, expected) << "bit " << bit << " width " << width;
    }
  }
  EXPECT_EQ(mfd_getDataBits(&value, 33), 1);
  // A jump far ahead reads there, and restarts the read limit.
  ASSERT_EQ(mfd_jmpToFilePosition(250000), 0);
  ASSERT_EQ(mfd_getDataBits(&value, 8), 0);
  EXPECT_EQ(value, byteAt(250000));
  ASSERT_EQ(mfd_jmpToFilePosition(1000), 0);
  int status = 0;
  for (int i = 0; i < 40000 && status == 0; ++i) status = mfd_setOffset(32 * 8);
  EXPECT_NE(status, 0);  // 30 blocks after the jump, and no more
  EXPECT_LE(mfd_currentFilePosition(), 1000 + MFD_MASTER_BUFFER_SIZE * (MFD_MAX_MASTER_FILLS + 1));
  EXPECT_NE(mfd_jmpToFilePosition(int64_t{1} << 40), 0);  // beyond the end
  mfd_getDataDeInit();
  ::close(fd);
}

TEST(BitReader, ThreadsReadTheirOwnFiles) {
  TempDir scratch;
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    const std::string path = scratch.write("t" + std::to_string(t), std::string(20000, static_cast<char>('a' + t)));
    threads.emplace_back([path, t, &wrong] {
      int fd = ::open(path.c_str(), O_RDONLY);
      mfd_getDataInit(fd, MFD_FORMAT_MP3);
      for (int i = 0; i < 2000; ++i) {
        uint32_t value = 0;
        if (mfd_getDataBits(&value, 8) != 0 || value != static_cast<uint32_t>('a' + t)) ++wrong;
      }
      mfd_getDataDeInit();
      ::close(fd);
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace

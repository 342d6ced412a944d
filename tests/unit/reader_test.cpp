// The buffered bit reader the detectors read through: fields across window
// and block edges, skips and jumps (past 4 GiB too), the block limit, the end
// of the file, and a state of its own for every thread.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <barrier>
#include <string>
#include <thread>

#include "dms_test.h"
#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"

namespace {

// The test files' byte at `position`: no period of 4096 bytes or less, so a
// read from the wrong place shows.
uint8_t byteAt(uint64_t position, int seed) {
  return uint8_t(position * 131 + (position >> 8) * 7 + (position >> 32) * 3 + seed * 29);
}

uint32_t bitsAt(uint64_t bit, int count, int seed = 0) {
  uint64_t bytes = 0;  // the five that a field of up to 32 bits can touch
  for (uint64_t i = 0; i < 5; ++i) bytes = bytes << 8 | byteAt(bit / 8 + i, seed);
  return uint32_t(bytes >> (40 - bit % 8 - count) & ((uint64_t{1} << count) - 1));
}

std::string patternBytes(int64_t from, size_t count, int seed = 0) {
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; ++i) bytes[i] = char(byteAt(from + i, seed));
  return bytes;
}

bool writePattern(int fd, int64_t from, size_t count) {
  return ::pwrite(fd, patternBytes(from, count).data(), count, from) == ssize_t(count);
}

// The reader on a file with a format's window: 32 bytes (MP3), 128
// (MPEG-PS) or 256 (JPEG).
struct Reading {
  Reading(const std::string &path, uint32_t formatId) : fd(::open(path.c_str(), O_RDONLY)) {
    EXPECT_EQ(mfd_getDataInit(fd, formatId), 0);
  }
  ~Reading() { mfd_getDataDeInit(); ::close(fd); }
  int fd;
};

TEST(Reader, FieldsAfterJumpsAndSkipsWithinTheBlockLimitAndTheFile) {
  dmstest::TempDir dir;
  const std::string path = dir.write("sparse", "");
  constexpr int64_t kSize = int64_t{5} << 30, kFourGiB = int64_t{4} << 30;
  constexpr uint32_t kBlockBits = 4096 * 8;
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  const bool sparse = ::ftruncate(fd, kSize) == 0;
  const bool written = writePattern(fd, 0, 60 * 4096) && writePattern(fd, kFourGiB - 4096, 8192) &&
                       writePattern(fd, kSize - 4096, 4096);
  ::close(fd);
  if (!sparse) GTEST_SKIP() << "no sparse 5 GiB file here";
  ASSERT_TRUE(written);
  struct Case { uint32_t formatId; int64_t jump; uint32_t skipBits; int width; bool readable; };
  const Case cases[] = {  // each after 20 blocks read, a jump, a skip, then a field
      {MFD_FORMAT_MP3, 0, 31 * 8 + 4, 32, true},  // across the end of the window
      {MFD_FORMAT_MPEG_PS, 0, 127 * 8 + 7, 17, true},
      {MFD_FORMAT_JPEG, 0, 255 * 8 + 3, 32, true},
      {MFD_FORMAT_JPEG, 0, kBlockBits - 13, 32, true},  // across the end of a block
      {MFD_FORMAT_MP3, 4099, kBlockBits - 3, 7, true},
      {MFD_FORMAT_MPEG_PS, 0, 30 * kBlockBits - 32, 32, true},  // the last field of 30 blocks
      {MFD_FORMAT_MPEG_PS, 0, 30 * kBlockBits, 8, false},       // one block too many
      {MFD_FORMAT_MP3, kFourGiB - 2, 9, 24, true},             // 64-bit positions
      {MFD_FORMAT_JPEG, kFourGiB - 4096, kBlockBits - 4, 32, true},
      {MFD_FORMAT_MP3, kSize - 1, 0, 8, true},  // the last byte
      {MFD_FORMAT_MP3, kSize - 1, 1, 16, false},  // a field cut by the end of the file
      {MFD_FORMAT_MP3, kSize, 0, 8, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::to_string(c.jump) + " + " + std::to_string(c.skipBits) + " bits");
    Reading reading(path, c.formatId);
    ASSERT_EQ(mfd_setOffset(20 * kBlockBits), 0);
    uint32_t value = 7;
    ASSERT_EQ(mfd_jmpToFilePosition(c.jump) == 0 && mfd_setOffset(c.skipBits) == 0 &&
                  mfd_getDataBits(&value, c.width) == 0,
              c.readable);
    EXPECT_EQ(value, c.readable ? bitsAt(8 * c.jump + c.skipBits, c.width) : 7u);
  }
}

// Fields of every width one after another, through windows of two sizes, on
// two threads at once: each thread's reader keeps its own file and place.
TEST(Reader, TwoThreadsReadFieldsOfEveryWidthFromTwoFilesAtOnce) {
  dmstest::TempDir dir;
  const std::string paths[] = {dir.write("1", patternBytes(0, 50000, 0)),
                               dir.write("2", patternBytes(0, 50000, 1))};
  std::barrier both(2);
  int bad[2] = {0, 0};
  auto read = [&](int seed, uint32_t formatId) {
    for (int round = 0; round < 50; ++round) {
      Reading reading(paths[seed], formatId);
      both.arrive_and_wait();  // both initialised before either reads
      const uint64_t start = 8 * uint64_t((round * 7919 + seed * 1000) % 40000);
      uint32_t value = 0;
      bad[seed] += mfd_jmpToFilePosition(int64_t(start / 8)) != 0;
      for (uint64_t bit = start, w = 1; bit < start + 16000; bit += w, w = w % 32 + 1) {
        bad[seed] += mfd_getDataBits(&value, int(w)) != 0 || value != bitsAt(bit, int(w), seed);
      }
    }
  };
  std::thread one(read, 0, MFD_FORMAT_MP3), two(read, 1, MFD_FORMAT_JPEG);
  one.join();
  two.join();
  EXPECT_EQ(bad[0] + bad[1], 0);
}

}  // namespace

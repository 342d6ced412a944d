#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"
#include "mfd_temp_file.h"

namespace {

using mfdtest::patternBytes;
using mfdtest::TempFile;

constexpr uint32_t kWindow32 = MFD_FORMAT_MP3;    // 32-byte window
constexpr uint32_t kWindow128 = MFD_FORMAT_MPEG_PS;  // 128-byte window
constexpr uint32_t kWindow256 = MFD_FORMAT_JPEG;  // 256-byte window

// `count` bits from bit `bitIndex` of `bytes`, most significant first.
uint32_t referenceBits(const std::vector<uint8_t> &bytes, uint64_t bitIndex, int count) {
  uint64_t value = 0;
  for (int i = 0; i < count; ++i, ++bitIndex) {
    value = (value << 1) | ((bytes[bitIndex / 8] >> (7 - bitIndex % 8)) & 1);
  }
  return static_cast<uint32_t>(value);
}

uint32_t bigEndian32(const std::vector<uint8_t> &bytes, size_t offset) {
  return referenceBits(bytes, offset * 8, 32);
}

// Every test leaves the calling thread's reader idle.
class MfdReader : public ::testing::Test {
 protected:
  void TearDown() override { mfd_getDataDeInit(); }
};

// ---- Bit fields -----------------------------------------------------------

TEST_F(MfdReader, ThirtyTwoBitsWithEightLeftJoinTheOldWindowAndTheNext) {
  std::vector<uint8_t> bytes = patternBytes(1000);
  TempFile file(bytes);
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
  uint32_t value = 0;
  for (int i = 0; i < 7; ++i) ASSERT_EQ(0, mfd_getDataBits(&value, 32));
  ASSERT_EQ(0, mfd_getDataBits(&value, 24));  // 31 of the window's 32 bytes read
  ASSERT_EQ(0, mfd_getDataBits(&value, 32));
  EXPECT_EQ(bigEndian32(bytes, 31), value);
  EXPECT_EQ(8, mfd_bitsBeforeRefill());
  EXPECT_EQ(35, mfd_currentFilePosition());
}

TEST_F(MfdReader, ThirtyThreeBitsAreRefusedAndMoveNothing) {
  std::vector<uint8_t> bytes = patternBytes(100);
  TempFile file(bytes);
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
  uint32_t value = 0xDEADBEEF;
  EXPECT_EQ(1, mfd_getDataBits(&value, 33));
  EXPECT_EQ(0xDEADBEEFu, value);
  ASSERT_EQ(0, mfd_getDataBits(&value, 8));
  EXPECT_EQ(bytes[0], value);
}

// Random field widths at every alignment, through window and block refills,
// with skips in between, against a bit-by-bit reference.
TEST_F(MfdReader, UnalignedFieldsAndSkipsFollowTheFileBitForBit) {
  std::vector<uint8_t> bytes = patternBytes(20000, 3);
  TempFile file(bytes);
  std::mt19937 random(7);
  for (uint32_t formatId : {kWindow32, kWindow128, kWindow256}) {
    ASSERT_EQ(0, mfd_getDataInit(file.fd(), formatId));
    uint64_t position = 0;
    while (position + 64 + 3000 < bytes.size() * 8) {
      int count = static_cast<int>(random() % 32) + 1;
      uint32_t value = 0;
      ASSERT_EQ(0, mfd_getDataBits(&value, count)) << "at bit " << position;
      ASSERT_EQ(referenceBits(bytes, position, count), value) << "at bit " << position;
      position += static_cast<uint64_t>(count);
      if (random() % 8 == 0) {
        uint32_t skip = random() % 3000;
        ASSERT_EQ(0, mfd_setOffset(skip));
        position += skip;
      }
    }
    mfd_getDataDeInit();
  }
}

TEST(MfdGetBits, ExtractsRightAlignedFieldsOfUpToFiveBytes) {
  const uint8_t buf[] = {0xA5, 0x3C, 0xFF, 0x00, 0x81, 0x7E};
  EXPECT_EQ(0xA5u, mfd_getBits(buf, 0, 0, 8));
  EXPECT_EQ(0x5u, mfd_getBits(buf, 0, 4, 4));
  EXPECT_EQ(0x53CFu, mfd_getBits(buf, 0, 4, 16));
  EXPECT_EQ(0x3CFF0081u, mfd_getBits(buf, 1, 0, 32));
  EXPECT_EQ(0x9E7F8040u, mfd_getBits(buf, 0, 7, 32));  // spans five bytes
  EXPECT_EQ(1u, mfd_getBits(buf, 5, 1, 1));
  EXPECT_EQ(0u, mfd_getBits(buf, 0, 0, 0));
  EXPECT_EQ(0u, mfd_getBits(buf, 0, 0, 33));
}

TEST(MfdSetOffsetHelper, CarriesBitsIntoTheByteCounter) {
  uint32_t bytes = 0;
  uint8_t bit = 5;
  setOffset(&bytes, &bit, 13);  // 1 byte + 5 bits, 5 + 5 = 10 bits: carry
  EXPECT_EQ(2u, bytes);
  EXPECT_EQ(2u, bit);
  setOffset(&bytes, &bit, 6);
  EXPECT_EQ(3u, bytes);
  EXPECT_EQ(0u, bit);
}

TEST_F(MfdReader, AsfReadsRecordTheBitsBeforeARefillByUnit) {
  std::vector<uint8_t> bytes = patternBytes(200);
  TempFile file(bytes);
  uint32_t value = 0;
  // 28 bytes read, then a 64-bit field would not fit: 32 bits read as 4 + 4.
  auto readAcross = [&](uint8_t unit) {
    EXPECT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
    EXPECT_EQ(0, mfd_setOffset(8 * 28 + 16));
    EXPECT_EQ(0, mfd_getDataBits_WM(&value, 32, unit));
    EXPECT_EQ(bigEndian32(bytes, 30), value);
  };
  readAcross(4);
  EXPECT_EQ(16 + 32, mfd_bitsBeforeRefill());
  readAcross(8);
  EXPECT_EQ(16, mfd_bitsBeforeRefill());
  readAcross(2);  // other units leave the count as it was (0 after init)
  EXPECT_EQ(0, mfd_bitsBeforeRefill());
  readAcross(8);
  ASSERT_EQ(0, mfd_setOffset(8));
  EXPECT_EQ(0, mfd_bitsBeforeRefill());  // a skip clears it
}

// ---- Skips, jumps, limits -------------------------------------------------

TEST_F(MfdReader, SkippingFiveThousandBytesLandsOnByteFiveThousand) {
  std::vector<uint8_t> bytes = patternBytes(10000);
  TempFile file(bytes);
  for (uint32_t formatId : {kWindow32, kWindow256}) {
    ASSERT_EQ(0, mfd_getDataInit(file.fd(), formatId));
    ASSERT_EQ(0, mfd_setOffset(8 * 5000));
    EXPECT_EQ(5000, mfd_currentFilePosition());
    uint32_t value = 0;
    ASSERT_EQ(0, mfd_getDataBits(&value, 32));
    EXPECT_EQ(bigEndian32(bytes, 5000), value);
    mfd_getDataDeInit();
  }
}

TEST_F(MfdReader, ThirtyBlocksPerInitThenTheLimit) {
  TempFile file(patternBytes(300000));
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));  // block 1
  for (int block = 2; block <= 30; ++block) ASSERT_EQ(0, mfd_fillMasterBuffer()) << block;
  EXPECT_EQ(9, mfd_fillMasterBuffer());
  EXPECT_EQ(9, mfd_fillMasterBuffer());  // stays refused until a jump
  EXPECT_EQ(0, mfd_jmpToFilePosition(200000));
  EXPECT_EQ(0, mfd_fillMasterBuffer());
}

TEST_F(MfdReader, ReadingOnStopsAfterExactlyThirtyBlocks) {
  std::vector<uint8_t> bytes = patternBytes(300000);
  TempFile file(bytes);
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow128));
  uint32_t value = 0;
  uint64_t fields = 0;
  while (fields < 1000000 && mfd_getDataBits(&value, 32) == 0) ++fields;
  EXPECT_EQ(30u * 4096 / 4, fields);
  EXPECT_EQ(bigEndian32(bytes, 30 * 4096 - 4), value);
  EXPECT_EQ(1, mfd_setOffset(8));
  // A jump starts a new allowance.
  ASSERT_EQ(0, mfd_jmpToFilePosition(4));
  ASSERT_EQ(0, mfd_setOffset(8 * 100000));
  ASSERT_EQ(0, mfd_getDataBits(&value, 32));
  EXPECT_EQ(bigEndian32(bytes, 100004), value);
}

TEST_F(MfdReader, TheLastBytesOfAFileAreReadableThenEndOfFile) {
  for (size_t size : {100, 4100}) {  // less than a window / a full block and 4 bytes
    std::vector<uint8_t> bytes = patternBytes(size);
    TempFile file(bytes);
    for (uint32_t formatId : {kWindow32, kWindow128, kWindow256}) {
      ASSERT_EQ(0, mfd_getDataInit(file.fd(), formatId));
      uint32_t value = 0;
      for (size_t offset = 0; offset < bytes.size(); ++offset) {
        ASSERT_EQ(0, mfd_getDataBits(&value, 8)) << size << " " << offset;
        ASSERT_EQ(bytes[offset], value) << size << " " << offset;
      }
      EXPECT_EQ(1, mfd_getDataBits(&value, 8));
      EXPECT_EQ(4, mfd_fillMasterBuffer());
      mfd_getDataDeInit();
    }
  }
}

TEST_F(MfdReader, AFieldCutShortByTheEndOfTheFileFailsWithoutWriting) {
  std::vector<uint8_t> bytes = patternBytes(6);
  TempFile file(bytes);
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
  uint32_t value = 0;
  ASSERT_EQ(0, mfd_getDataBits(&value, 24));
  value = 7;
  EXPECT_EQ(1, mfd_getDataBits(&value, 32));
  EXPECT_EQ(7u, value);
}

TEST_F(MfdReader, AJumpBeyondFourGibibytesReadsThere) {
  TempFile file({});
  constexpr int64_t kSize = (int64_t{5} << 30);
  constexpr int64_t kMarkAt = (int64_t{9} << 29) + 3;  // 4.5 GiB + 3
  if (::ftruncate(file.fd(), kSize) != 0) GTEST_SKIP() << "no sparse 5 GiB file here";
  const uint8_t mark[] = {0xC0, 0xFF, 0xEE, 0x42, 0x17};
  ASSERT_EQ(5, ::pwrite(file.fd(), mark, sizeof mark, kMarkAt));
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
  ASSERT_EQ(0, mfd_jmpToFilePosition(kMarkAt));
  EXPECT_EQ(kMarkAt, mfd_currentFilePosition());
  uint32_t value = 0;
  ASSERT_EQ(0, mfd_getDataBits(&value, 32));
  EXPECT_EQ(0xC0FFEE42u, value);
  ASSERT_EQ(0, mfd_jmpToFilePosition(kMarkAt - 4096 + 2));  // the mark behind a block edge
  ASSERT_EQ(0, mfd_setOffset(8 * 4094));
  ASSERT_EQ(0, mfd_getDataBits(&value, 8));
  EXPECT_EQ(0xC0u, value);
  EXPECT_EQ(1, mfd_jmpToFilePosition(kSize));  // nothing there
  EXPECT_EQ(1, mfd_jmpToFilePosition(-1));
}

// ---- Arguments and life cycle ---------------------------------------------

TEST_F(MfdReader, InitRefusesDescriptorZeroAndFormatsWithoutWindow) {
  TempFile file(patternBytes(100));
  EXPECT_EQ(1, mfd_getDataInit(0, kWindow32));
  EXPECT_EQ(1, mfd_getDataInit(-1, kWindow32));
  EXPECT_EQ(8, mfd_getDataInit(file.fd(), MFD_FORMAT_MP4_AUDIO));  // no registry row
  EXPECT_EQ(8, mfd_getDataInit(file.fd(), MFD_FORMAT_END));
  EXPECT_EQ(8, mfd_getDataInit(file.fd(), MFD_FORMAT_NONE));
  TempFile empty({});
  EXPECT_EQ(4, mfd_getDataInit(empty.fd(), kWindow32));
}

TEST_F(MfdReader, NothingIsReadWithoutAnInit) {
  TempFile file(patternBytes(100));
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
  mfd_getDataDeInit();
  uint32_t value = 0;
  EXPECT_EQ(1, mfd_getDataBits(&value, 8));
  EXPECT_EQ(1, mfd_setOffset(8));
  EXPECT_EQ(1, mfd_jmpToFilePosition(0));
  EXPECT_EQ(1, mfd_fillMasterBuffer());
  EXPECT_EQ(1, mfd_fillLocalBuffer());
}

TEST_F(MfdReader, TheMasterBufferKeepsTheFirstBlockAfterDeInit) {
  std::vector<uint8_t> bytes = patternBytes(9000);
  TempFile file(bytes);
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow256));
  mfd_getDataDeInit();
  ASSERT_EQ(4096u, mfd_masterCount());
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + 4096, mfd_masterBuffer()));
}

TEST_F(MfdReader, CountsTheBytesItReads) {
  TempFile file(patternBytes(10000));
  mfd_resetBytesRead();
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
  EXPECT_EQ(4096u, mfd_bytesRead());
  ASSERT_EQ(0, mfd_setOffset(8 * 5000));
  EXPECT_EQ(8192u, mfd_bytesRead());
  ASSERT_EQ(0, mfd_jmpToFilePosition(9000));
  EXPECT_EQ(8192u + 1000u, mfd_bytesRead());
  mfd_resetBytesRead();
  EXPECT_EQ(0u, mfd_bytesRead());
}

TEST_F(MfdReader, AKeptFileIsReadFromItsFirstBlockOnlyOnce) {
  std::vector<uint8_t> bytes = patternBytes(10000);
  TempFile file(bytes);
  uint32_t value = 0;
  mfd_resetBytesRead();
  mfd_keepFirstBlock(file.fd());
  for (uint32_t formatId : {kWindow32, kWindow256, kWindow128}) {
    ASSERT_EQ(0, mfd_getDataInit(file.fd(), formatId));
    ASSERT_EQ(0, mfd_getDataBits(&value, 32));
    EXPECT_EQ(bigEndian32(bytes, 0), value);
    mfd_getDataDeInit();
  }
  EXPECT_EQ(4096u, mfd_bytesRead());
  // Reading on from a reused block continues behind it; that overwrites the
  // block, so the next init reads it again.
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
  ASSERT_EQ(0, mfd_setOffset(8 * 5000));
  ASSERT_EQ(0, mfd_getDataBits(&value, 32));
  EXPECT_EQ(bigEndian32(bytes, 5000), value);
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
  ASSERT_EQ(0, mfd_getDataBits(&value, 32));
  EXPECT_EQ(bigEndian32(bytes, 0), value);
  EXPECT_EQ(3u * 4096, mfd_bytesRead());
  // Ending the keep makes every init read.
  mfd_keepFirstBlock(0);
  mfd_resetBytesRead();
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));
  EXPECT_EQ(2u * 4096, mfd_bytesRead());
}

TEST_F(MfdReader, AReusedFirstBlockCountsAsTheFirstOfThirty) {
  TempFile file(patternBytes(300000));
  mfd_keepFirstBlock(file.fd());
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));  // reads block 1
  ASSERT_EQ(0, mfd_getDataInit(file.fd(), kWindow32));  // reuses it
  for (int block = 2; block <= 30; ++block) ASSERT_EQ(0, mfd_fillMasterBuffer()) << block;
  EXPECT_EQ(9, mfd_fillMasterBuffer());
  mfd_keepFirstBlock(0);
}

TEST_F(MfdReader, AnotherDescriptorIsNotServedTheKeptBlock) {
  std::vector<uint8_t> first = patternBytes(5000, 1);
  std::vector<uint8_t> second = patternBytes(5000, 2);
  TempFile firstFile(first);
  TempFile secondFile(second);
  mfd_keepFirstBlock(firstFile.fd());
  uint32_t value = 0;
  ASSERT_EQ(0, mfd_getDataInit(firstFile.fd(), kWindow32));
  ASSERT_EQ(0, mfd_getDataInit(secondFile.fd(), kWindow32));
  ASSERT_EQ(0, mfd_getDataBits(&value, 32));
  EXPECT_EQ(bigEndian32(second, 0), value);
  ASSERT_EQ(0, mfd_getDataInit(firstFile.fd(), kWindow32));
  ASSERT_EQ(0, mfd_getDataBits(&value, 32));
  EXPECT_EQ(bigEndian32(first, 0), value);
  mfd_keepFirstBlock(0);
}

// ---- Threads ----------------------------------------------------------------

TEST(MfdReaderThreads, EachThreadReadsItsOwnFile) {
  std::vector<uint8_t> first = patternBytes(50000, 1);
  std::vector<uint8_t> second = patternBytes(50000, 2);
  TempFile firstFile(first);
  TempFile secondFile(second);
  auto reader = [](const TempFile *file, const std::vector<uint8_t> *bytes, uint32_t formatId,
                   int *failures) {
    std::mt19937 random(formatId);
    for (int round = 0; round < 300; ++round) {
      if (mfd_getDataInit(file->fd(), formatId) != 0) ++*failures;
      int64_t offset = random() % (bytes->size() - 8000);
      if (mfd_jmpToFilePosition(offset) != 0) ++*failures;
      for (int field = 0; field < 400; ++field) {
        uint32_t value = 0;
        if (mfd_getDataBits(&value, 32) != 0 || value != bigEndian32(*bytes, offset + 4 * field)) {
          ++*failures;
        }
      }
      if (mfd_masterBuffer()[0] != (*bytes)[offset]) ++*failures;
      mfd_getDataDeInit();
    }
  };
  int firstFailures = 0;
  int secondFailures = 0;
  std::thread one(reader, &firstFile, &first, kWindow32, &firstFailures);
  std::thread two(reader, &secondFile, &second, kWindow256, &secondFailures);
  one.join();
  two.join();
  EXPECT_EQ(0, firstFailures);
  EXPECT_EQ(0, secondFailures);
}

}  // namespace

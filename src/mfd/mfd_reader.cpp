// Buffered bit reader: the only way detectors read their file.
//
// The file is read in 4096-byte blocks into the master buffer; the detector's
// window (32, 128 or 256 bytes) is copied from it and bit fields are taken
// from the window.  Every block read is counted, and after 30 blocks since the
// last init or jump every further fill is refused with 9, so no detector loop
// that stops on read errors can walk a hostile file for long.
//
// All state is thread-local: each detecting thread has its own buffers.
#include "mfd/mfd_reader.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "mfd/mfd_api.h"
#include "util/osal_trace.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_reader.c";

namespace {

// The largest window any registry row asks for.
constexpr uint32_t kMaxWindowSize = 256;

struct ReaderState {
  int fd = 0;                    // 0: no file (before init, after de-init)
  uint32_t masterRead = 0;       // next master byte to copy into the window
  uint32_t masterCount = 0;      // valid master bytes; 0: not filled since init or jump
  uint32_t masterFills = 0;      // blocks read since the count was last 0
  int64_t masterFileOffset = 0;  // file position of master byte 0
  int64_t nextReadOffset = 0;    // file position of the next block
  std::array<uint8_t, kMaxWindowSize> window{};
  uint32_t windowCapacity = 0;   // the format's window size; 0: no window
  uint32_t windowSize = 0;       // valid window bytes
  int64_t windowFileOffset = 0;  // file position of window byte 0
  uint32_t current = 0;          // index of the current window byte
  uint8_t bitPosition = 0;       // 0 (most significant) to 7
  int32_t bitsBeforeRefill = 0;
  uint64_t bytesRead = 0;
  int keptFd = 0;                // the file whose first block may be reused
  bool firstBlockInMaster = false;
};

thread_local ReaderState gs_s_mfdReader MFD_FAST_TLS;
thread_local std::array<uint8_t, MFD_MASTER_BUFFER_SIZE> ga_u8_mfdMasterBuf{};

uint32_t bitsAvailable(const ReaderState &reader) {
  return (reader.windowSize - reader.current) * 8 - reader.bitPosition;
}

void advance(ReaderState &reader, uint32_t count) {
  uint32_t bits = reader.bitPosition + count;
  reader.current += bits / 8;
  reader.bitPosition = static_cast<uint8_t>(bits % 8);
}

// The next `count` (1 to 32, at most what is available) bits, right-aligned.
// Eight bytes are loaded at once while they lie inside the window array;
// bytes past the valid length are shifted out.
[[gnu::always_inline]] inline uint32_t peekBits(const ReaderState &reader, uint32_t count) {
  const uint8_t *bytes = reader.window.data() + reader.current;
  uint64_t word = 0;
  if (reader.current + 8 <= kMaxWindowSize) {
    std::memcpy(&word, bytes, 8);
    word = __builtin_bswap64(word);
  } else {
    for (uint32_t i = 0; reader.current + i < kMaxWindowSize; ++i) {
      word |= uint64_t{bytes[i]} << (56 - 8 * i);
    }
  }
  return static_cast<uint32_t>((word << reader.bitPosition) >> (64 - count));
}

// The registry row's window size for `formatId`, 0 when it has no row.
uint32_t windowSizeOf(uint32_t formatId) {
  if (formatId == MFD_FORMAT_NONE || formatId >= MFD_FORMAT_COUNT) return 0;
  for (const mfdMediaProfileTag &row : ga_s_mfdMediaProfileTags) {
    if (row.formatId == formatId) return std::min(row.localBufSize, kMaxWindowSize);
  }
  return 0;
}

// How a read that crosses the window's end records the bits that lay before
// the refill: plain reads record them as they are, the ASF reads by unit.
enum class RefillNote { Plain, Unit };

int32_t readBits(uint32_t *out, int count, RefillNote note, uint8_t unit) {
  ReaderState &reader = gs_s_mfdReader;
  if (out == nullptr || count < 0 || count > 32 || reader.windowCapacity == 0) {
    return MFD_ERR_INVALID_PARAM;
  }
  uint64_t value = 0;
  uint32_t needed = static_cast<uint32_t>(count);
  bool refilled = false;
  // Each pass takes bits or refills; a refill either brings at least one byte
  // or fails, so at most 33 passes.
  while (needed > 0) {
    uint32_t available = bitsAvailable(reader);
    if (available == 0) {
      if (!refilled) {
        int32_t before = count - static_cast<int32_t>(needed);
        if (note == RefillNote::Plain || unit == 8) reader.bitsBeforeRefill = before;
        if (note == RefillNote::Unit && unit == 4) reader.bitsBeforeRefill = before + 32;
        refilled = true;
      }
      if (mfd_fillLocalBuffer() != 0) return MFD_ERR_INVALID_PARAM;
      continue;
    }
    uint32_t take = std::min(available, needed);
    value = (value << take) | peekBits(reader, take);
    advance(reader, take);
    needed -= take;
  }
  *out = static_cast<uint32_t>(value);
  return 0;
}

}  // namespace

uint8_t *mfd_masterBuffer() { return ga_u8_mfdMasterBuf.data(); }

uint32_t mfd_masterCount() { return gs_s_mfdReader.masterCount; }

int32_t mfd_getDataInit(int fd, uint32_t formatId) {
  if (fd < 1) return MFD_ERR_INVALID_PARAM;
  uint32_t size = windowSizeOf(formatId);
  if (size == 0) return MFD_ERR_UNSUPPORTED;
  ReaderState &reader = gs_s_mfdReader;
  reader.fd = fd;
  reader.windowCapacity = size;
  reader.windowSize = 0;
  reader.current = 0;
  reader.bitPosition = 0;
  reader.bitsBeforeRefill = 0;
  reader.masterRead = 0;
  reader.masterFileOffset = 0;
  if (fd == reader.keptFd && reader.firstBlockInMaster) {
    // As if the first block had just been read.
    reader.masterFills = 1;
    reader.nextReadOffset = reader.masterCount;
  } else {
    reader.masterCount = 0;
    reader.nextReadOffset = 0;
  }
  return mfd_fillLocalBuffer();
}

void mfd_keepFirstBlock(int fd) {
  ReaderState &reader = gs_s_mfdReader;
  reader.keptFd = fd > 0 ? fd : 0;
  reader.firstBlockInMaster = false;
}

int32_t mfd_getDataDeInit() {
  ReaderState &reader = gs_s_mfdReader;
  reader.fd = 0;
  reader.windowCapacity = 0;
  reader.windowSize = 0;
  reader.current = 0;
  reader.bitPosition = 0;
  return 0;
}

int32_t mfd_fillMasterBuffer() {
  ReaderState &reader = gs_s_mfdReader;
  if (reader.fd < 1) return MFD_ERR_INVALID_PARAM;
  uint32_t request = reader.masterCount;
  if (request == 0) {
    request = MFD_MASTER_BUFFER_SIZE;
    reader.masterFills = 0;
  } else if (reader.masterFills >= MFD_MAX_MASTER_FILLS) {
    // Stays refused until the next init or jump.
    return MFD_ERR_LIMIT;
  }
  ssize_t got = 0;
  do {
    got = ::pread(reader.fd, ga_u8_mfdMasterBuf.data(), request, reader.nextReadOffset);
  } while (got < 0 && errno == EINTR);
  if (got < 1) return MFD_ERR_EOF;
  reader.masterRead = 0;
  reader.masterCount = static_cast<uint32_t>(got);
  reader.masterFileOffset = reader.nextReadOffset;
  reader.firstBlockInMaster = reader.fd == reader.keptFd && reader.masterFileOffset == 0;
  reader.nextReadOffset += got;
  reader.bytesRead += static_cast<uint64_t>(got);
  ++reader.masterFills;
  return 0;
}

int32_t mfd_fillLocalBuffer() {
  ReaderState &reader = gs_s_mfdReader;
  if (reader.windowCapacity == 0) return MFD_ERR_INVALID_PARAM;
  if (reader.masterCount == 0) {
    int32_t result = mfd_fillMasterBuffer();
    if (result != 0) return result;
  }
  uint32_t size = std::min(reader.windowCapacity, reader.masterCount);
  uint32_t left = reader.masterCount - reader.masterRead;
  reader.windowFileOffset = reader.masterFileOffset + reader.masterRead;
  reader.current = 0;
  reader.bitPosition = 0;
  if (size <= left) {
    std::memcpy(reader.window.data(), ga_u8_mfdMasterBuf.data() + reader.masterRead, size);
    reader.masterRead += size;
    reader.windowSize = size;
    return 0;
  }
  std::memcpy(reader.window.data(), ga_u8_mfdMasterBuf.data() + reader.masterRead, left);
  reader.masterRead = reader.masterCount;
  reader.windowSize = left;
  int32_t result = mfd_fillMasterBuffer();
  // The bytes already in the window stay readable even when no further block
  // comes (end of file or read limit); the next refill reports the error.
  if (result != 0) return left > 0 ? 0 : result;
  uint32_t rest = std::min(size - left, reader.masterCount);
  std::memcpy(reader.window.data() + left, ga_u8_mfdMasterBuf.data(), rest);
  reader.masterRead = rest;
  reader.windowSize = left + rest;
  return 0;
}

uint32_t mfd_getBits(const uint8_t *buf, uint32_t byteOffset, uint32_t bitOffset, uint32_t count) {
  if (buf == nullptr || count == 0 || count > 32) return 0;
  byteOffset += bitOffset / 8;
  bitOffset %= 8;
  uint32_t span = (bitOffset + count + 7) / 8;
  if (span > 5) return 0;
  uint64_t bits = 0;
  for (uint32_t i = 0; i < span; ++i) bits = (bits << 8) | buf[byteOffset + i];
  bits >>= span * 8 - bitOffset - count;
  return static_cast<uint32_t>(bits & ((uint64_t{1} << count) - 1));
}

int32_t mfd_getDataBits(uint32_t *out, int count) {
  // Most fields lie inside the window: taken here without the refill logic.
  ReaderState &reader = gs_s_mfdReader;
  if (out != nullptr && count >= 1 && count <= 32 &&
      static_cast<uint32_t>(count) <= bitsAvailable(reader)) {
    *out = peekBits(reader, static_cast<uint32_t>(count));
    advance(reader, static_cast<uint32_t>(count));
    return 0;
  }
  return readBits(out, count, RefillNote::Plain, 0);
}

int32_t mfd_getDataBits_WM(uint32_t *out, int count, uint8_t unit) {
  return readBits(out, count, RefillNote::Unit, unit);
}

int32_t mfd_bitsBeforeRefill() { return gs_s_mfdReader.bitsBeforeRefill; }

int32_t mfd_setOffset(uint32_t count) {
  ReaderState &reader = gs_s_mfdReader;
  reader.bitsBeforeRefill = 0;
  if (reader.windowCapacity == 0) return MFD_ERR_INVALID_PARAM;
  uint64_t remaining = count;
  // Each pass ends the skip or reads on, and reading is bounded by the end of
  // the file and the block limit.
  for (;;) {
    uint32_t available = bitsAvailable(reader);
    if (remaining <= available) {
      advance(reader, static_cast<uint32_t>(remaining));
      return 0;
    }
    remaining -= available;
    // Whole bytes still waiting in the master buffer are passed over without
    // being copied through the window.
    uint64_t masterLeft = reader.masterCount - reader.masterRead;
    uint64_t passed = std::min<uint64_t>(remaining / 8, masterLeft);
    reader.masterRead += static_cast<uint32_t>(passed);
    remaining -= passed * 8;
    if (mfd_fillLocalBuffer() != 0) return MFD_ERR_INVALID_PARAM;
  }
}

void setOffset(uint32_t *byteAdvance, uint8_t *bitPosition, uint32_t count) {
  if (byteAdvance == nullptr || bitPosition == nullptr) return;
  *byteAdvance += count / 8;
  uint32_t bits = *bitPosition + count % 8;
  if (bits >= 8) {
    bits -= 8;
    ++*byteAdvance;
  }
  *bitPosition = static_cast<uint8_t>(bits);
}

int32_t mfd_jmpToFilePosition(int64_t offset) {
  ReaderState &reader = gs_s_mfdReader;
  if (reader.windowCapacity == 0 || offset < 0) return MFD_ERR_INVALID_PARAM;
  reader.nextReadOffset = offset;
  reader.masterCount = 0;
  reader.masterRead = 0;
  reader.windowSize = 0;
  reader.current = 0;
  reader.bitPosition = 0;
  return mfd_fillLocalBuffer() == 0 ? 0 : MFD_ERR_INVALID_PARAM;
}

int64_t mfd_currentFilePosition() {
  const ReaderState &reader = gs_s_mfdReader;
  return reader.windowFileOffset + reader.current;
}

uint64_t mfd_bytesRead() { return gs_s_mfdReader.bytesRead; }

void mfd_resetBytesRead() { gs_s_mfdReader.bytesRead = 0; }

// Buffered bit reader through which every detector reads its file.
//
// Two buffers: a 4096-byte master buffer filled by read() from the file, and
// the detector's small window (32, 128 or 256 bytes, from the format's
// registry row) copied from it.  Detectors take big-endian bit fields of up to
// 32 bits from the window, skip forward by bits, or jump to an absolute file
// position; the reader refills as needed and bounds one detection to 30
// master reads (122,880 bytes) after each init or jump.
//
// The state belongs to the calling thread (it is thread-local), so detections
// on different threads do not disturb each other.  Within a thread, one
// detection at a time: mfd_getDataInit ... mfd_getDataDeInit.
#ifndef DMS_MFD_MFD_READER_H
#define DMS_MFD_MFD_READER_H

#include <cstdint>

// For the small per-thread state the detectors touch on every read: the
// initial-exec model reaches it with one register offset, where the default
// model of a shared library calls __tls_get_addr on each access (20 % of a
// scan).  Variables marked so must stay small: a library loaded with dlopen
// has only a few hundred bytes of static TLS to take them from.
#define MFD_FAST_TLS __attribute__((tls_model("initial-exec")))

inline constexpr uint32_t MFD_MASTER_BUFFER_SIZE = 4096;
inline constexpr uint32_t MFD_MAX_MASTER_FILLS = 30;

// The calling thread's master buffer.  After mfd_getDataDeInit it still holds
// what was read last (the framework searches a WAV's first bytes there).
uint8_t *mfd_masterBuffer();
// Valid bytes in the master buffer.
uint32_t mfd_masterCount();

// Rewinds `fd` to 0 and fills the window for `formatId`'s window size.
// 0; 1 for fd < 1 or a failed fill; 8 for an id without registry row.
int32_t mfd_getDataInit(int fd, uint32_t formatId);
// Releases the window; 0.
int32_t mfd_getDataDeInit();

// While `fd` is kept (the driver keeps the file it detects), an init on it
// takes the file's first block from the master buffer when that still holds
// it, instead of reading it again for every detector.  0 ends keeping; call
// it before the descriptor is closed (its number may come back for another
// file).
void mfd_keepFirstBlock(int fd);

// Refill steps (used by the reader itself; exposed for tests).
int32_t mfd_fillMasterBuffer();  // 0, 1 no file, 4 end of file, 9 limit reached
int32_t mfd_fillLocalBuffer();   // 0 or the master fill's error

// Pure extraction: `count` bits (1 to 32) from bit `bitOffset` (0 = most
// significant) of buf[byteOffset], right-aligned; 0 for a span of more than
// five bytes.
uint32_t mfd_getBits(const uint8_t *buf, uint32_t byteOffset, uint32_t bitOffset, uint32_t count);

// Reads the next `count` bits (at most 32) into *out.  0; 1 for count > 32 or
// when a refill fails (then *out is not written).
int32_t mfd_getDataBits(uint32_t *out, int count);
// As mfd_getDataBits, also recording how many bits of the field lay before a
// refill (plus 32 when `unit` is 4); for the ASF parser.
int32_t mfd_getDataBits_WM(uint32_t *out, int count, uint8_t unit);
// Bits that were left in the window when the last read crossed its end.
int32_t mfd_bitsBeforeRefill();

// Skips `count` bits.  0, or 1 when a refill fails.
int32_t mfd_setOffset(uint32_t count);

// Advances a byte counter by count / 8 and a bit position by count % 8,
// carrying into the byte counter.
void setOffset(uint32_t *byteAdvance, uint8_t *bitPosition, uint32_t count);

// Continues reading at absolute file position `offset` (64-bit); the read
// limit starts again.  0, or 1 when the position cannot be read.
int32_t mfd_jmpToFilePosition(int64_t offset);

// File position of the next bit to be read (whole bytes); for detectors that
// walk structures by offset.
int64_t mfd_currentFilePosition();

// Bytes the calling thread's reader has read from files (every master fill
// adds what read() gave); for measuring how much detection reads.
uint64_t mfd_bytesRead();
void mfd_resetBytesRead();

#endif  // DMS_MFD_MFD_READER_H

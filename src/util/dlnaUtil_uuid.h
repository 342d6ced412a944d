// Time-based (version 1) UUIDs for the server's unique device name.
//
// A UUID is made of the time of day in 100 ns steps since 15 October 1582, a
// 13-bit clock sequence and a six-byte node taken from the first network
// interface with a hardware address (random bytes when there is none).  The
// previous time stamp, the clock sequence and the random device are kept for
// the whole process and guarded by mutexes, so calls from several threads are
// safe.
//
// Diagnostics go straight to standard output (puts, printf, perror), not to
// the trace log.
#ifndef DMS_UTIL_DLNAUTIL_UUID_H
#define DMS_UTIL_DLNAUTIL_UUID_H

#include <sys/time.h>

#include <cstdint>

// Length of the text form without its terminator; buffers need one more.
inline constexpr int32_t DLNA_UTIL_UUID_TEXT_LENGTH = 36;

// Writes a fresh UUID as 36 characters plus terminator
// ("%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x") into `uuidText`,
// which must hold at least 37 bytes.  Returns 0, or -1 for a NULL buffer.
// Trouble with the interfaces or the random device never fails the call; it
// only changes where the node bytes come from.
int32_t dlnaUtil_getUuid(char *uuidText);

// ---- Internal pieces, exposed for the unit tests ----

// Fills `buffer` with `count` random bytes from /dev/urandom (else
// /dev/random), opened on first use and kept open.  Returns the number of
// bytes read from the device; when no device can be opened, the bytes are
// mixed with rand() instead and 0 is returned.  -1 for a NULL buffer or a
// count below 1.
int32_t dlnaUtilGetRandomBytes(uint8_t *buffer, int32_t count);

// Node bytes for an interface's hardware address: its first four bytes with
// the multicast bit (lowest bit of byte 0) set, then two zero bytes.
void dlnaUtilNodeFromHwAddr(const uint8_t *hwAddr, uint8_t *node);

// Looks for the first listed IPv4 interface with a non-zero hardware address
// and derives the six node bytes from it.  Returns 0 when one was found, -1
// otherwise (`node` is then all zero).
int32_t dlnaUtilGetInterfaceNode(uint8_t *node);

// Formats the UUID for time `now`, clock sequence `clockSeq` (low 13 bits
// expected) and six node bytes into `uuidText` (at least 37 bytes).
// Returns 0, or -1 for a NULL argument.
int32_t dlnaUtilFormatUuid(const struct timeval *now, uint16_t clockSeq, const uint8_t *node,
                           char *uuidText);

// dlnaUtil_getUuid with the time of day replaced by `now`, so that repeated
// and backward time stamps can be produced on purpose.  Updates the same
// process-wide state.  Returns 0, or -1 for a NULL argument.
int32_t dlnaUtilGetUuidAt(const struct timeval *now, char *uuidText);

#endif  // DMS_UTIL_DLNAUTIL_UUID_H

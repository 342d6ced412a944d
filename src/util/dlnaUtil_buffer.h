// Growable, always NUL-terminated text buffer.  Every XML answer of the
// ContentDirectory is built by appending pieces to one of these.
//
// The block starts at 32768 bytes, so an ordinary answer never reallocates,
// and grows in 32768-byte steps; a single piece too big for one step grows
// the block to exactly what it needs.  All functions return 0 or a
// DLNA_UTIL_ERR_* code and never trace.
#ifndef DMS_UTIL_DLNAUTIL_BUFFER_H
#define DMS_UTIL_DLNAUTIL_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <memory>

// One buffer.  Invariant after every successful operation:
// length < size and data[length] == 0.
struct dlnaUtilBuffer {
  char *data;       // heap block holding the text
  uint32_t length;  // text bytes stored, without the terminating NUL
  uint32_t size;    // allocated size of the block in bytes
};

// Creates a buffer with a zeroed 32768-byte block and stores it in
// *handleOut.  handleOut must be non-NULL and *handleOut NULL on entry,
// otherwise DLNA_UTIL_ERR_INVALID_PARAM and *handleOut is left alone.
// DLNA_UTIL_ERR_NO_MEMORY when either allocation fails (nothing is leaked).
int32_t dlnaUtil_allocateBuffer(dlnaUtilBuffer **handleOut);

// Frees the block (when present) and the record.  The caller's pointer is
// not cleared.  NULL: DLNA_UTIL_ERR_INVALID_PARAM.
int32_t dlnaUtil_releaseBuffer(dlnaUtilBuffer *buffer);

// Appends a NUL-terminated string.  NULL buffer or text:
// DLNA_UTIL_ERR_INVALID_PARAM.  When the block cannot grow,
// DLNA_UTIL_ERR_NO_MEMORY and the stored text is unchanged.
int32_t dlnaUtil_appendToBuffer(dlnaUtilBuffer *buffer, const char *text);

// Appends `length` bytes of `text` (which need not be NUL-terminated).
// Codes as for the plain append.
int32_t dlnaUtil_appendBytesToBuffer(dlnaUtilBuffer *buffer, const char *text, size_t length);

// Makes room for `extra` more text bytes and returns where they go, or NULL
// when the block cannot grow (the text is then unchanged).  The caller
// writes at most `extra` bytes there and then calls dlnaUtil_commitToBuffer
// with the count it wrote; nothing else may touch the buffer in between.
char *dlnaUtil_reserveInBuffer(dlnaUtilBuffer *buffer, size_t extra);
inline void dlnaUtil_commitToBuffer(dlnaUtilBuffer *buffer, size_t written) {
  buffer->length += static_cast<uint32_t>(written);
  buffer->data[buffer->length] = '\0';
}

// Appends the printf-style formatting of `format` and the arguments,
// formatted straight into the block (grown first when the piece does not
// fit).  Codes as for the plain append.
int32_t dlnaUtil_appendToBufferWithFormat(dlnaUtilBuffer *buffer, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// Owner for C++ callers: releases the buffer when it goes out of scope.
struct DlnaBufferDeleter {
  void operator()(dlnaUtilBuffer *buffer) const { dlnaUtil_releaseBuffer(buffer); }
};
using DlnaBufferPtr = std::unique_ptr<dlnaUtilBuffer, DlnaBufferDeleter>;

#endif  // DMS_UTIL_DLNAUTIL_BUFFER_H

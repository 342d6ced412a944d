#include "util/dlnaUtil_buffer.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "util/dmsErrors.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

// The buffer reports every failure through its return code only; callers
// trace with their own context.
static constexpr char kTraceFile[] = "dlnaUtil_buffer.cpp";

namespace {

constexpr uint32_t kInitialSize = 32768;
constexpr int64_t kGrowthStep = 32768;

// Block size that holds `needed` text bytes plus the NUL: one more step when
// that is enough, otherwise exactly what the piece needs, so one oversized
// piece costs a single reallocation.
int64_t grownSize(int64_t needed, int64_t size) {
  return needed <= size + kGrowthStep - 1 ? size + kGrowthStep : needed + 1;
}

// Grows the block so that `extra` more text bytes and the NUL fit.  On
// failure the old block and its text are untouched, and `size` still
// describes that block.
bool makeRoom(dlnaUtilBuffer *buffer, size_t extra) {
  const int64_t needed = int64_t{buffer->length} + static_cast<int64_t>(extra);
  if (needed < int64_t{buffer->size}) return true;
  const int64_t newSize = grownSize(needed, buffer->size);
  // Lengths are compared as signed 32-bit values; a text that would leave
  // that range is treated like any other allocation that cannot be met.
  if (extra > INT32_MAX || newSize > INT32_MAX) return false;
  void *grown = std::realloc(buffer->data, static_cast<size_t>(newSize));
  if (grown == nullptr) return false;
  buffer->data = static_cast<char *>(grown);
  buffer->size = static_cast<uint32_t>(newSize);
  return true;
}

}  // namespace

int32_t dlnaUtil_allocateBuffer(dlnaUtilBuffer **handleOut) {
  if (handleOut == nullptr || *handleOut != nullptr) return DLNA_UTIL_ERR_INVALID_PARAM;
  return dmsGuard("dlnaUtil_allocateBuffer", DLNA_UTIL_ERR_NO_MEMORY, [&]() -> int32_t {
    auto record = std::make_unique<dlnaUtilBuffer>();
    // The block is managed with realloc so that it can grow in place.
    record->data = static_cast<char *>(std::calloc(kInitialSize, 1));
    if (record->data == nullptr) return DLNA_UTIL_ERR_NO_MEMORY;
    record->length = 0;
    record->size = kInitialSize;
    *handleOut = record.release();
    return 0;
  });
}

int32_t dlnaUtil_releaseBuffer(dlnaUtilBuffer *buffer) {
  if (buffer == nullptr) return DLNA_UTIL_ERR_INVALID_PARAM;
  std::unique_ptr<dlnaUtilBuffer> record(buffer);
  if (record->data != nullptr) {
    std::free(record->data);
    record->data = nullptr;
  }
  return 0;
}

char *dlnaUtil_reserveInBuffer(dlnaUtilBuffer *buffer, size_t extra) {
  if (buffer == nullptr || buffer->data == nullptr || !makeRoom(buffer, extra)) return nullptr;
  return buffer->data + buffer->length;
}

int32_t dlnaUtil_appendBytesToBuffer(dlnaUtilBuffer *buffer, const char *text, size_t length) {
  if (buffer == nullptr || text == nullptr || buffer->data == nullptr) {
    return DLNA_UTIL_ERR_INVALID_PARAM;
  }
  char *tail = dlnaUtil_reserveInBuffer(buffer, length);
  if (tail == nullptr) return DLNA_UTIL_ERR_NO_MEMORY;
  std::memcpy(tail, text, length);
  dlnaUtil_commitToBuffer(buffer, length);
  return 0;
}

int32_t dlnaUtil_appendToBuffer(dlnaUtilBuffer *buffer, const char *text) {
  if (text == nullptr) return DLNA_UTIL_ERR_INVALID_PARAM;
  return dlnaUtil_appendBytesToBuffer(buffer, text, std::strlen(text));
}

int32_t dlnaUtil_appendToBufferWithFormat(dlnaUtilBuffer *buffer, const char *format, ...) {
  if (buffer == nullptr || format == nullptr || buffer->data == nullptr) {
    return DLNA_UTIL_ERR_INVALID_PARAM;
  }
  // First pass into the free part of the block; when the piece does not fit
  // the block grows to hold it and the second pass writes it whole.
  va_list args;
  va_start(args, format);
  va_list secondPass;
  va_copy(secondPass, args);
  const size_t room = buffer->size - buffer->length;
  const int formatted = std::vsnprintf(buffer->data + buffer->length, room, format, args);
  va_end(args);
  int32_t status = 0;
  if (formatted < 0) {
    buffer->data[buffer->length] = '\0';
    status = DLNA_UTIL_ERR_INVALID_PARAM;
  } else if (static_cast<size_t>(formatted) < room) {
    dlnaUtil_commitToBuffer(buffer, static_cast<size_t>(formatted));
  } else {
    buffer->data[buffer->length] = '\0';
    char *tail = dlnaUtil_reserveInBuffer(buffer, static_cast<size_t>(formatted));
    if (tail == nullptr) {
      status = DLNA_UTIL_ERR_NO_MEMORY;
    } else {
      std::vsnprintf(tail, static_cast<size_t>(formatted) + 1, format, secondPass);
      dlnaUtil_commitToBuffer(buffer, static_cast<size_t>(formatted));
    }
  }
  va_end(secondPass);
  return status;
}

#include "util/dlnaUtil_buffer.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "util/dmsErrors.h"
#include "util/osal_trace.h"

// The buffer reports every failure through its return code only; callers
// trace with their own context.
static constexpr char kTraceFile[] = "dlnaUtil_buffer.cpp";

namespace {

constexpr uint32_t kInitialSize = 32768;
constexpr int64_t kGrowthStep = 32768;
constexpr int kScratchSize = 32768;

// Block size that holds `needed` text bytes plus the NUL: one more step when
// that is enough, otherwise exactly what the piece needs, so one oversized
// piece costs a single reallocation.
int64_t grownSize(int64_t needed, int64_t size) {
  return needed <= size + kGrowthStep - 1 ? size + kGrowthStep : needed + 1;
}

// Formats a piece too long for the scratch area into an exact-size heap
// block and appends it.  `formattedLength` is what the first pass reported.
int32_t appendLongPiece(dlnaUtilBuffer *buffer, int formattedLength, const char *format,
                        va_list args) {
  std::vector<char> block;
  try {
    block.resize(static_cast<size_t>(formattedLength) + 1);
  } catch (const std::bad_alloc &) {
    return DLNA_UTIL_ERR_NO_MEMORY;
  }
  std::vsnprintf(block.data(), block.size(), format, args);
  return dlnaUtil_appendToBuffer(buffer, block.data());
}

}  // namespace

int32_t dlnaUtil_allocateBuffer(dlnaUtilBuffer **handleOut) {
  if (handleOut == nullptr || *handleOut != nullptr) return DLNA_UTIL_ERR_INVALID_PARAM;
  std::unique_ptr<dlnaUtilBuffer> record;
  try {
    record = std::make_unique<dlnaUtilBuffer>();
  } catch (const std::bad_alloc &) {
    return DLNA_UTIL_ERR_NO_MEMORY;
  }
  // The block is managed with realloc so that it can grow in place.
  record->data = static_cast<char *>(std::calloc(kInitialSize, 1));
  if (record->data == nullptr) return DLNA_UTIL_ERR_NO_MEMORY;
  record->length = 0;
  record->size = kInitialSize;
  *handleOut = record.release();
  return 0;
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

int32_t dlnaUtil_appendToBuffer(dlnaUtilBuffer *buffer, const char *text) {
  if (buffer == nullptr || text == nullptr || buffer->data == nullptr) {
    return DLNA_UTIL_ERR_INVALID_PARAM;
  }
  const size_t pieceLength = std::strlen(text);
  const int64_t needed = int64_t{buffer->length} + static_cast<int64_t>(pieceLength);
  if (needed >= int64_t{buffer->size}) {
    const int64_t newSize = grownSize(needed, buffer->size);
    // Lengths are compared as signed 32-bit values; a text that would leave
    // that range is treated like any other allocation that cannot be met.
    if (newSize > INT32_MAX) return DLNA_UTIL_ERR_NO_MEMORY;
    void *grown = std::realloc(buffer->data, static_cast<size_t>(newSize));
    // On failure the old block and its text are untouched, and `size` still
    // describes that block.
    if (grown == nullptr) return DLNA_UTIL_ERR_NO_MEMORY;
    buffer->data = static_cast<char *>(grown);
    buffer->size = static_cast<uint32_t>(newSize);
  }
  std::memcpy(buffer->data + buffer->length, text, pieceLength);
  buffer->length = static_cast<uint32_t>(needed);
  buffer->data[buffer->length] = '\0';
  return 0;
}

int32_t dlnaUtil_appendToBufferWithFormat(dlnaUtilBuffer *buffer, const char *format, ...) {
  // Cleared up front: if the formatter fails, whatever it left (if anything)
  // is still a terminated string.
  std::array<char, kScratchSize> scratch{};
  if (buffer == nullptr || format == nullptr) return DLNA_UTIL_ERR_INVALID_PARAM;

  va_list args;
  va_start(args, format);
  va_list secondPass;
  va_copy(secondPass, args);
  const int formattedLength = std::vsnprintf(scratch.data(), scratch.size(), format, args);
  va_end(args);

  int32_t status;
  if (formattedLength < kScratchSize) {
    status = dlnaUtil_appendToBuffer(buffer, scratch.data());
  } else {
    status = appendLongPiece(buffer, formattedLength, format, secondPass);
  }
  va_end(secondPass);
  return status;
}

// The tag texts of a content list, each distinct text once, under a 32-bit
// id: an artist's name is stored once however many tracks carry it, and an
// entry keeps 4 bytes per text instead of a pointer.
//
// Texts are added by the list's one writer, from the threads its walk
// detects files on (the pool's mutex orders them).  Readers turn ids into
// texts without the mutex: an id reaches a reader only inside an entry the
// list's lock published, after the id's text and slot were written, and
// neither ever moves or changes while the pool lives.
#ifndef DMS_CONTENT_DMSCLMTAGPOOL_H
#define DMS_CONTENT_DMSCLMTAGPOOL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

class dmsTagPool {
 public:
  // Longest text kept, in bytes; longer ones are cut at a character boundary.
  static constexpr size_t kMaxText = 1024;

  dmsTagPool() = default;
  dmsTagPool(const dmsTagPool &) = delete;
  dmsTagPool &operator=(const dmsTagPool &) = delete;

  // The id of `text`, added when new; 0 for an empty text, and when the pool
  // holds its most texts (some sixteen million).  May throw std::bad_alloc.
  uint32_t intern(std::string_view text);
  // The text of `id`, NUL-terminated; NULL for 0.  `id` came from intern.
  const char *text(uint32_t id) const;

 private:
  static constexpr uint32_t kBlockBits = 14;
  static constexpr uint32_t kBlockSize = 1u << kBlockBits;
  static constexpr uint32_t kBlocks = 1024;
  static constexpr size_t kChunkSize = 64 * 1024;

  const char *store(std::string_view text);
  void grow();

  std::mutex mutex_;
  // Id -> text, in blocks allocated as needed, so that a slot never moves.
  std::array<std::unique_ptr<const char *[]>, kBlocks> blocks_{};
  uint32_t count_ = 0;  // texts held; ids are 1..count_
  // The texts' bytes, in chunks that never move.
  std::vector<std::unique_ptr<char[]>> chunks_;
  size_t chunkLeft_ = 0;
  char *chunkNext_ = nullptr;
  // Open-addressed set of ids by their text's hash (0: free), for intern.
  std::vector<uint32_t> slots_;
};

#endif  // DMS_CONTENT_DMSCLMTAGPOOL_H

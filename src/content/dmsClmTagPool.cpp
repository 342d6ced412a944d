#include "content/dmsClmTagPool.h"

#include <cstring>
#include <functional>

namespace {

// `text` cut to at most `limit` bytes without splitting a UTF-8 sequence.
std::string_view cutText(std::string_view text, size_t limit) {
  if (text.size() <= limit) return text;
  size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

size_t hashOf(std::string_view text) { return std::hash<std::string_view>{}(text); }

}  // namespace

const char *dmsTagPool::text(uint32_t id) const {
  if (id == 0) return nullptr;
  const uint32_t index = id - 1;
  return blocks_[index >> kBlockBits][index & (kBlockSize - 1)];
}

const char *dmsTagPool::store(std::string_view text) {
  const size_t need = text.size() + 1;
  if (need > chunkLeft_) {
    // A long text gets a chunk of its own, so that the shared chunk's rest
    // is not wasted.
    const size_t size = need > kChunkSize / 4 ? need : kChunkSize;
    chunks_.reserve(chunks_.size() + 1);
    chunks_.push_back(std::make_unique<char[]>(size));
    if (size == need) {
      std::memcpy(chunks_.back().get(), text.data(), text.size());
      return chunks_.back().get();
    }
    chunkNext_ = chunks_.back().get();
    chunkLeft_ = size;
  }
  char *stored = chunkNext_;
  std::memcpy(stored, text.data(), text.size());
  stored[text.size()] = '\0';
  chunkNext_ += need;
  chunkLeft_ -= need;
  return stored;
}

// Doubles the set (kept at most half full) and places every id again.
void dmsTagPool::grow() {
  std::vector<uint32_t> larger(slots_.empty() ? 64 : slots_.size() * 2, 0);
  const size_t mask = larger.size() - 1;
  for (uint32_t id : slots_) {
    if (id == 0) continue;
    size_t at = hashOf(text(id)) & mask;
    while (larger[at] != 0) at = (at + 1) & mask;
    larger[at] = id;
  }
  slots_.swap(larger);
}

uint32_t dmsTagPool::intern(std::string_view raw) {
  const std::string_view text = cutText(raw, kMaxText);
  if (text.empty()) return 0;
  std::lock_guard lock(mutex_);
  if (2 * (static_cast<size_t>(count_) + 1) > slots_.size()) grow();
  const size_t mask = slots_.size() - 1;
  size_t at = hashOf(text) & mask;
  for (; slots_[at] != 0; at = (at + 1) & mask) {
    if (text == this->text(slots_[at])) return slots_[at];
  }
  const uint32_t index = count_;
  if (index >= kBlocks * kBlockSize) return 0;
  std::unique_ptr<const char *[]> &block = blocks_[index >> kBlockBits];
  if (block == nullptr) block = std::make_unique<const char *[]>(kBlockSize);
  block[index & (kBlockSize - 1)] = store(text);
  slots_[at] = ++count_;
  return count_;
}

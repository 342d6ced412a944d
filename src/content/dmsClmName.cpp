#include "content/dmsClmName.h"

#include <cstring>
#include <memory>
#include <new>

// The block of a long name is owned through the bytes that hold its address:
// it is made by a unique_ptr and given back to one in release().

const char *dmsClmName::farText() const noexcept {
  const char *text = nullptr;
  std::memcpy(&text, bytes_, sizeof text);
  return text;
}

size_t dmsClmName::size() const noexcept {
  if (!outside()) return kInside - static_cast<uint8_t>(bytes_[kInside]);
  uint32_t length = 0;
  std::memcpy(&length, bytes_ + 8, sizeof length);
  return length;
}

void dmsClmName::clearInside() noexcept {
  std::memset(bytes_, 0, sizeof bytes_);
  bytes_[kInside] = static_cast<char>(kInside);
}

void dmsClmName::release() noexcept {
  if (outside()) std::unique_ptr<char[]> owned(const_cast<char *>(farText()));
  clearInside();
}

dmsClmName &dmsClmName::operator=(std::string_view text) {
  if (text.size() > UINT32_MAX) throw std::bad_alloc();
  if (text.size() <= kInside) {
    // The text may be a part of this very name: copy it out before clearing.
    char copy[kInside];
    std::memcpy(copy, text.data(), text.size());
    release();
    std::memcpy(bytes_, copy, text.size());
    bytes_[kInside] = static_cast<char>(kInside - text.size());
    return *this;
  }
  auto block = std::make_unique_for_overwrite<char[]>(text.size() + 1);
  std::memcpy(block.get(), text.data(), text.size());
  block[text.size()] = '\0';
  release();
  const char *address = block.release();
  const uint32_t length = static_cast<uint32_t>(text.size());
  std::memcpy(bytes_, &address, sizeof address);
  std::memcpy(bytes_ + 8, &length, sizeof length);
  bytes_[kInside] = static_cast<char>(kOutside);
  return *this;
}

// The name an entry keeps: a text in 16 bytes, where a std::string takes 32.
//
// Names of up to 15 bytes are kept inside; longer ones in a block of their
// own of exactly their length plus the NUL.  A large library holds one per
// file and folder, so the 16 bytes saved per entry are a sixth of an
// item's record.  The text may hold any byte but NUL.
//
// Not thread-safe: guarded as the entry that holds it.
#ifndef DMS_CONTENT_DMSCLMNAME_H
#define DMS_CONTENT_DMSCLMNAME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class dmsClmName {
 public:
  dmsClmName() noexcept { clearInside(); }
  ~dmsClmName() { release(); }
  dmsClmName(const dmsClmName &) = delete;
  dmsClmName &operator=(const dmsClmName &) = delete;

  // Takes `text` in place of the name.  May throw std::bad_alloc (the name
  // is then unchanged).
  dmsClmName &operator=(std::string_view text);

  std::string_view view() const noexcept { return {c_str(), size()}; }
  operator std::string_view() const noexcept { return view(); }
  std::string str() const { return std::string(view()); }
  const char *c_str() const noexcept { return outside() ? farText() : bytes_; }
  size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }

  friend bool operator==(const dmsClmName &name, std::string_view text) noexcept { return name.view() == text; }

 private:
  static constexpr size_t kInside = 15;
  // bytes_[15]: 15 minus the length for a name kept inside (so that a name
  // of 15 bytes ends with this NUL), kOutside for one kept in its block,
  // whose address and length are then bytes_[0..8) and bytes_[8..12).
  static constexpr uint8_t kOutside = 0xff;

  bool outside() const noexcept { return static_cast<uint8_t>(bytes_[kInside]) == kOutside; }
  const char *farText() const noexcept;
  void clearInside() noexcept;
  void release() noexcept;

  alignas(8) char bytes_[16];
};

static_assert(sizeof(dmsClmName) == 16);

#endif  // DMS_CONTENT_DMSCLMNAME_H

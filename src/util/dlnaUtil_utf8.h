// UTF-8 decoding shared by the XML text writer and the case fold, so that
// both agree on which bytes are a character.
#ifndef DMS_UTIL_DLNAUTIL_UTF8_H
#define DMS_UTIL_DLNAUTIL_UTF8_H

#include <cstddef>

// The length (2 to 4) of the well-formed multi-byte UTF-8 sequence that
// starts `text` (with `available` bytes readable) and its code point in
// `point`; 0 when the bytes there are not one: an ASCII byte, a stray
// continuation byte, an overlong form, a surrogate, a value past U+10FFFF or
// a sequence cut short.
inline size_t dlnaUtil_utf8Decode(const unsigned char *text, size_t available, char32_t &point) {
  if (available == 0) return 0;
  const unsigned lead = text[0];
  size_t length;
  char32_t lowest;
  if (lead >= 0xC2 && lead <= 0xDF) { length = 2; lowest = 0x80; point = lead & 0x1F; }
  else if (lead >= 0xE0 && lead <= 0xEF) { length = 3; lowest = 0x800; point = lead & 0x0F; }
  else if (lead >= 0xF0 && lead <= 0xF4) { length = 4; lowest = 0x10000; point = lead & 0x07; }
  else return 0;
  if (available < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xC0) != 0x80) return 0;
    point = point << 6 | (text[i] & 0x3F);
  }
  if (point < lowest || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return 0;
  return length;
}

#endif  // DMS_UTIL_DLNAUTIL_UTF8_H

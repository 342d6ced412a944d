#include "util/dlnaUtil_xmlText.h"

#include <cstdint>
#include <cstring>

#include "util/dlnaUtil_utf8.h"

namespace {

// Length of the well-formed UTF-8 sequence at `text` (2 to 4 bytes) that
// encodes a character XML allows, 0 when the bytes are not one, and -1 for a
// well-formed sequence of a character XML forbids (U+FFFE, U+FFFF).
int sequenceLength(const unsigned char *text, size_t available) {
  char32_t value = 0;
  const size_t length = dlnaUtil_utf8Decode(text, available, value);
  if (length == 0) return 0;
  return value == 0xFFFE || value == 0xFFFF ? -1 : static_cast<int>(length);
}

// What one ASCII byte becomes: its entity, "" when XML forbids it, or
// nullptr when it is copied as it is.
const char *asciiReplacement(unsigned char byte) {
  switch (byte) {
    case '&': return "&amp;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    case '"': return "&quot;";
    case '\'': return "&apos;";
    case '\t': case '\n': case '\r': return nullptr;
    default: return byte < 0x20 || byte == 0x7F ? "" : nullptr;
  }
}

// 0x7F is allowed by XML but invisible; it is dropped with the C0 controls.
bool isPlainAscii(unsigned char byte) {
  return byte >= 0x20 && byte < 0x7F && byte != '&' && byte != '<' && byte != '>' &&
         byte != '"' && byte != '\'';
}

}  // namespace

size_t dlnaUtil_xmlEscapeInto(std::string_view text, char *out) {
  const auto *bytes = reinterpret_cast<const unsigned char *>(text.data());
  const size_t size = text.size();
  char *cursor = out;
  size_t i = 0;
  while (i < size) {
    // Runs of ordinary characters are the common case: copy them at once.
    size_t run = i;
    while (run < size && isPlainAscii(bytes[run])) ++run;
    std::memcpy(cursor, bytes + i, run - i);
    cursor += run - i;
    if ((i = run) == size) break;
    const unsigned char byte = bytes[i];
    if (byte < 0x80) {
      const char *replacement = asciiReplacement(byte);
      const size_t length = replacement == nullptr ? 1 : std::strlen(replacement);
      std::memcpy(cursor, replacement == nullptr ? reinterpret_cast<const char *>(bytes + i) : replacement,
                  length);
      cursor += length;
      ++i;
      continue;
    }
    const int length = sequenceLength(bytes + i, size - i);
    if (length > 0) {
      std::memcpy(cursor, bytes + i, static_cast<size_t>(length));
      cursor += length;
      i += static_cast<size_t>(length);
    } else if (length < 0) {
      i += 3;  // U+FFFE and U+FFFF are three bytes long
    } else if (byte < 0xA0) {
      std::memcpy(cursor, "\xEF\xBF\xBD", 3);  // U+FFFD
      cursor += 3;
      ++i;
    } else {
      *cursor++ = static_cast<char>(0xC0 | byte >> 6);  // the Latin-1 character
      *cursor++ = static_cast<char>(0x80 | (byte & 0x3F));
      ++i;
    }
  }
  return static_cast<size_t>(cursor - out);
}

std::string dlnaUtil_xmlEscaped(std::string_view text) {
  std::string escaped(text.size() * kXmlTextMaxGrowth, '\0');
  escaped.resize(dlnaUtil_xmlEscapeInto(text, escaped.data()));
  return escaped;
}

#include "util/dlnaUtil_fold.h"

#include <locale.h>
#include <wctype.h>

#include <cstdint>

#include "util/dlnaUtil_utf8.h"

namespace {

// The locale whose case table folds: loaded once, kept for the process.
locale_t foldLocale() {
  static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  return locale;
}

void encode(char32_t point, std::string &out) {
  if (point < 0x80) {
    out.push_back(static_cast<char>(point));
  } else if (point < 0x800) {
    out.push_back(static_cast<char>(0xC0 | point >> 6));
    out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
  } else if (point < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | point >> 12));
    out.push_back(static_cast<char>(0x80 | (point >> 6 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | point >> 18));
    out.push_back(static_cast<char>(0x80 | (point >> 12 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (point >> 6 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
  }
}

constexpr char32_t kSharpS = 0xDF;
constexpr char32_t kCapitalSharpS = 0x1E9E;
constexpr char32_t kFinalSigma = 0x3C2;
constexpr char32_t kSigma = 0x3C3;

}  // namespace

void dlnaUtil_foldCase(std::string_view text, std::string &out) {
  const locale_t locale = foldLocale();
  for (size_t at = 0; at < text.size();) {
    const char byte = text[at];
    if (byte >= 'A' && byte <= 'Z') {
      out.push_back(static_cast<char>(byte - 'A' + 'a'));
      ++at;
      continue;
    }
    char32_t point = 0;
    const size_t length = dlnaUtil_utf8Decode(reinterpret_cast<const unsigned char *>(text.data()) + at,
                                              text.size() - at, point);
    if (length == 0) {  // ASCII other than capitals, or a byte that starts no character
      out.push_back(byte);
      ++at;
      continue;
    }
    at += length;
    if (locale != static_cast<locale_t>(nullptr)) {
      point = static_cast<char32_t>(towlower_l(static_cast<wint_t>(point), locale));
    }
    if (point == kSharpS || point == kCapitalSharpS) {
      out.append("ss");
    } else {
      encode(point == kFinalSigma ? kSigma : point, out);
    }
  }
}

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

int dlnaUtil_compareNatural(std::string_view x, std::string_view y) {
  size_t i = 0, j = 0;
  while (i < x.size() && j < y.size()) {
    if (isDigit(x[i]) && isDigit(y[j])) {
      while (i < x.size() && x[i] == '0') ++i;
      while (j < y.size() && y[j] == '0') ++j;
      size_t endX = i, endY = j;
      while (endX < x.size() && isDigit(x[endX])) ++endX;
      while (endY < y.size() && isDigit(y[endY])) ++endY;
      if (endX - i != endY - j) return endX - i < endY - j ? -1 : 1;
      const int digits = x.substr(i, endX - i).compare(y.substr(j, endY - j));
      if (digits != 0) return digits;
      i = endX;
      j = endY;
      continue;
    }
    if (x[i] != y[j]) return static_cast<unsigned char>(x[i]) < static_cast<unsigned char>(y[j]) ? -1 : 1;
    ++i;
    ++j;
  }
  return (x.size() - i > 0) - (y.size() - j > 0);
}

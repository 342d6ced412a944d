#include "playlist/dmsPlaylistRead.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "util/dlnaUtil_utf8.h"

namespace {

char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isAlpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool equalsIgnoringCase(std::string_view text, std::string_view lower) {
  if (text.size() != lower.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (lowerAscii(text[i]) != lower[i]) return false;
  }
  return true;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\v\f";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Calls `visit` with each line of `text`, its ending (LF, CRLF or CR) left
// out; `visit` returns false to stop early.
template <typename Visit>
void eachLine(std::string_view text, Visit &&visit) {
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = std::min(text.find_first_of("\r\n", start), text.size());
    if (!visit(text.substr(start, end - start))) return;
    start = end + 1;
    if (end + 1 < text.size() && text[end] == '\r' && text[end + 1] == '\n') ++start;
  }
}

// ---- text encoding ---------------------------------------------------------

bool validUtf8(std::string_view text) {
  const auto *bytes = reinterpret_cast<const unsigned char *>(text.data());
  size_t i = 0;
  while (i < text.size()) {
    if (bytes[i] < 0x80) { ++i; continue; }
    char32_t point = 0;
    const size_t length = dlnaUtil_utf8Decode(bytes + i, text.size() - i, point);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

// Every byte of Latin-1 is the code point of the same value.
std::string latin1ToUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size() * 2);
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      out.push_back(c);
    } else {
      out.push_back(static_cast<char>(0xC0 | byte >> 6));
      out.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
    }
  }
  return out;
}

// The text as UTF-8, the byte order mark dropped: `text` itself, or a
// conversion kept in `storage`.  .m3u8 is UTF-8 whatever its bytes; the older
// formats were written in Latin-1 as often as in UTF-8, and valid UTF-8 is
// unlikely to be Latin-1 text by chance.
std::string_view asUtf8(std::string_view text, dmsPlaylistFormat format, std::string &storage) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.substr(0, kByteOrderMark.size()) == kByteOrderMark) text.remove_prefix(kByteOrderMark.size());
  if (format == dmsPlaylistFormat::kM3u8 || validUtf8(text)) return text;
  storage = latin1ToUtf8(text);
  return storage;
}

// ---- entries ---------------------------------------------------------------

// The playlist's folder, normalised once and split at its components, so
// that a relative entry's ".." steps back through it without the folder
// being walked again for every entry.
struct Base {
  std::string path;          // "" for the root, else "/a/b" (no trailing slash)
  std::vector<size_t> ends;  // ends[i]: the length of the prefix of `path` with i components
};

// One entry being resolved: its bytes (decoded) and the components kept so
// far; kept between entries so that their storage is reused.
struct Scratch {
  std::string bytes;
  std::vector<std::string_view> components;
  size_t length = 0;  // of "/" + component for each component kept
};

// Walks the components of `path` (after the base's first `depth`
// components): "." and empty ones dropped, ".." removing the last one kept or,
// when none is, stepping `depth` back (never below the root).
void walk(std::string_view path, Scratch &scratch, size_t &depth) {
  size_t start = 0;
  while (start <= path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string_view component = path.substr(start, end - start);
    start = end + 1;
    if (component.empty() || component == ".") continue;
    if (component != "..") {
      scratch.components.push_back(component);
      scratch.length += 1 + component.size();
    } else if (!scratch.components.empty()) {
      scratch.length -= 1 + scratch.components.back().size();
      scratch.components.pop_back();
    } else if (depth > 0) {
      --depth;
    }
  }
}

Base baseOf(std::string_view folder) {
  Scratch scratch;
  size_t depth = 0;
  walk(folder, scratch, depth);
  Base base;
  base.ends.push_back(0);
  for (const std::string_view component : scratch.components) {
    base.path.append("/").append(component);
    base.ends.push_back(base.path.size());
  }
  return base;
}

// Whether `text` starts with a URL scheme and "://"; its scheme in `scheme`.
bool isUrl(std::string_view text, std::string_view &scheme) {
  if (text.empty() || !isAlpha(text[0])) return false;
  size_t i = 1;
  while (i < text.size() && (isAlpha(text[i]) || isDigit(text[i]) || text[i] == '+' || text[i] == '.' ||
                             text[i] == '-')) {
    ++i;
  }
  if (text.substr(i, 3) != "://") return false;
  scheme = text.substr(0, i);
  return true;
}

int hexValue(char c) {
  if (isDigit(c)) return c - '0';
  const char lower = lowerAscii(c);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The local path a file URL names, percent-escapes decoded, into `out`;
// false for another host or no path.  A '%' not followed by two hex digits
// is kept as it is.
bool fileUrlPath(std::string_view url, std::string &out) {
  url.remove_prefix(std::string_view("file://").size());
  const size_t slash = url.find('/');
  if (slash == std::string_view::npos) return false;
  const std::string_view host = url.substr(0, slash);
  if (!host.empty() && !equalsIgnoringCase(host, "localhost")) return false;
  const std::string_view path = url.substr(slash);
  out.clear();
  for (size_t i = 0; i < path.size(); ++i) {
    const int high = path[i] == '%' && i + 2 < path.size() ? hexValue(path[i + 1]) : -1;
    const int low = high >= 0 ? hexValue(path[i + 2]) : -1;
    if (low < 0) {
      out.push_back(path[i]);
      continue;
    }
    out.push_back(static_cast<char>(high << 4 | low));
    i += 2;
  }
  return true;
}

// A drive letter at the start of a path: "C:", "C:/..." (slashes already
// turned).
bool hasDriveLetter(std::string_view path) {
  return path.size() >= 2 && isAlpha(path[0]) && path[1] == ':' && (path.size() == 2 || path[2] == '/');
}

// The bytes of the local path `entry` names into `scratch.bytes`; false when
// it names none this server can read: another scheme, another host, a
// drive letter, a network share.
bool localPath(std::string_view entry, Scratch &scratch) {
  std::string_view scheme;
  if (isUrl(entry, scheme)) {
    if (!equalsIgnoringCase(scheme, "file") || !fileUrlPath(entry, scratch.bytes)) return false;
    // file:///C:/... is a drive letter too.
    return !hasDriveLetter(std::string_view(scratch.bytes).substr(1));
  }
  if (entry.substr(0, 2) == "\\\\") return false;
  scratch.bytes.assign(entry);
  std::replace(scratch.bytes.begin(), scratch.bytes.end(), '\\', '/');
  // "http:\\host\..." is a URL once its backslashes are turned.
  return !hasDriveLetter(scratch.bytes) && !isUrl(scratch.bytes, scheme);
}

// Resolves one entry (trimmed) against `base` into `out`; false when it is
// skipped.  The resolved length is known before anything is copied, so an
// over-long entry costs no more than its own length.
bool resolve(std::string_view entry, const Base &base, Scratch &scratch, std::string &out) {
  if (entry.empty() || entry.find('\0') != std::string_view::npos) return false;
  if (!localPath(entry, scratch) || scratch.bytes.find('\0') != std::string::npos) return false;
  scratch.components.clear();
  scratch.length = 0;
  size_t depth = scratch.bytes[0] == '/' ? 0 : base.ends.size() - 1;
  walk(scratch.bytes, scratch, depth);
  const size_t length = std::max<size_t>(base.ends[depth] + scratch.length, 1);
  if (length > DMS_PLAYLIST_MAX_PATH) return false;
  out.assign(base.path, 0, base.ends[depth]);
  for (const std::string_view component : scratch.components) out.append("/").append(component);
  if (out.empty()) out = "/";
  return true;
}

// Gathers resolved entries up to the limit.
class Collector {
 public:
  explicit Collector(std::string_view folder) : base_(baseOf(folder)) {}
  // False once the limit is reached: nothing more is wanted.
  bool add(std::string_view entry) {
    std::string path;
    if (resolve(trimmed(entry), base_, scratch_, path)) paths_.push_back(std::move(path));
    return paths_.size() < DMS_PLAYLIST_MAX_ENTRIES;
  }
  std::vector<std::string> take() { return std::move(paths_); }

 private:
  Base base_;
  Scratch scratch_;
  std::vector<std::string> paths_;
};

// ---- formats ---------------------------------------------------------------

void parseM3u(std::string_view text, Collector &collector) {
  eachLine(text, [&collector](std::string_view line) {
    line = trimmed(line);
    return line.empty() || line[0] == '#' || collector.add(line);
  });
}

// A PLS "FileN" entry: N as written without its leading zeros, so that
// numbers of any length compare exactly (shorter first, then by digits).
struct PlsEntry {
  std::string_view number;
  std::string_view value;
};

bool numberBefore(const PlsEntry &a, const PlsEntry &b) {
  if (a.number.size() != b.number.size()) return a.number.size() < b.number.size();
  return a.number < b.number;
}

// The "FileN" entry of a key and value; false for any other key, or N not a
// positive decimal number.
bool plsEntry(std::string_view key, std::string_view value, PlsEntry &entry) {
  if (key.size() < 5 || !equalsIgnoringCase(key.substr(0, 4), "file")) return false;
  std::string_view number = key.substr(4);
  if (!std::all_of(number.begin(), number.end(), isDigit)) return false;
  number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
  if (number.empty()) return false;  // zero
  entry = {number, value};
  return true;
}

void parsePls(std::string_view text, Collector &collector) {
  std::vector<PlsEntry> entries;
  bool inPlaylist = false;
  eachLine(text, [&](std::string_view line) {
    line = trimmed(line);
    if (!line.empty() && line.front() == '[' && line.back() == ']' && line.size() >= 2) {
      inPlaylist = equalsIgnoringCase(trimmed(line.substr(1, line.size() - 2)), "playlist");
      return true;
    }
    const size_t equals = line.find('=');
    PlsEntry entry;
    if (inPlaylist && equals != std::string_view::npos &&
        plsEntry(trimmed(line.substr(0, equals)), line.substr(equals + 1), entry)) {
      entries.push_back(entry);
    }
    return true;
  });
  std::stable_sort(entries.begin(), entries.end(), numberBefore);
  for (const PlsEntry &entry : entries) {
    if (!collector.add(entry.value)) return;
  }
}

// ---- files -----------------------------------------------------------------

// Reads up to DMS_PLAYLIST_MAX_BYTES + 1 bytes of the open file, the extra
// byte telling a file at the limit from a longer one.
bool readBounded(int fd, std::string &text) {
  char chunk[64 * 1024];
  while (text.size() <= DMS_PLAYLIST_MAX_BYTES) {
    const ssize_t got = ::read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    text.append(chunk, std::min(static_cast<size_t>(got), DMS_PLAYLIST_MAX_BYTES + 1 - text.size()));
  }
  if (text.size() > DMS_PLAYLIST_MAX_BYTES) {
    // Cut at the last line ending within the limit: a part of a line could
    // name another file than the whole one.
    const size_t lastEnd = std::string_view(text).substr(0, DMS_PLAYLIST_MAX_BYTES).find_last_of("\r\n");
    text.resize(lastEnd == std::string::npos ? 0 : lastEnd + 1);
  }
  return true;
}

bool readText(const std::string &path, std::string &text) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return false;
  struct stat status {};
  const bool done = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && readBounded(fd, text);
  ::close(fd);
  return done;
}

// The folder holding `path`, made absolute against the working folder.
std::string folderOf(const std::string &path) {
  std::string absolute = path;
  if (path.empty() || path[0] != '/') {
    char working[DMS_PLAYLIST_MAX_PATH + 1];
    absolute = (::getcwd(working, sizeof working) != nullptr ? std::string(working) : std::string()) + "/" + path;
  }
  return absolute.substr(0, absolute.rfind('/'));
}

}  // namespace

bool dmsPlaylistFormatOf(std::string_view fileName, dmsPlaylistFormat &format) {
  const size_t dot = fileName.rfind('.');
  if (dot == std::string_view::npos) return false;
  const std::string_view extension = fileName.substr(dot + 1);
  if (equalsIgnoringCase(extension, "m3u")) format = dmsPlaylistFormat::kM3u;
  else if (equalsIgnoringCase(extension, "m3u8")) format = dmsPlaylistFormat::kM3u8;
  else if (equalsIgnoringCase(extension, "pls")) format = dmsPlaylistFormat::kPls;
  else return false;
  return true;
}

std::vector<std::string> dmsPlaylistParse(std::string_view text, dmsPlaylistFormat format, std::string_view folder) {
  std::string storage;
  const std::string_view utf8 = asUtf8(text, format, storage);
  Collector collector(folder);
  if (format == dmsPlaylistFormat::kPls) parsePls(utf8, collector);
  else parseM3u(utf8, collector);
  return collector.take();
}

bool dmsPlaylistReadFile(const std::string &path, dmsPlaylistFormat format, std::vector<std::string> &entries) {
  try {
    std::string text;
    if (!readText(path, text)) return false;
    entries = dmsPlaylistParse(text, format, folderOf(path));
    return true;
  } catch (...) {
    // Only allocation can fail here; the caller sees an unreadable file.
    return false;
  }
}

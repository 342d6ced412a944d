// Where pictures are served: the URL forms of dmsArt.h, read in every
// build (one without pictures answers them all with 404).
#include <cstring>
#include <limits>

#include "art/dmsArt.h"

namespace {

struct UrlForm {
  const char *suffix;
  dmsArtKind kind;
};
constexpr UrlForm kUrlForms[] = {
    {".tn.jpg", dmsArtKind::kThumbnail},
    {".sm.jpg", dmsArtKind::kSmall},
    {".art.jpg", dmsArtKind::kAlbum},
};

}  // namespace

bool dmsArtParseUrl(const char *path, uint32_t *id, dmsArtKind *kind) {
  constexpr char kPrefix[] = "/web/";
  if (path == nullptr || id == nullptr || kind == nullptr || std::strncmp(path, kPrefix, sizeof kPrefix - 1) != 0) {
    return false;
  }
  const char *cursor = path + sizeof kPrefix - 1;
  uint64_t value = 0;
  const char *digits = cursor;
  for (; *cursor >= '0' && *cursor <= '9'; ++cursor) {
    value = value * 10 + static_cast<uint64_t>(*cursor - '0');
    if (value > std::numeric_limits<uint32_t>::max()) return false;
  }
  if (cursor == digits) return false;
  for (const UrlForm &form : kUrlForms) {
    const size_t length = std::strlen(form.suffix);
    if (std::strncmp(cursor, form.suffix, length) == 0 && (cursor[length] == '\0' || cursor[length] == '?')) {
      *id = static_cast<uint32_t>(value);
      *kind = form.kind;
      return true;
    }
  }
  return false;
}

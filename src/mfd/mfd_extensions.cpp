// The extension of a media URL: the file's own when the format table lists
// it for the detected format, the format's usual one for a file whose own
// name has none that fits (no extension, a dotted name like "Mr. Brightside",
// or a misleading one).
#include <strings.h>

#include <string_view>

#include "mfd/mfd_api.h"
#include "mfd/mfd_formats.h"

namespace {

constexpr size_t kMaxExtensionLength = 5;

bool isShortAlphanumeric(std::string_view text) {
  if (text.empty() || text.size() > kMaxExtensionLength) return false;
  for (char c : text) {
    const bool alphanumeric = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alphanumeric) return false;
  }
  return true;
}

// True when `extension` is one of the space-separated words of `list`, in
// any case.
bool listHolds(std::string_view list, std::string_view extension) {
  while (!list.empty()) {
    const size_t space = list.find(' ');
    const std::string_view word = list.substr(0, space);
    if (word.size() == extension.size() && strncasecmp(word.data(), extension.data(), word.size()) == 0) {
      return true;
    }
    list = space == std::string_view::npos ? std::string_view() : list.substr(space + 1);
  }
  return false;
}

}  // namespace

bool mfd_addedFormatsUse(std::string_view extension) {
  for (uint32_t id = MFD_FORMAT_END + 1; id < MFD_FORMAT_COUNT; ++id) {
    const mfdFormatRow *row = mfd_formatRow(id);
    if (row != nullptr && listHolds(row->extensions, extension)) return true;
  }
  return false;
}

std::string_view mfd_resourceExtension(uint32_t formatId, std::string_view fileExtension) {
  const mfdFormatRow *row = mfd_formatRow(formatId);
  if (row == nullptr) return {};
  const std::string_view extensions(row->extensions);
  if (isShortAlphanumeric(fileExtension) && listHolds(extensions, fileExtension)) return fileExtension;
  return extensions.substr(0, extensions.find(' '));
}

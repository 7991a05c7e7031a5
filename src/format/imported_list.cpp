// What a reader takes of a list of imported files.
#include "format/imported_list.h"

#include <cstring>

namespace qvdbase::format::imported {

Version versionOf(const unsigned char* head) {
  if (std::memcmp(head, kMark.data(), kMark.size()) != 0) return Version::none;
  const uint8_t version = head[kVersion];
  return version >= kFirstVersion && version <= kNewestVersion ? Version::known : Version::unknown;
}

bool areSoundFields(std::string_view fields) {
  if (fields.size() > kLongestFields) return false;
  for (size_t at = 0; at < fields.size();) {
    ++at;  // what it is
    uint64_t length = 0;
    for (int shift = 0;; shift += 7) {
      if (at == fields.size() || shift > 28) return false;
      const auto byte = static_cast<uint8_t>(fields[at++]);
      length |= uint64_t{byte & 0x7Fu} << shift;
      if (byte < 0x80) break;
    }
    if (length > fields.size() - at) return false;
    at += static_cast<size_t>(length);
  }
  return true;
}

bool isSafeName(std::string_view name) {
  if (name.empty() || name.find('\0') != std::string_view::npos) return false;
  for (size_t from = 0; from <= name.size();) {
    const size_t end = std::min(name.find('/', from), name.size());
    const std::string_view part = name.substr(from, end - from);
    if (part.empty() || part == "." || part == "..") return false;
    from = end + 1;
  }
  return true;
}

bool isSound(Kind kind, std::string_view name, std::string_view target) {
  const bool isKnown =
      kind == Kind::file || kind == Kind::folder || kind == Kind::link || kind == Kind::removed;
  if (!isKnown || !isSafeName(name)) return false;
  if (name.size() > kLongestName || target.size() > kLongestName) return false;
  if (kind == Kind::link && target.empty()) return false;
  return target.find('\0') == std::string_view::npos;
}

}  // namespace qvdbase::format::imported

// One entry of the list of imported files.
#include "archive/imported_entry.h"

#include <algorithm>
#include <span>

using namespace qvdbase::format;

namespace qvdb::tool {
namespace {

template <typename Unsigned>
void putNumber(std::byte* to, Unsigned value) {
  storeBigEndian(reinterpret_cast<unsigned char*>(to), value);
}

void appendCount(size_t value, std::vector<std::byte>* to) {
  while (value >= 0x80) {
    to->push_back(static_cast<std::byte>((value & 0x7F) | 0x80));
    value >>= 7;
  }
  to->push_back(static_cast<std::byte>(value));
}

void appendText(std::string_view text, std::vector<std::byte>* to) {
  appendCount(text.size(), to);
  const auto bytes = std::as_bytes(std::span(text));
  to->insert(to->end(), bytes.begin(), bytes.end());
}

}  // namespace

bool isSound(const ImportedFile& file) {
  return imported::isSound(file.kind, file.name, file.target) &&
         imported::areSoundFields(file.fields);
}

void appendEntry(uint8_t version, const ImportedFile& file, std::string_view before,
                 std::vector<std::byte>* to) {
  const auto differs =
      std::mismatch(before.begin(), before.end(), file.name.begin(), file.name.end());
  const auto shared = static_cast<size_t>(differs.first - before.begin());
  const size_t start = to->size();
  to->resize(start + imported::entry::fixedSize(version));
  rewriteEntry(version, file, to->data() + start);
  appendCount(shared, to);
  appendText(std::string_view(file.name).substr(shared), to);
  appendText(file.target, to);
  if (version != imported::kFirstVersion) appendText(file.fields, to);
}

void rewriteEntry(uint8_t version, const ImportedFile& file, std::byte* to) {
  putNumber(to + imported::entry::kKind, static_cast<uint8_t>(file.kind));
  putNumber(to + imported::entry::kMode, uint16_t{file.mode});
  putNumber(to + imported::entry::kSeconds, static_cast<uint64_t>(file.seconds));
  putNumber(to + imported::entry::kNanoseconds, uint32_t{file.nanoseconds});
  putNumber(to + imported::entry::kRecord, uint64_t{file.record.value});
  if (version == imported::kFirstVersion) return;
  putNumber(to + imported::entry::kSince, static_cast<uint64_t>(file.since));
  putNumber(to + imported::entry::kUntil, static_cast<uint64_t>(file.until));
}

std::vector<std::byte> encodeHead(const imported::Head& head) {
  const auto mark = std::as_bytes(std::span(imported::kMark));
  std::vector<std::byte> bytes(mark.begin(), mark.end());
  bytes.push_back(std::byte{head.version});
  bytes.resize(imported::headSize(head.version));
  if (head.version == imported::kFirstVersion) return bytes;
  putNumber(bytes.data() + imported::kKnownSince, static_cast<uint64_t>(head.knownSince));
  const auto key = std::as_bytes(std::span(head.key));
  std::copy(key.begin(), key.end(), bytes.begin() + imported::kKey);
  return bytes;
}

std::vector<std::byte> encodeList(const imported::Head& head,
                                  const std::vector<ImportedFile>& files) {
  std::vector<std::byte> list = encodeHead(head);
  std::string_view before;
  for (const ImportedFile& file : files) {
    appendEntry(head.version, file, before, &list);
    before = file.name;
  }
  return list;
}

ImportedFile fileOf(const imported::Entry& entry) {
  const bool isTime = entry.nanoseconds < imported::kNanosecondsEnd;
  return {entry.kind,       entry.mode,  entry.seconds, isTime ? entry.nanoseconds : 0,
          Id{entry.record}, entry.name,  entry.target,  entry.since,
          entry.until,      entry.fields};
}

}  // namespace qvdb::tool

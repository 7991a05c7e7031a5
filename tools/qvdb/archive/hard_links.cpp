// Makes files of an export names of one file again.
#include "archive/hard_links.h"

#include <algorithm>
#include <span>
#include <vector>

#include "archive/entry_fields.h"
#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

constexpr size_t kPiece = 256 * 1024;

std::string groupOf(const ImportedFile& file) {
  std::string group(firstNameIn(file.fields));
  return group.empty() ? file.name : group;
}

size_t readFully(const PieceReader& reader, uint64_t offset, std::vector<std::byte>* buffer) {
  size_t got = 0;
  while (got < buffer->size()) {
    const size_t more = reader(offset + got, std::span(*buffer).subspan(got));
    if (more == 0) break;
    got += more;
  }
  return got;
}

bool haveSameContents(const PieceReader& one, const PieceReader& other) {
  std::vector<std::byte> here(kPiece);
  std::vector<std::byte> there(kPiece);
  for (uint64_t offset = 0;; offset += kPiece) {
    throwIfInterrupted();
    const auto got = static_cast<ptrdiff_t>(readFully(one, offset, &here));
    const auto gotThere = static_cast<ptrdiff_t>(readFully(other, offset, &there));
    if (!std::equal(here.begin(), here.begin() + got, there.begin(), there.begin() + gotThere)) {
      return false;
    }
    if (static_cast<size_t>(got) < kPiece) return true;
  }
}

// But for the name, and whether it was the first of them.
bool haveSameProperties(const ImportedFile& one, const ImportedFile& other) {
  return one.mode == other.mode && one.seconds == other.seconds &&
         one.nanoseconds == other.nanoseconds &&
         withoutFirstName(one.fields) == withoutFirstName(other.fields);
}

}  // namespace

void HardLinks::note(const ImportedFile& file) {
  if (!wanted_ || file.kind != FileKind::file) return;
  const std::string_view first = firstNameIn(file.fields);
  if (!first.empty()) groups_.emplace(first);
}

bool HardLinks::link(const ImportedFile& file, const Contents& contents) {
  if (!wanted_) return false;
  const auto first = written_.find(groupOf(file));
  if (first == written_.end() || !haveSameProperties(first->second.file, file) ||
      !haveSameContents(contents(), first->second.contents())) {
    return false;
  }
  return writer_.makeHardLink(file, first->second.file, first->second.identity);
}

void HardLinks::noteWritten(const ImportedFile& file, const FileIdentity& identity,
                            const Contents& contents) {
  if (!wanted_) return;
  std::string group = groupOf(file);
  if (groups_.contains(group)) {
    written_.try_emplace(std::move(group), Written{file, identity, contents});
  }
}

}  // namespace qvdb::tool

// Payloads that were given back to the file system.
#include <algorithm>
#include <array>

#include "format/trim_mark.h"
#include "recovery/survey/survey.h"

namespace qvdbase::survey {
namespace {

namespace trimmed = format::trimmed;

bool hasMark(const ByteSource& source, const Block& block) {
  std::array<unsigned char, trimmed::kMarkSize> bytes = {};
  return source.readAll(block.dataPos(), bytes.data(), bytes.size()) &&
         std::ranges::equal(bytes, trimmed::kMark);
}

}  // namespace

// Only a block that no chain leads to can be one: what is in use is a payload, whatever it holds.
void findTrimmed(const ByteSource& source, Survey* survey) {
  for (Block& block : survey->blocks) {
    if (block.isReached() || block.isCut()) continue;
    const trimmed::Pages pages = trimmed::pagesOf(block.dataPos(), int64_t{block.capacity});
    block.isTrimmed = pages.begin < pages.end && hasMark(source, block);
  }
}

}  // namespace qvdbase::survey

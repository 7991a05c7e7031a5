// Holes where payloads should be: F3.
//
// A block is written whole, its spare capacity with fill. So the library did not leave a hole in
// it: a copying program made it of zeros, or the system lost what was written there, as happens on
// file systems that store the size of a file before its contents.
#include <algorithm>

#include "recovery/check/parts.h"

using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

void report(const Survey& survey, const Block& block, int64_t from, int64_t to,
            Findings* findings) {
  const char* const whose =
      block.kind == BlockKind::record ? "the record at " : "the table data at ";
  findings->warning("F3", inBlock(survey.slotAt(block.slot), block, from - block.position),
                    "From here, ", counted(static_cast<uint64_t>(to - from), "byte"), " of ", whose,
                    block.position, " are a hole in the file and read as zeros.");
}

}  // namespace

// Blocks and holes both in the order of the file.
void checkHoles(const ByteSource& source, const Survey& survey, Findings* findings) {
  std::optional<platform::FileHole> hole = source.nextHole(survey.blocksStart);
  if (!hole) return;
  for (const uint32_t number : blocksInFileOrder(survey)) {
    const Block& block = survey.blocks[number];
    if (block.label != Label::live) continue;
    const int64_t begin = block.dataPos();
    const int64_t end = begin + block.dataThere();
    if (hole->end <= begin) hole = source.nextHole(begin);
    if (!hole) return;
    if (hole->begin >= end) continue;
    report(survey, block, std::max(hole->begin, begin), std::min(hole->end, end), findings);
  }
}

}  // namespace qvdbase::check

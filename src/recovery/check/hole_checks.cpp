// Holes where payloads should be: F3.
//
// A block is written whole, its spare capacity with fill. So a hole in it was not left by the
// library: a copying program made it of zeros, or the system lost what was written there, as file
// systems do that put down the size of a file before its contents.
#include <algorithm>

#include "recovery/check/parts.h"

using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

class HoleCheck {
 public:
  HoleCheck(const ByteSource& source, const Survey& survey, Findings* findings)
      : source_(source), survey_(survey), findings_(*findings) {}

  // Blocks and holes both in the order of the file.
  void run() {
    std::optional<platform::FileHole> hole = source_.nextHole(survey_.blocksStart);
    if (!hole) return;
    for (const uint32_t number : blocksInFileOrder(survey_)) {
      const Block& block = survey_.blocks[number];
      if (block.label != Label::live) continue;
      const int64_t end = block.dataPos() + block.dataThere();
      if (hole->end <= block.dataPos()) hole = source_.nextHole(block.dataPos());
      if (!hole) return;
      if (hole->begin < end) report(block, *hole, end);
    }
  }

 private:
  void report(const Block& block, const platform::FileHole& hole, int64_t end) {
    const int64_t from = std::max(hole.begin, block.dataPos());
    const auto bytes = static_cast<uint64_t>(std::min(hole.end, end) - from);
    const char* const whose =
        block.kind == BlockKind::record ? "the record at " : "the table data at ";
    findings_.warning(
        "F3", {.slot = survey_.slotAt(block.slot), .record = block.recordID, .offset = from},
        "From here, " + counted(bytes, "byte") + " of " + whose + std::to_string(block.position) +
            " are a hole in the file and read as zeros.");
  }

  const ByteSource& source_;
  const Survey& survey_;
  Findings& findings_;
};

}  // namespace

void checkHoles(const ByteSource& source, const Survey& survey, Findings* findings) {
  HoleCheck(source, survey, findings).run();
}

}  // namespace qvdbase::check

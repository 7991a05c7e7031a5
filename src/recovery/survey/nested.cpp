// Blocks that are parts of payloads.
//
// A payload may hold a database, or a piece of one, or what an older and longer payload has left
// after a shorter one. It may be an older copy of this very database, whose blocks name tables and
// even records of this one. What distinguishes them is where they are, and their links, which count
// from where their own database begins. The first rule that applies decides:
//
//   - A block that its neighbour in this file names belongs to this file, wherever it is: it is
//     anchored (block_fit).
//   - A block inside a whole block is part of its payload (whole_blocks).
//   - Where the block that held a database is not whole, the stored directory and the links show
//     what belongs to that database (loose_databases).
//
// So a block of this file can be taken for a nested one only if no block of this file names it, and
// something before it explains it.
#include <algorithm>

#include "recovery/survey/block_fit.h"
#include "recovery/survey/candidates.h"
#include "recovery/survey/loose_databases.h"
#include "recovery/survey/whole_blocks.h"

namespace qvdbase::survey {

void judgeNested(const Survey& survey, const std::vector<Range>& places, CandidateReader* reader,
                 std::vector<Candidate>* candidates) {
  const BlockFit blocks(survey, *candidates);
  for (Candidate& each : *candidates) each.isAnchored = blocks.fit(each.block, 0) == Fit::linked;
  const WholeBlocks wholes(*candidates);
  LooseDatabases loose(survey, *candidates, blocks);
  for (const auto& [begin, end] : places) {
    if (wholes.hold(begin)) continue;
    loose.enter({begin, std::min(end, wholes.nextAnchored(begin))}, reader);
  }
  int64_t end = 0;  // of the stretches that begin before the block
  auto stretch = loose.stretches().begin();
  for (Candidate& each : *candidates) {
    const Block& block = each.block;
    for (; stretch != loose.stretches().end() && stretch->begin < block.position; ++stretch) {
      end = std::max(end, stretch->end);
    }
    if (each.isAnchored || block.isReached()) continue;
    each.isNested = wholes.hold(block.position) || block.position < end || loose.explain(block);
  }
}

}  // namespace qvdbase::survey

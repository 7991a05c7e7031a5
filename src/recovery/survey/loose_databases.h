// Databases in payloads that no whole block holds any more, and the candidates that are theirs.
//
//   - The chains of the stored directory lead to blocks of that database. All that is before the
//     end of the last of them belongs to it too, and so does what follows without a gap: a database
//     is one stretch of bytes. The stretch ends where a block begins that is surely this file's, or
//     whose links fit better here.
//   - After the beginning of such a database, a block of one of its tables is part of it if this
//     file has the same block at the same distance from its own beginning, or if its links fit
//     better there than here; and if its table is unknown here, also if they fit neither.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "recovery/survey/block_fit.h"
#include "recovery/survey/candidates.h"

namespace qvdbase::survey {

class LooseDatabases {
 public:
  // All must outlive the object. It is known already which candidates are anchored.
  LooseDatabases(const Survey& survey, const std::vector<Candidate>& candidates,
                 const BlockFit& blocks);

  // What begins at `place.begin`, if it is a stored database, and cannot reach beyond `place.end`.
  // To be called in file order.
  void enter(const Range& place, CandidateReader* reader);

  // The stretches of these databases, in the order of their beginnings.
  const std::vector<Range>& stretches() const { return stretches_; }

  // Whether the nearest of these databases before the block explains it.
  bool explain(const Block& block) const;

 private:
  // Where blocks of a stored table may be.
  struct Part {
    int64_t origin;
    int64_t limit;
    uint64_t table;
  };

  uint64_t tableOf(const Block& block) const { return survey_.owners[block.owner].number; }
  const Block* holderOf(int64_t origin) const;
  bool canOnlyBeStored(const std::vector<tablePart1>& tables) const;
  void lengthen(int64_t origin, int64_t end, int64_t limit);
  int64_t endOf(const std::vector<tablePart1>& tables, int64_t origin, int64_t limit);
  int64_t follow(const Part& part, int64_t position, int64_t Block::*onward, int64_t Block::*back);
  uint32_t find(const Part& part, int64_t position, BlockKind kind) const;

  const Survey& survey_;
  const std::vector<Candidate>& candidates_;
  const BlockFit& blocks_;
  std::set<uint64_t> anchoredTables_;
  std::vector<bool> isWalked_;  // of each candidate: a chain has led to it
  std::vector<Range> stretches_;
  int64_t stretchesEnd_ = 0;                       // of the furthest
  std::map<uint64_t, std::vector<Range>> places_;  // where they may be, by their tables
};

}  // namespace qvdbase::survey

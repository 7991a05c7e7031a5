// Candidates: places in the file where the bytes look like a block.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "recovery/survey/survey.h"

namespace qvdbase::survey {

struct ScanHits {
  std::vector<int64_t> marks;    // of block marks with the header size after them
  std::vector<int64_t> headers;  // where a database header may begin
};

// Searches the range in pieces and passes on the hits of each, if there are any: marks in
// ascending order, and none twice. What cannot be read is passed over; returns where that first
// happened, or -1.
int64_t findHits(const ByteSource& source, const Range& range,
                 const std::function<void(const ScanHits&)>& found);

// Reads candidates, all through one window: ask in ascending order.
class CandidateReader {
 public:
  CandidateReader(const ByteSource& source, Survey* survey) : window_(source), survey_(*survey) {}

  // The block at `position` if enough of it is right, with its grade; it must lie below `limit`.
  std::optional<Block> read(int64_t position, int64_t limit);

  // The slots of the tables of a database that begins there. Their positions count from there.
  std::optional<std::vector<tablePart1>> readNested(int64_t origin);

  int64_t unreadableAt() const { return window_.unreadableAt(); }

 private:
  bool findOwner(const unsigned char* tableID, Block* block, int* errors);
  void judgeExtent(int64_t limit, Block* block, int* errors);

  Window window_;
  Survey& survey_;
};

// One of those that compete for the bytes of the gaps.
struct Candidate {
  Block block;
  bool isAnchored = false;  // a neighbour in this file names it
  bool isNested = false;    // it is part of a payload
};

// Judges which candidates, in file order, are parts of payloads (nested.cpp). Of each place, also
// in file order, `begin` is where a database seems to begin, and `end` what it cannot reach beyond.
void judgeNested(const Survey& survey, const std::vector<Range>& places, CandidateReader* reader,
                 std::vector<Candidate>* candidates);

}  // namespace qvdbase::survey

// One forward walk along a table's chain of records, which knows where and how the chain is
// damaged.
#pragma once

#include <cstdint>

#include "QVDbase/loop_detector.h"
#include "format/big_endian.h"
#include "format/block_heads.h"
#include "format/layout.h"

namespace qvdb::detail {

// Reads the header of a record of this table in one view, or, where there is none, field by field.
// False when there is no such header at the position.
bool readHead(int16_t db, int64_t position, const unsigned char* tableID, recordPart1* header);

class ChainWalker {
 public:
  ChainWalker() = default;
  explicit ChainWalker(const tablePart1& slot) : slot_(slot), nextPos_(slot.firstRecordPos) {}

  enum class Step { record, end, damaged };

  // Where the next record's block is, as far as there is one.
  int64_t nextPosition() const { return nextPos_; }

  // Whether as many records have been passed as the table counts.
  bool isAtCount() const { return number_ == slot_.recordCount; }

  // Reads the next record's header. The caller holds a SavedPosition. After `damaged`, number() and
  // damage() say where and what is wrong.
  Step next(int16_t db, recordPart1* header, int64_t* recordPos);

  // The same for a caller who has the bytes at nextPosition() already.
  Step pass(const unsigned char* head) {
    const Step step = arrive();
    if (step != Step::record) return step;
    if (!qvdbase::format::isRecordOf(head, slot_.tableID)) return damaged(kNoRecord);
    nextPos_ = static_cast<int64_t>(
        qvdbase::format::loadBigEndian<uint64_t>(head + qvdbase::format::record::kNextRecordPos));
    return Step::record;
  }

  // Continues after the record at a position, the `number`th. To be used when the chain has changed
  // during the walk: it then ends where the chain ends, and the count that it began with is only
  // its limit. False when no header can be read there.
  bool resumeAfter(int16_t db, int64_t recordPos, uint32_t number);

  // The same, but the record at the position comes next; at the end of the chain it is 0.
  void resumeAt(int64_t recordPos, uint32_t number) {
    nextPos_ = recordPos;
    number_ = number;
    hasChanged_ = true;
    damage_ = nullptr;
    loop_ = qvdbase::engine::LoopDetector();
  }

  // The record that the last step was about, counted from 1.
  uint32_t number() const { return number_; }
  uint32_t count() const { return slot_.recordCount; }
  bool isDamaged() const { return damage_ != nullptr; }
  const char* damage() const { return damage_; }

 private:
  static constexpr const char* kNoRecord =
      "the chain leads to a place where there is no record of this table";

  // Begins a step: whether a record should be at nextPosition().
  Step arrive() {
    if (isAtCount() || (nextPos_ == 0 && hasChanged_)) return Step::end;
    ++number_;
    if (nextPos_ == 0) return damaged("the chain ends before it");
    if (loop_.visited(nextPos_)) return damaged("the chain leads back to an earlier record");
    return Step::record;
  }

  Step damaged(const char* how) {
    damage_ = how;
    return Step::damaged;
  }

  tablePart1 slot_ = {};
  int64_t nextPos_ = 0;
  uint32_t number_ = 0;
  bool hasChanged_ = false;
  qvdbase::engine::LoopDetector loop_;
  const char* damage_ = nullptr;
};

}  // namespace qvdb::detail

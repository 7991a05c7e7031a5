// One walk along a table's chain of records, in either direction, which knows where and how the
// chain is damaged.
#pragma once

#include <qvdbase/qvdb/record.hpp>

#include <cstdint>
#include <optional>

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
  explicit ChainWalker(const tablePart1& slot, Order order = Order::oldest_first)
      : slot_(slot), isForward_(order == Order::oldest_first) {
    nextPos_ = isForward_ ? slot.firstRecordPos : slot.lastRecordPos;
  }

  enum class Step { record, end, damaged };

  // Where the next record's block is, as far as there is one.
  int64_t nextPosition() const { return nextPos_; }

  // Where the record is that was passed last, or 0.
  int64_t passedPosition() const { return passedPos_; }

  bool isForward() const { return isForward_; }

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
    using namespace qvdbase::format;
    const int64_t link = isForward_ ? record::kNextRecordPos : record::kPrevRecordPos;
    goOnTo(static_cast<int64_t>(loadBigEndian<uint64_t>(head + link)));
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

  // Begins in the middle of the chain, with the record at `recordPos`, if that is not 0, after the
  // one at `passedPos`, if that is known. How many records there are before it and after it is not:
  // the table's count is only the limit of the walk.
  void beginAt(int64_t recordPos, int64_t passedPos) {
    nextPos_ = recordPos;
    passedPos_ = passedPos;
    isPart_ = true;
  }

  // Where a record leads to in the direction of the walk.
  int64_t linkOf(const recordPart1& header) const {
    return isForward_ ? header.nextRecordPos : header.prevRecordPos;
  }

  // Whether a walk that began in the middle has ended at a record that its slot does not name as
  // the end of the chain.
  bool endsElsewhere() const {
    const int64_t end = isForward_ ? slot_.lastRecordPos : slot_.firstRecordPos;
    return isPart_ && !hasChanged_ && !isAtCount() && passedPos_ != 0 && passedPos_ != end;
  }

  // Makes that damage.
  void foundCutOff() {
    ++number_;
    damage_ = "the chain ends before it";
  }

  // Whether the last step found the end of the chain where the slot counts further records.
  bool endedEarly() const { return damage_ != nullptr && nextPos_ == 0; }

  // Takes the last step back, which found damage, so that it can be made again.
  void stepBack() {
    if (damage_ == nullptr) return;
    damage_ = nullptr;
    --number_;
    loop_ = qvdbase::engine::LoopDetector();
  }

  // Makes the place where the chain has ended early its end.
  void endHere() {
    stepBack();
    hasChanged_ = true;
  }

  const tablePart1& slot() const { return slot_; }

  // The records that the walk has come to, the one of the last step included.
  uint32_t number() const { return number_; }

  // The record that the last step was about, or the `step`th, counted from the oldest as 1; nothing
  // where the walk did not begin at an end of the chain.
  std::optional<uint32_t> recordNumber() const { return recordNumberOf(number_); }
  std::optional<uint32_t> recordNumberOf(uint32_t step) const {
    if (isPart_) return std::nullopt;
    return isForward_ ? step : slot_.recordCount - step + 1;
  }

  uint32_t count() const { return slot_.recordCount; }
  bool isDamaged() const { return damage_ != nullptr; }
  const char* damage() const { return damage_; }

 private:
  static constexpr const char* kNoRecord =
      "the chain leads to a place where there is no record of this table";

  // Begins a step: whether a record should be at nextPosition().
  Step arrive() {
    if (isAtCount() || (nextPos_ == 0 && (hasChanged_ || isPart_))) return Step::end;
    ++number_;
    if (nextPos_ == 0) {
      return damaged(isForward_ ? "the chain ends before it" : "the chain begins after it");
    }
    if (loop_.visited(nextPos_)) return damaged("the chain leads back to an earlier record");
    return Step::record;
  }

  void goOnTo(int64_t recordPos) {
    passedPos_ = nextPos_;
    nextPos_ = recordPos;
  }

  Step damaged(const char* how) {
    damage_ = how;
    return Step::damaged;
  }

  tablePart1 slot_ = {};
  // Apart from passedPos_: a step waits for it, and would wait longer for a store of both at once.
  int64_t nextPos_ = 0;
  uint32_t number_ = 0;
  bool isForward_ = true;
  bool isPart_ = false;
  bool hasChanged_ = false;
  int64_t passedPos_ = 0;
  qvdbase::engine::LoopDetector loop_;
  const char* damage_ = nullptr;
};

}  // namespace qvdb::detail

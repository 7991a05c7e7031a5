#include "recovery/mend/chain_completion.h"

#include <algorithm>

#include "format/Aliment8.h"
#include "recovery/survey/words.h"

using namespace qvdbase::survey;

namespace qvdbase::mend {
namespace {

using Chain = std::vector<uint32_t>;

class Completer {
 public:
  Completer(const Survey& survey, const Table& table)
      : survey_(survey),
        slot_(survey.slotOf(table).fields),
        forward_(table.forward.blocks),
        back_(table.backward.blocks.rbegin(), table.backward.blocks.rend()),
        backIsWhole_(table.backward.isComplete()),
        table_(table) {}

  Completion run() {
    result_.slot = slot_;
    result_.chain = forward_;
    decide();
    for (const uint32_t number : result_.chain) {
      if (block(number).flaws == 0) continue;
      refuse(joined("the record at ", positionOf(number), " is damaged"));
    }
    if (result_.refusal.empty()) noteBackLinks();
    return std::move(result_);
  }

 private:
  const Block& block(uint32_t number) const { return survey_.blocks[number]; }
  int64_t positionOf(uint32_t number) const { return block(number).position; }
  size_t count() const { return slot_.recordCount; }

  void refuse(const std::string& why) {
    if (result_.refusal.empty()) result_.refusal = aboutTable(slot_) + why;
  }
  template <typename... Parts>
  void step(Parts... parts) {
    result_.steps.push_back(joined(aboutTable(slot_), std::move(parts)...));
  }

  bool forwardEndsAtLast() const {
    return !forward_.empty() && positionOf(forward_.back()) == slot_.lastRecordPos;
  }
  // Whether the walk from the back reaches as many records as are counted, and ends.
  bool backIsFull() const { return backIsWhole_ && back_.size() == count(); }
  bool backBeginsAtFirst() const { return positionOf(back_.front()) == slot_.firstRecordPos; }

  void decide() {
    if (count() == 0) {
      if (slot_.firstRecordPos != 0 || slot_.lastRecordPos != 0) {
        refuse("it counts no records, but has positions of some");
      }
    } else if (!table_.forward.isComplete() || forward_.empty()) {
      restoreForward();
    } else if (forward_.size() > count()) {
      countLinked();
    } else if (forward_.size() < count()) {
      finishDeletion();
    } else {
      keepForward();
    }
  }

  // ---- the walk from the front breaks

  void restoreForward() {
    const bool isLastLink = forward_.size() == count() && forwardEndsAtLast();
    if (isLastLink && backIsWhole_ && back_ == forward_) {
      return step("the link of the last record, which leads nowhere, is cleared");
    }
    const bool canRestore = backIsFull() &&
                            std::ranges::mismatch(forward_, back_).in1 == forward_.end() &&
                            (forward_.empty() || backBeginsAtFirst());
    if (!canRestore)
      return refuse("the chain breaks, and the walk from the back is not complete either");
    if (forward_.empty()) {
      step("the position of the first record is restored");
    } else {
      step("the link of the record at ", positionOf(forward_.back()), " is restored");
    }
    result_.chain = back_;
  }

  void countChain() { step("the number of records becomes ", forward_.size()); }

  // ---- more records than the slot counts

  void countLinked() {
    if (forwardEndsAtLast()) return countChain();
    bool isAppend = positionOf(forward_[count() - 1]) == slot_.lastRecordPos;
    for (size_t i = count(); i < forward_.size(); ++i) {
      isAppend = isAppend && block(forward_[i]).prev == positionOf(forward_[i - 1]);
    }
    if (!isAppend) {
      return refuse("the chain continues after its last record, but not as an append leaves it");
    }
    const auto added = static_cast<uint32_t>(forward_.size() - count());
    result_.slot.recordWriteCount += added;
    step(counted(added, "record that was linked but not counted is counted",
                 "records that were linked but not counted are counted"));
    result_.slot.lastWrittenRecordPos = positionOf(forward_.back());
  }

  // ---- fewer records than the slot counts

  void finishDeletion() {
    if (backIsWhole_ && back_ == forward_ && forwardEndsAtLast()) return countChain();
    // A deletion has relinked the chain around the record from the front, but not from the back.
    const bool isBegun = backIsFull() && backBeginsAtFirst() && forward_.size() + 1 == count();
    if (!isBegun) return refuse("the chain ends before the number of records is reached");
    const auto differ = std::mismatch(forward_.begin(), forward_.end(), back_.begin());
    if (!std::equal(differ.first, forward_.end(), differ.second + 1, back_.end())) {
      return refuse("the walks from both ends lead to different records");
    }
    const bool isLast = differ.first == forward_.end();
    finish(*differ.second, isLast ? forward_.back() : *differ.first);
  }

  // A neighbour of the record becomes the last written one.
  void finish(uint32_t number, uint32_t neighbour) {
    result_.gone.push_back(number);
    step("the deletion of the record at ", positionOf(number), " is finished");
    result_.slot.lastWrittenRecordPos = positionOf(neighbour);
  }

  // ---- as many records as the slot counts

  void keepForward() {
    const bool firstIsLeft = backIsWhole_ && forward_.size() > 1 && forwardEndsAtLast() &&
                             block(forward_[1]).prev == 0 &&
                             back_ == Chain(forward_.begin() + 1, forward_.end());
    if (firstIsLeft) {
      result_.chain = back_;
      return finish(forward_.front(), back_.front());
    }
    for (const uint32_t number : back_) {
      const Block& each = block(number);
      if ((each.reach & kForward) || each.label == Label::superseded) continue;
      return refuse("from the back the chain leads to other records than from the front");
    }
    if (!forwardEndsAtLast()) step("the position of the last record is set");
  }

  void noteBackLinks() {
    int64_t predecessor = 0;
    for (const uint32_t number : result_.chain) {
      if (block(number).prev != predecessor) {
        step("the back link of the record at ", positionOf(number),
             " is pointed at its predecessor");
      }
      predecessor = positionOf(number);
    }
  }

  const Survey& survey_;
  const tablePart1& slot_;
  const Chain& forward_;
  const Chain back_;  // the walk from the back, in the order of the chain
  const bool backIsWhole_;
  const Table& table_;
  Completion result_;
};

}  // namespace

std::string aboutTable(const tablePart1& slot) {
  return "table '" + format::storedName(slot) + "': ";
}

Completion completeChain(const Survey& survey, const Table& table) {
  return Completer(survey, table).run();
}

}  // namespace qvdbase::mend

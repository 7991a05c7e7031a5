// The records of "QVrz_Category", as far as a pack with new identifiers will have to understand
// them: C1 to C4.
#include <algorithm>

#include "format/Aliment8.h"
#include "format/block_heads.h"
#include "format/category.h"
#include "recovery/check/parts.h"
#include "recovery/check/payload_cursor.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

class CategoryCheck {
 public:
  explicit CategoryCheck(Check& check) : check_(check), window_(check.source) {}

  void run() {
    const Table* categories = tableNamed(kCategoryTable);
    const Table* records = tableNamed(kRecordTable);
    const Table* info = tableNamed(kInfoTable);
    if (categories == nullptr) {
      if (records != nullptr || info != nullptr) {
        check_.warning("C4", {}, "There is no table 'QVrz_Category' beside the other two.");
      }
      return;
    }
    slot_ = &check_.survey.slotOf(*categories);
    if (records == nullptr || info == nullptr) {
      check_.warning("C4", {.slot = slot_}, "There is no table '",
                     records == nullptr ? kRecordTable : kInfoTable, "' beside the categories.");
    }
    if (records != nullptr) {
      const std::vector<uint32_t>& blocks = records->forward.blocks;
      known_ = sortedRecords(check_.survey, blocks);
      if (!blocks.empty()) last_ = check_.survey.blocks[blocks.back()].recordID;
      hasRecords_ = true;
    }
    for (const uint32_t number : categories->forward.blocks) {
      const Block& category = check_.survey.blocks[number];
      if (category.length <= category::kCategoryName) continue;  // not decoded at all
      const char* const wrong = problemOf(category);
      if (wrong == nullptr) continue;
      check_.error("C1", about(category, category.dataPos()), "The category at ", category.position,
                   wrong);
    }
  }

 private:
  const Table* tableNamed(const char* name) const {
    for (const Table& table : check_.survey.tables) {
      const Slot& slot = check_.survey.slotOf(table);
      if (slot.counted && storedName(slot.fields) == name) return &table;
    }
    return nullptr;
  }

  // What makes the record one that cannot be decoded; null if nothing does.
  const char* problemOf(const Block& block) {
    constexpr const char* kTooShort = " is shorter than its counts say.";
    PayloadCursor cursor(window_, block);
    cursor.skip(category::kFirstIDCount);
    for (int list = 0; list < 2; ++list) {
      const uint8_t* const number = cursor.take(sizeof(int32_t));
      if (number == nullptr) return kTooShort;
      const auto count = static_cast<int32_t>(loadBigEndian<uint32_t>(number));
      if (count < 0) return " has a negative count of entries.";
      if (int64_t{count} * kIdentitySize > cursor.left()) return kTooShort;
      if (list == 1 && hasRecords_) checkEntries(block, cursor, count);
      cursor.skip(int64_t{count} * kIdentitySize);
    }
    const uint8_t* const length = cursor.take(sizeof(uint32_t));
    const bool isWhole = length != nullptr && loadBigEndian<uint32_t>(length) <= cursor.left();
    return isWhole ? nullptr : kTooShort;
  }

  void checkEntries(const Block& block, PayloadCursor cursor, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
      const About entry = about(block, cursor.position());
      const uint8_t* bytes = cursor.take(kIdentitySize);
      if (bytes == nullptr) return;
      const uint64_t id = loadBigEndian<uint64_t>(bytes);
      if (!std::ranges::binary_search(known_, id)) {
        check_.error("C2", entry, "The category at ", block.position, " names the record ",
                     shownId(id), ", which does not exist.");
      } else if (id == last_) {
        check_.warning("C3", entry, "The category at ", block.position,
                       " names the last record of 'QVrz_Record', ", shownId(id),
                       ", which a pack with new identifiers does not find.");
      }
    }
  }

  About about(const Block& block, int64_t position) const {
    return {.slot = slot_, .record = block.recordID, .offset = position};
  }

  Check& check_;
  Window window_;
  const Slot* slot_ = nullptr;
  std::vector<uint64_t> known_;
  uint64_t last_ = 0;
  bool hasRecords_ = false;
};

}  // namespace

void checkCategories(Check& check) {
  CategoryCheck(check).run();
}

}  // namespace qvdbase::check

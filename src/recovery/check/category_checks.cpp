// The records of "QVrz_Category", as far as a pack with new identifiers will have to understand
// them: C1 to C4.
#include <algorithm>
#include <map>

#include "format/Aliment8.h"
#include "format/block_heads.h"
#include "format/category.h"
#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

const Table* tableNamed(const Survey& survey, const char* name) {
  for (const Table& table : survey.tables) {
    const Slot& slot = survey.slotOf(table);
    if (slot.counted && format::storedName(slot.fields) == name) return &table;
  }
  return nullptr;
}

class CategoryCheck {
 public:
  CategoryCheck(const ByteSource& source, const Survey& survey, Findings* findings)
      : window_(source), survey_(survey), findings_(*findings) {}

  void run() {
    const Table* categories = tableNamed(survey_, kCategoryTable);
    const Table* records = tableNamed(survey_, kRecordTable);
    const Table* info = tableNamed(survey_, kInfoTable);
    if (categories == nullptr) {
      if (records != nullptr || info != nullptr) {
        findings_.warning("C4", {}, "There is no table 'QVrz_Category' beside the other two.");
      }
      return;
    }
    slot_ = &survey_.slotOf(*categories);
    if (records == nullptr || info == nullptr) {
      findings_.warning("C4", {.slot = slot_}, "There is no table '",
                        records == nullptr ? kRecordTable : kInfoTable, "' beside the categories.");
    }
    if (records != nullptr) {
      const std::vector<uint32_t>& blocks = records->forward.blocks;
      known_ = sortedRecords(survey_, blocks);
      if (!blocks.empty()) last_ = survey_.blocks[blocks.back()].recordID;
      hasRecords_ = true;
    }
    for (const uint32_t number : categories->forward.blocks) check(survey_.blocks[number]);
  }

 private:
  void check(const Block& block) {
    if (block.length <= category::kCategoryName) return;  // not decoded at all
    const int64_t end = block.dataPos() + block.dataThere();
    int64_t place = block.dataPos() + category::kFirstIDCount;
    uint32_t number = 0;
    for (int list = 0; list < 2; ++list) {
      if (!read(&place, end, &number)) return tooShort(block);
      const auto count = static_cast<int32_t>(number);
      if (count < 0) return reportCounts(block, " has a negative count of entries.");
      if (int64_t{count} * kIdentitySize > end - place) return tooShort(block);
      if (list == 1) checkEntries(block, place, count);
      place += int64_t{count} * kIdentitySize;
    }
    if (!read(&place, end, &number) || int64_t{number} > end - place) tooShort(block);
  }

  bool read(int64_t* place, int64_t end, uint32_t* value) {
    if (*place > end - int64_t{sizeof *value}) return false;
    const uint8_t* bytes = window_.at(*place, sizeof *value);
    if (bytes == nullptr) return false;
    *value = loadBigEndian<uint32_t>(bytes);
    *place += int64_t{sizeof *value};
    return true;
  }

  void checkEntries(const Block& block, int64_t place, int32_t count) {
    if (!hasRecords_) return;
    for (int32_t i = 0; i < count; ++i, place += kIdentitySize) {
      const uint8_t* bytes = window_.at(place, kIdentitySize);
      if (bytes == nullptr) return;
      const uint64_t id = loadBigEndian<uint64_t>(bytes);
      const About entry = about(block, place);
      if (!std::binary_search(known_.begin(), known_.end(), id)) {
        findings_.error("C2", entry, "The category at ", block.position, " names the record ",
                        shownId(id), ", which does not exist.");
      } else if (id == last_) {
        findings_.warning("C3", entry, "The category at ", block.position,
                          " names the last record of 'QVrz_Record', ", shownId(id),
                          ", which a pack with new identifiers does not find.");
      }
    }
  }

  void tooShort(const Block& block) { reportCounts(block, " is shorter than its counts say."); }

  void reportCounts(const Block& block, const char* what) {
    findings_.error("C1", about(block, block.dataPos()), "The category at ", block.position, what);
  }

  About about(const Block& block, int64_t position) const {
    return {.slot = slot_, .record = block.recordID, .offset = position};
  }

  Window window_;
  const Survey& survey_;
  Findings& findings_;
  const Slot* slot_ = nullptr;
  std::vector<uint64_t> known_;
  uint64_t last_ = 0;
  bool hasRecords_ = false;
};

}  // namespace

void checkCategories(const ByteSource& source, const Survey& survey, Findings* findings) {
  CategoryCheck(source, survey, findings).run();
}

}  // namespace qvdbase::check

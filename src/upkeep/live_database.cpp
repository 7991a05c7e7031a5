#include "upkeep/live_database.h"

#include <utility>

#include "format/Aliment8.h"
#include "recovery/survey/packed_data.h"
#include "recovery/survey/words.h"

using namespace qvdb;
using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::upkeep {
namespace {

using Damage = std::optional<LiveDamage>;

// What is wrong with the record that a walk could not reach.
const char* problemAfter(const Walk& walk, int64_t size) {
  const bool isCutOff = walk.stoppedAt > size - record::kData;
  switch (walk.end) {
    case WalkEnd::complete:
      return "is missing: the chain ends before it";
    case WalkEnd::loop:
      return "does not point back to the one before it";
    case WalkEnd::notRecord:
      return isCutOff ? "cannot be read" : "is not where its chain leads";
    case WalkEnd::otherTable:
      return "is not where its chain leads";
    default:
      return "cannot be read";
  }
}

// What is wrong with a record that follows the one at `previous`; null if nothing is.
const char* problemOf(const Block& block, int64_t previous) {
  if (block.prev != previous) return "does not point back to the one before it";
  if (block.has(kLengthAboveCapacity)) return "claims more bytes than its capacity";
  return block.has(kBeyondEnd) ? "reaches beyond the end of the file" : nullptr;
}

Damage takeChain(const Survey& survey, const Walk& walk, const std::function<void()>& step,
                 LiveTable* table) {
  const tablePart1& slot = table->slot;
  const auto damaged = [&](uint64_t number, const char* how) {
    const std::string why = joined("record ", number, " of table '", table->name, "' ", how);
    return LiveDamage{Reason::chain_damaged, why, number};
  };
  int64_t previous = 0;
  int64_t next = slot.firstRecordPos;
  for (uint32_t i = 0; i < slot.recordCount; ++i) {
    step();
    if (i == walk.blocks.size()) return damaged(uint64_t{i} + 1, problemAfter(walk, survey.size));
    const Block& block = survey.blocks[walk.blocks[i]];
    if (const char* const problem = problemOf(block, previous))
      return damaged(uint64_t{i} + 1, problem);
    previous = block.position;
    next = block.next;
  }
  if (next != 0) return damaged(uint64_t{slot.recordCount} + 1, "is in the chain, but not counted");
  if (slot.lastRecordPos != previous) {
    return LiveDamage{
        Reason::chain_damaged,
        "the last record of table '" + table->name + "' is not where the directory says",
        {}};
  }
  std::vector<LiveBlock> records;
  records.reserve(slot.recordCount);
  for (uint32_t i = 0; i < slot.recordCount; ++i) {
    records.push_back(LiveBlock::of(survey.blocks[walk.blocks[i]]));
  }
  table->setRecords(std::move(records));
  return std::nullopt;
}

Damage takeData(const Survey& survey, const Table& found, LiveTable* table) {
  if (found.dataState == DataState::none) return std::nullopt;
  const uint32_t data = dataOf(survey, found);
  if (data != kNoBlock && !survey.blocks[data].has(kLengthAboveCapacity | kBeyondEnd)) {
    table->data = LiveBlock::of(survey.blocks[data]);
    return std::nullopt;
  }
  return LiveDamage{Reason::data_damaged, "the data of table '" + table->name + "' is damaged", {}};
}

}  // namespace

void LiveTable::setRecords(std::vector<LiveBlock> chain) {
  records = std::move(chain);
  if (records.empty()) return;
  records.front().isFirst = true;
  records.back().isLast = true;
}

uint64_t LiveDatabase::recordCount() const {
  uint64_t count = 0;
  for (const LiveTable& table : tables) count += table.records.size();
  return count;
}

Damage takeDirectory(const ByteSource& source, const Survey& survey, LiveDatabase* database) {
  const auto damaged = [](const std::string& why) {
    return LiveDamage{Reason::directory_damaged, why, {}};
  };
  if (!survey.headerThere || !source.readAll(0, database->header.data(), database->header.size())) {
    return damaged("the file is cut off in its header");
  }
  const int16_t tableCount = survey.header.tableCount;
  database->slotCount = static_cast<int16_t>(survey.header.slotCount);
  if (survey.header.slotSize != kSlotImageSize || tableCount < 0 ||
      tableCount > database->slotCount) {
    return damaged("the numbers of its directory are damaged");
  }
  if (database->blocksStart() > survey.size) {
    return damaged("the file is cut off in its directory");
  }
  for (int i = 0; i < tableCount; ++i) {
    const Table* const found = survey.tableOfSlot(i);
    if (found == nullptr || !survey.slotOf(*found).holdsTable()) {
      return damaged(joined("entry ", i + 1, " of its table directory is damaged"));
    }
    LiveTable& table = database->tables.emplace_back();
    table.slot = survey.slotOf(*found).fields;
    table.name = storedName(table.slot);
  }
  return std::nullopt;
}

Damage takeLive(const ByteSource& source, const Survey& survey, const std::function<void()>& step,
                LiveDatabase* database) {
  if (auto damage = takeDirectory(source, survey, database)) return damage;
  for (size_t i = 0; i < database->tables.size(); ++i) {
    const Table& found = *survey.tableOfSlot(static_cast<int>(i));
    LiveTable* const table = &database->tables[i];
    if (auto damage = takeChain(survey, found.forward, step, table)) return damage;
    if (auto damage = takeData(survey, found, table)) return damage;
  }
  return std::nullopt;
}

}  // namespace qvdbase::upkeep

// The slots, one by one and beside each other: D1 to D5 and D10. The numbers and positions of each:
// D6 to D9 and R16.
#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <span>

#include "format/Aliment8.h"
#include "format/identifiers.h"
#include "format/intent.h"
#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

void checkMarks(Check& check, const Slot& slot) {
  if (slot.holdsTable()) return;
  const char* missing = slot.hasEndMark() ? "its first mark is missing"
                        : slot.hasMark()  ? "its end mark is missing"
                                          : "both of its marks are missing";
  const int hidden = check.survey.header.tableCount - slot.index - 1;
  std::string after;
  if (hidden > 0) after = joined(" It hides the ", counted(hidden, "table"), " after it.");
  check.error("D1", inSlot(slot), "Slot ", slot.index, " should hold a table, but ", missing, ".",
              after);
}

void checkUncounted(Check& check, const Slot& slot) {
  std::string text =
      joined("Slot ", slot.index, " is beyond the number of tables, but is marked as a table");
  if (!slot.holdsTable()) text += slot.isTable() ? " in part" : " with one of its marks";
  const std::string name = storedName(slot.fields);
  if (!name.empty()) text += " named " + shown(name);
  const Table* const table = check.survey.tableOfSlot(slot.index);
  const auto isOfTable = [&](const Block& block) { return block.owner == table->owner; };
  if (table != nullptr && std::ranges::any_of(check.survey.blocks, isOfTable)) {
    return check.error("D2", inSlot(slot), text, "; there are blocks of it in the file.");
  }
  check.warning("D2", inSlot(slot), text, "; there are no blocks of it.");
}

bool hasPendingStart(std::span<const unsigned char> image) {
  const auto start = image.subspan(slot::kFirstRecordPos + pending::kStart, 8);
  return std::any_of(start.begin(), start.end(), [](unsigned char byte) { return byte != 0; });
}

void checkFreeSlot(Check& check, const Slot& slot) {
  std::array<unsigned char, kSlotImageSize> expected;
  encodeSlot({}, expected.data());
  auto image = slot.image;
  // The pending word of transactions is judged by itself.
  if (slot.position + slot::kFirstRecordPos == pending::kPosition && hasPendingStart(image)) {
    std::fill_n(image.begin() + slot::kFirstRecordPos, pending::kSize,
                static_cast<unsigned char>(0));
  }
  if (image == expected) return;

  // One of the packs writes the slot as it lies in memory.
  std::array<unsigned char, kSlotImageSize> raw = {};
  tablePart1 inMemory;
  decodeSlot(raw.data(), &inMemory);
  std::memcpy(raw.data(), &inMemory, sizeof inMemory);
  const char* const what = slot.image == raw
                               ? " is the memory image that the pack with handles writes."
                               : " holds bytes that a new file does not have there.";
  check.information("D10", inSlot(slot), "The free slot ", slot.index, what);
}

void checkIdentifier(Check& check, const Slot& slot, std::map<uint64_t, int>* seen) {
  const About about = inSlot(slot, slot::kTableID);
  const uint64_t number = identifierNumber(slot.fields.tableID);
  if (!identifierSumIsRight(slot.fields.tableID)) {
    check.error("D3", about, "The sum of the table's identifier is wrong.");
  } else if (number == 0) {
    check.error("D3", about, "The table's identifier is zero, which means no table.");
  }
  const auto [first, isNew] = seen->try_emplace(number, slot.index);
  if (!isNew) {
    check.error("D3", about, "The table's identifier ", shownId(number), " is that of slot ",
                first->second, " already.");
  }
}

void checkName(Check& check, const Slot& slot, std::set<std::string>* seen) {
  const About about = inSlot(slot, slot::kTableName);
  const std::string name = storedName(slot.fields);
  const char* const end = slot.fields.tableName + kTableNameSize;
  if (name.empty()) check.warning("D4", about, "The table has no name.");
  const bool isCut = name.size() == static_cast<size_t>(kTableNameSize);
  if (!name.empty() && !seen->insert(name).second) {
    check.add(isCut ? qvdb::Severity::information : qvdb::Severity::warning, "D4", about,
              "Another table is named " + shown(name) +
                  (isCut ? " as well: names are cut after 32 bytes." : " as well."));
  }
  if (isCut) {
    check.information("D4", about, "The name takes all 32 bytes and has no terminator.");
  } else if (std::any_of(slot.fields.tableName + name.size(), end, [](char c) { return c != 0; })) {
    check.information("D4", about, "There are bytes after the end of the name.");
  }
  if (std::ranges::any_of(name, [](unsigned char c) { return c < 0x20 || c == 0x7F; })) {
    check.information("D4", about, "The name ", shown(name), " holds control characters.");
  }
}

void checkConstants(Check& check, const Slot& slot) {
  std::string odd;
  const auto note = [&](const char* what) { odd += (odd.empty() ? "" : ", ") + std::string(what); };
  // Least significant byte first, as all of a slot.
  const auto holds = [&](int offset, int number) {
    const auto place = static_cast<size_t>(offset);
    return (slot.image[place] | slot.image[place + 1] << 8) == number;
  };
  if (!holds(slot::kInfoSize, kInfoSize) || !holds(slot::kRecordsInfoSize, kRecordsInfoSize) ||
      !holds(slot::kDataInfoSize, kDataInfoSize)) {
    note("sizes of field groups");
  }
  const bool fillersRight = std::ranges::all_of(slot::kGaps, [&](slot::Gap gap) {
    return std::all_of(slot.image.begin() + gap.begin, slot.image.begin() + gap.end,
                       [](unsigned char c) { return c == kSlotFiller; });
  });
  if (!fillersRight) note("filler bytes");
  if (slot.fields.tableVersion != kNewTableVersion) note("table version");
  if (slot.fields.tableFlags1 != 0 || slot.fields.tableFlags2 != 0) note("flags");
  if (odd.empty()) return;
  check.information("D5", inSlot(slot), "The slot is not as the library writes it: ", odd, ".");
}

void checkEnds(Check& check, const Slot& slot) {
  const tablePart1& fields = slot.fields;
  const bool isEmpty = fields.recordCount == 0;
  const auto checkEnd = [&](int offset, int64_t position, const char* what) {
    if (isEmpty == (position == 0)) return;
    check.error("D6", inSlot(slot, offset), "The slot counts ",
                counted(fields.recordCount, "record"), ", but ",
                isEmpty ? "has the position of a " : "the position of the ", what,
                isEmpty ? " one." : " one is zero.");
  };
  checkEnd(slot::kFirstRecordPos, fields.firstRecordPos, "first");
  checkEnd(slot::kLastRecordPos, fields.lastRecordPos, "last");
  if (isEmpty && fields.lastWrittenRecordPos != 0) {
    check.warning("D6", inSlot(slot, slot::kLastWrittenRecordPos),
                  "The table is empty, but has the position of a last written record.");
  }
}

void checkLastWritten(Check& check, const Table& table, const Slot& slot) {
  const int64_t position = slot.fields.lastWrittenRecordPos;
  if (slot.fields.recordCount == 0) return;
  const About about = inSlot(slot, slot::kLastWrittenRecordPos);
  const Block* const block = check.survey.blockAt(position);
  if (block == nullptr || block->owner != table.owner || block->kind != BlockKind::record) {
    check.warning("D7", about, "The position of the last written record, ", position,
                  ", is not that of a record of the table.");
  } else if (block->label != Label::live) {
    check.information(
        "R16", about,
        "The last written record is no longer in the chain, as happens when it was moved.");
  }
}

void checkDataCounts(Check& check, const Slot& slot) {
  const tablePart1& fields = slot.fields;
  const About about = inSlot(slot, slot::kDataBlockCount);
  const bool hasData = fields.firstDataPos != 0;
  if (hasData != (fields.dataBlockCount != 0) || (hasData && fields.dataWriteCount == 0)) {
    check.warning("D9", about, "The slot counts ", counted(fields.dataBlockCount, "block"),
                  " of table data, ", fields.dataWriteCount,
                  " written; the position of the first is ", fields.firstDataPos, ".");
  }
  if (fields.lastWrittenDataPos != fields.firstDataPos ||
      fields.lastDataPos != fields.firstDataPos) {
    check.warning("D9", about, "The three positions of the table data are not the same.");
  }
}

}  // namespace

void checkDirectory(Check& check) {
  std::map<uint64_t, int> identifiers;
  std::set<std::string> names;
  for (const Slot& slot : check.survey.slots) {
    if (slot.counted) {
      checkMarks(check, slot);
    } else if (slot.isTable() || slot.hasMark() || slot.hasEndMark()) {
      checkUncounted(check, slot);
    } else {
      checkFreeSlot(check, slot);
    }
    if (!slot.isTable()) continue;
    checkIdentifier(check, slot, &identifiers);
    checkName(check, slot, &names);
    checkConstants(check, slot);
  }
}

void checkCounts(Check& check, const Table& table) {
  const Slot& slot = check.survey.slotOf(table);
  checkEnds(check, slot);
  checkLastWritten(check, table, slot);
  if (slot.fields.recordCount > slot.fields.recordWriteCount) {
    check.warning("D8", inSlot(slot, slot::kRecordCount), "The slot counts ",
                  counted(slot.fields.recordCount, "record"), ", but only ",
                  slot.fields.recordWriteCount, " were ever added.");
  }
  checkDataCounts(check, slot);
}

}  // namespace qvdbase::check

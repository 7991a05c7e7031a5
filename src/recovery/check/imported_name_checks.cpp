// The lists of names that the command-line tool keeps as the data of tables of imported files: I1
// and I2. To the library such a list is opaque; docs/imported-files.md describes it.
#include <algorithm>

#include "format/imported_list.h"
#include "recovery/check/parts.h"
#include "recovery/check/payload_cursor.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

using EntryReader = imported::EntryReader<PayloadCursor>;
static_assert(EntryReader::kLargestPiece <= Window::kLargestView);

// Whether the data begins as a list that is known.
bool isKnownList(PayloadCursor bytes) {
  const uint8_t* const head = bytes.take(imported::kHeadSize);
  return head != nullptr && imported::versionOf(head) == imported::Version::known;
}

}  // namespace

void checkImportedNames(Check& check, const Table& table) {
  if (table.dataState != DataState::sound) return;
  const Slot& slot = check.survey.slotOf(table);
  const Block& block = check.survey.blocks[table.dataBlock];
  Window window(check.source);
  PayloadCursor bytes(window, block);
  if (!isKnownList(bytes)) return;
  const auto size = static_cast<uint64_t>(bytes.left());
  imported::Head head;
  if (!imported::readHead(bytes, &head)) {
    return check.warning("I1", {.slot = &slot, .offset = block.dataPos()},
                         "The list of imported files is cut off in its head.");
  }
  EntryReader list(bytes, size, head.version);
  const std::vector<uint64_t> records = sortedRecords(check.survey, table.forward.blocks);
  uint64_t entries = 0;
  uint64_t withoutRecord = 0;
  while (bytes.left() > 0 && window.byteAt(bytes.position()) != imported::kCutOffHere) {
    const About about = {.slot = &slot, .offset = bytes.position()};
    const imported::Entry* const entry = list.next();
    if (entry == nullptr) {
      return check.warning("I1", about, "The list of imported files cannot be read beyond its ",
                           "first ", counted(entries, "entry", "entries"), ".");
    }
    ++entries;
    if (entry->nanoseconds >= imported::kNanosecondsEnd) {
      check.warning("I1", about, "The time of an imported file is impossible.");
    }
    if (entry->kind == imported::Kind::file &&
        !std::ranges::binary_search(records, entry->record)) {
      ++withoutRecord;
    }
  }
  if (withoutRecord == 0) return;
  check.information(
      "I2", {.slot = &slot, .offset = block.dataPos()},
      counted(withoutRecord, "name of an imported file has", "names of imported files have"),
      " no record.");
}

}  // namespace qvdbase::check

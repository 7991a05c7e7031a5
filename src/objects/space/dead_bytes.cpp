// The bytes of a file that are dead.
#include "objects/space/dead_bytes.h"

#include <qvdbase/qvdb/error.hpp>

#include <vector>

#include "QVDbase/table_data.h"
#include "format/Aliment8.h"
#include "objects/record_search.h"
#include "objects/records.h"
#include "objects/sharing/looks.h"
#include "objects/walks/chain_walker.h"

using namespace qvdbase;

namespace qvdb {
namespace detail {
namespace {

uint64_t bytesOfRecords(const Operation& operation, const tablePart1& slot) {
  operation.about(format::storedName(slot));
  ChainWalker walker(slot);
  recordPart1 header;
  int64_t position = 0;
  uint64_t bytes = 0;
  for (Steps steps(operation);
       walker.next(operation.db(), &header, &position) == ChainWalker::Step::record; steps.next()) {
    bytes += uint64_t{header.dataCapacity} + format::kRecordBlockOverhead;
  }
  if (walker.isDamaged() && !hasBecomeShorter(operation, walker)) {
    failDamagedChain(operation, walker);
  }
  return bytes;
}

uint64_t bytesOfData(const Operation& operation, const tablePart1& slot) {
  if (slot.firstDataPos == 0) return 0;
  operation.about(format::storedName(slot));
  format::TableDataHead head;
  if (engine::readTableDataHead(operation.db(), slot.firstDataPos, slot.tableID, &head)) {
    return uint64_t{head.dataCapacity} + format::kTableDataBlockOverhead;
  }
  operation.fail(Reason::data_damaged, "the block with the data of " + operation.quotedTable() +
                                           " is not where it should be");
}

std::vector<tablePart1> slotsOf(const Operation& operation) {
  std::vector<tablePart1> slots;
  tablePart1 slot;
  static_cast<void>(operation.findSlot(&slot, [&](const tablePart1& used) {
    slots.push_back(used);
    return false;
  }));
  return slots;
}

}  // namespace

// In a damaged file blocks can overlap, and can seem to reach beyond its end.
uint64_t countDead(const Operation& operation) {
  const engine::DirectoryNumbers numbers = operation.directory();
  auto live = static_cast<uint64_t>(format::slotPosition(numbers.slotCount, numbers.slotSize));
  for (const tablePart1& slot : slotsOf(operation)) {
    live += bytesOfRecords(operation, slot) + bytesOfData(operation, slot);
  }
  const uint64_t length = operation.fileLength();
  return length > live ? length - live : 0;
}

}  // namespace detail

uint64_t Database::reclaimable_estimate() const {
  const detail::Operation operation(state_, "count the dead bytes");
  detail::OpenDatabase& database = operation.database();
  if (database.deadBytes) return *database.deadBytes;
  operation.requireNoBulk();
  const uint64_t dead = detail::look(operation, [&] { return detail::countDead(operation); });
  const bool isKept = database.mode == Mode::exclusive && operation.stage() == nullptr;
  if (isKept) database.deadBytes = dead;
  return dead;
}

}  // namespace qvdb

// qvdb::Table: the table itself, and reading its records.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/table.hpp>

#include <algorithm>
#include <limits>
#include <type_traits>
#include <utility>

#include "format/Aliment8.h"
#include "format/big_endian.h"
#include "format/layout.h"
#include "objects/indexes/table_index.h"
#include "objects/kept/kept_indexes.h"
#include "objects/open_database.h"
#include "objects/record_search.h"
#include "objects/records.h"
#include "objects/sharing/looks.h"
#include "objects/walks/chain_walker.h"

using namespace qvdbase;

namespace qvdb {

using detail::Located;
using detail::Operation;
using engine::SavedPosition;

namespace {

// Only with a cache is anything in memory.
detail::InMemory askCache(const Operation& operation, Id table, Id record, bool withPayload) {
  if (operation.database().cacheHolders == 0) return {};
  return detail::askMemory(operation, table, record, withPayload);
}

// Makes an object where it is to be, from what a function returns.
template <typename Make>
class InPlace {
 public:
  explicit InPlace(const Make& make) : make_(make) {}
  operator std::invoke_result_t<Make>() const { return make_(); }

 private:
  const Make& make_;
};

constexpr const char* kFind = "find the record";
constexpr uint32_t kAnySize = std::numeric_limits<uint32_t>::max();

// `whom` is a Record or an identifier.
template <typename Whom>
WalkOptions walkAfter(const Whom& whom, LoadedPart load) {
  return {.from = WalkStart::after(whom), .load = load, .largest_loaded = kAnySize};
}

std::optional<RecordInfo> infoAtEnd(const Operation& operation, Id table, Order order) {
  detail::ChainWalker walker(operation.table(table).slot, order);
  recordPart1 header;
  int64_t position = 0;
  switch (walker.next(operation.db(), &header, &position)) {
    case detail::ChainWalker::Step::end:
      return std::nullopt;
    case detail::ChainWalker::Step::damaged:
      detail::failDamagedChain(operation, walker);
    case detail::ChainWalker::Step::record:
      break;
  }
  return detail::recordInfo(header, position);
}

std::span<const std::byte> payloadOf(const detail::InMemory& found) {
  const unsigned char* length = found.block + format::record::kDataLength;
  return std::as_bytes(
      std::span(found.block + format::record::kData, format::loadBigEndian<uint32_t>(length)));
}

// Throws payload_damaged.
void requireSound(const Operation& operation, Id table, const detail::InMemory& found) {
  if (found.checksum == nullptr) return;
  RecordInfo info;
  detail::storeInfo(found.block, found.position, &info);
  if (detail::isSoundInMemory(table, info, payloadOf(found).data(), found.checksum)) return;
  operation.failPayload(info);
}

}  // namespace

Table::Table(std::shared_ptr<detail::OpenDatabase> database, Id id, std::string name)
    : database_(std::move(database)), id_(id), name_(std::move(name)) {}

TableInfo Table::info() const {
  const Operation operation(database_, "look at the table");
  const tablePart1 slot = detail::look(operation, [&] { return operation.table(id_).slot; });
  TableInfo info;
  info.id = id_;
  info.name = format::storedName(slot);
  info.version = slot.tableVersion;
  info.record_count = slot.recordCount;
  info.record_write_count = slot.recordWriteCount;
  info.data_write_count = slot.dataWriteCount;
  info.first_record_position = slot.firstRecordPos;
  info.last_record_position = slot.lastRecordPos;
  info.data_position = slot.firstDataPos;
  info.flags_1 = slot.tableFlags1;
  info.flags_2 = slot.tableFlags2;
  info.data_block_count = slot.dataBlockCount;
  info.last_written_record_position = slot.lastWrittenRecordPos;
  info.last_written_data_position = slot.lastWrittenDataPos;
  info.last_data_position = slot.lastDataPos;
  return info;
}

uint32_t Table::count() const {
  const Operation operation(database_, "count the records");
  return detail::look(operation, [&] { return operation.table(id_).slot.recordCount; });
}

RecordRange Table::records(Load load) const {
  return RecordRange(database_, id_, {.load = load, .largest_loaded = kAnySize});
}

RecordRange Table::records(const WalkOptions& options) const {
  return RecordRange(database_, id_, options);
}

RecordRange Table::records_after(const Record& record, LoadedPart load) const {
  return RecordRange(database_, id_, walkAfter(record, load));
}

RecordRange Table::records_after(Id record, LoadedPart load) const {
  return RecordRange(database_, id_, walkAfter(record, load));
}

std::optional<Record> Table::first() const {
  return recordAtEnd(Order::oldest_first);
}

std::optional<Record> Table::last() const {
  return recordAtEnd(Order::newest_first);
}

void Table::set_checksum(Checksum checksum) {
  if (database_ == nullptr) Operation(database_, "set the checksums of the table");
  const detail::DatabaseTurn turn(*database_);
  auto& all = database_->tableChecksums;
  std::erase_if(all, [this](const auto& each) { return each.first == id_; });
  if (checksum != Checksum::by_default) all.emplace_back(id_, checksum == Checksum::yes);
}

Checksum Table::checksum() const {
  if (database_ == nullptr) Operation(database_, "look at the table");
  const detail::DatabaseTurn turn(*database_);
  return database_->wantsChecksum(id_, Checksum::by_default) ? Checksum::yes : Checksum::no;
}

std::optional<Record> Table::recordAtEnd(Order order) const {
  const Operation operation(database_, kFind);
  const auto info = detail::look(operation, [&] { return infoAtEnd(operation, id_, order); });
  if (!info) return std::nullopt;
  return Record(database_, id_, *info);
}

RecordIndex Table::index(const RecordIndexOptions& options) const {
  constexpr const char* kIndex = "index the table";
  std::optional<detail::KeptFile> file;
  if (options.kept && database_ != nullptr) file.emplace(detail::KeptFile::placeFor(*database_));
  const Operation operation(database_, kIndex);
  RecordIndex index(detail::makeIndex(database_, id_));
  detail::TableIndex& made = *index.index_;
  if (made.isStale) {
    detail::look(operation, [&] {
      detail::ChainWalker walker;
      if (file && detail::useKept(operation, made, *file)) return;
      if (!detail::buildIndex(operation, made, &walker)) {
        detail::failDamagedChain(operation, walker);
      }
    });
  }
  if (options.kept) detail::keep(*database_, index.index_);
  return index;
}

std::optional<Record> Table::find(Id record) const {
  const Operation operation(database_, kFind);
  const detail::InMemory known = askCache(operation, id_, record, false);
  if (known.answer == detail::Answer::absent) return std::nullopt;
  if (known.answer == detail::Answer::found) {
    RecordInfo info;
    detail::storeInfo(known.block, known.position, &info);
    return Record(database_, id_, info);
  }
  engine::FoundRecord found;
  const Located located =
      detail::look(operation, [&] { return detail::locate(operation, id_, record, &found); });
  if (located == Located::no) return std::nullopt;
  const RecordInfo info = detail::recordInfo(found.header, found.recordPos);
  return std::optional<Record>(std::in_place,
                               InPlace([&] { return Record(database_, id_, info); }));
}

bool Table::contains(Id record) const {
  {
    const Operation operation(database_, kFind);
    const detail::InMemory known = askCache(operation, id_, record, false);
    if (known.answer != detail::Answer::unknown) return known.answer == detail::Answer::found;
  }
  return find(record).has_value();
}

std::optional<std::vector<std::byte>> Table::get(Id record) const {
  const Operation operation(database_, detail::kRead);
  const detail::InMemory known = askCache(operation, id_, record, true);
  if (known.answer == detail::Answer::absent) return std::nullopt;
  if (known.answer == detail::Answer::found) {
    requireSound(operation, id_, known);
    const std::span<const std::byte> payload = payloadOf(known);
    std::vector<std::byte> copy;
    detail::resizeFor(operation, &copy, payload.size());
    std::copy(payload.begin(), payload.end(), copy.begin());
    return copy;
  }
  return detail::look(operation, [&]() -> std::optional<std::vector<std::byte>> {
    engine::FoundRecord found;
    if (detail::locate(operation, id_, record, &found) == Located::no) return std::nullopt;
    std::vector<std::byte> payload;
    detail::appendPayload(operation, id_, detail::recordInfo(found.header, found.recordPos),
                          found.header.dataLength, &payload);
    return payload;
  });
}

std::optional<uint32_t> Table::get(Id record, std::span<std::byte> buffer) const {
  const Operation operation(database_, detail::kRead);
  const detail::InMemory known = askCache(operation, id_, record, true);
  if (known.answer == detail::Answer::absent) return std::nullopt;
  if (known.answer == detail::Answer::found) {
    const std::span<const std::byte> payload = payloadOf(known);
    if (buffer.size() >= payload.size()) requireSound(operation, id_, known);
    std::copy_n(payload.begin(), std::min(buffer.size(), payload.size()), buffer.begin());
    return static_cast<uint32_t>(payload.size());
  }
  return detail::look(operation, [&]() -> std::optional<uint32_t> {
    engine::FoundRecord found;
    const Located located = detail::locate(operation, id_, record, &found);
    if (located == Located::no) return std::nullopt;
    const RecordInfo info = detail::recordInfo(found.header, found.recordPos);
    // The index is for speed: it makes no further call to the system for the rest of the payload.
    if (located != Located::byIndex) detail::requireInsideFile(operation, info);
    const size_t count = std::min<size_t>(buffer.size(), info.size);
    detail::readPayload(operation, id_, info, 0, buffer.first(count));
    return info.size;
  });
}

}  // namespace qvdb

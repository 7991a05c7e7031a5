// Applying a patch.
//
// While the lines of a table are read, its order is kept in memory, and payloads that the patch
// brings go into a table of a temporary database. At the end of the table its records are written
// in their new order into the new database.
#include "content/patcher.h"

#include <optional>
#include <set>
#include <vector>

#include "command_line/command.h"
#include "commands/locate.h"
#include "commands/payload_limit.h"
#include "content/claimed_space.h"
#include "content/digests.h"
#include "content/dump_writer.h"
#include "content/loader.h"
#include "content/patch_writer.h"
#include "content/record_order.h"
#include "format/layout.h"
#include "streams/interrupt.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

constexpr size_t kPiece = size_t{256} << 10;

ByteView viewOf(const std::string& bytes) {
  return {reinterpret_cast<const std::byte*>(bytes.data()), bytes.size()};
}

// A copy of a record, with everything but its place.
void copyRecord(const Record& record, BulkAppender& to, std::vector<std::byte>& buffer) {
  const RecordInfo& info = record.info();
  NewRecord copy(ByteView(), info.capacity, info.id);
  copy.create_time = info.create_time;
  copy.modify_time = info.modify_time;
  copy.given_ids = GivenIds::as_they_are;
  copy.checksum = hasChecksum(record) ? Checksum::yes : Checksum::no;
  if (copy.checksum == Checksum::yes) copy.reserve -= qvdbase::format::kChecksumCapacity;
  if (info.size <= kPiece) {
    record.payload(buffer);
    copy.payload = buffer;
    to.add(copy);
    return;
  }
  RecordWriter writer = to.writer(copy);
  buffer.resize(kPiece);
  for (uint64_t offset = 0; offset < info.size;) {
    throwIfInterrupted();
    const size_t got = record.read(offset, buffer);
    if (got == 0) throw Failure("a payload became shorter while it was read; try again");
    writer.write(std::span<const std::byte>(buffer).first(got));
    offset += got;
  }
  writer.finish();
}

enum class Place : uint8_t { head, betweenTables, table, pieces, dataPieces, end };

}  // namespace

struct Patcher::State {
  std::string path;
  bool sync;
  Database old;
  PayloadLimit kept{old};
  ClaimedSpace space{old, "cannot be patched"};
  Database made;    // unplaced
  Database pieces;  // unplaced, never placed
  Place place = Place::head;
  std::set<Id> goneTables;  // of the old one: removed, or taken over
  uint64_t operations = 0;
  Sha256 sha256;

  // The table that is being patched.
  std::optional<Table> from;
  std::optional<RecordIndex> index;
  std::optional<Table> to;
  RecordOrder order;
  std::optional<Table> brought;  // what the patch brings of it
  std::optional<BulkAppender> appender;
  std::optional<RecordWriter> writer;
  uint64_t missing = 0;
  uint64_t piece = 0;
  size_t broughtCount = 0;
  bool hasNewData = false;
  std::string data;  // of which pieces are missing
  uint32_t dataCapacity = 0;
  uint64_t tables = 0;

  State(const std::string& file, bool waits) : path(file), sync(waits), old(openToRead(file)) {}

  void takeHead(Members& members);
  void takeTable(Members& members);
  void takeRemovedTable(Members& members);
  void takeOperation(Members& members);
  void takeData(Members& members);
  void takeAdd(Members& members);
  void takeChange(Members& members);
  void takeRemove(Members& members);
  void takeMove(Members& members);
  void takePiece(Members& members);
  void endTable();
  void bring(const RecordLine& line);
  void writeRecords();
  void keepData();
  void requireWas(Members& members, Id record);
  void requireTable(Id table, const char* what);
};

void Patcher::State::takeHead(Members& members) {
  if (!members.has("qvdb") || members.text("qvdb") != "patch") {
    throw BadLine("a patch begins with a line {\"qvdb\":\"patch\",...}");
  }
  if (members.number("format", UINT64_MAX) != kPatchFormat) {
    throw BadLine("its format is not known; apply it with the qvdb that made it, or a newer one");
  }
  const Id of = members.id("of");
  if (of != old.info().id) {
    throw BadLine("it is a patch of the database " + to_string(of) + ", which this one is not");
  }
  CreateOptions options;
  const std::string signature = members.bytes("signature", "signature_base64");
  if (signature.size() != options.signature.size()) throw BadLine("\"signature\" has 4 bytes");
  std::copy(signature.begin(), signature.end(), options.signature.begin());
  options.version = static_cast<uint16_t>(members.number("version", UINT16_MAX));
  options.id = members.id("id");
  options.overwrite = true;
  options.place = false;
  options.sync = sync;
  members.requireNoOther();
  made = whileInUse([&] { return Database::create(path, options); });
  CreateOptions temporary;
  temporary.place = false;
  pieces = Database::create(path + ".qvdb-patch-pieces", temporary);
  if (!old.is_current()) throw Failure(path + ": was replaced meanwhile; try again");
  place = Place::betweenTables;
}

void Patcher::State::requireTable(Id table, const char* what) {
  if (!old.contains(table)) {
    throw BadLine(std::string(what) + ": the database has no table " + to_string(table));
  }
  if (!goneTables.insert(table).second) {
    throw BadLine(std::string(what) + ": table " + to_string(table) + " is there twice");
  }
}

void Patcher::State::takeRemovedTable(Members& members) {
  const Id table = members.id("from");
  requireTable(table, "it does not fit");
  if (old.find_table(table)->count() != members.number("records", UINT32_MAX)) {
    throw BadLine("it does not fit: the table to be removed has another number of records");
  }
}

void Patcher::State::takeTable(Members& members) {
  NewTable table = takeNewTable(members);
  from.reset();
  index.reset();
  if (members.has("from")) {
    const Id id = members.id("from");
    requireTable(id, "it does not fit");
    from = old.find_table(id);
    index = from->index();
  }
  order = {};
  if (from) {
    for (const Record& record : from->records()) {
      throwIfInterrupted();
      if (order.append(record.id(), RecordOrder::kNone)) continue;
      throw BadLine("it does not fit: the table has several records " + to_string(record.id()));
    }
  }
  members.requireNoOther();
  to = made.add_table(table);
  brought = pieces.add_table(std::to_string(++tables));
  broughtCount = 0;
  hasNewData = false;
  place = Place::table;
}

void Patcher::State::takeOperation(Members& members) {
  const std::string what = members.text("op");
  if (what == "data") return takeData(members);
  if (what == "add") return takeAdd(members);
  if (what == "change") return takeChange(members);
  if (what == "remove") return takeRemove(members);
  if (what == "move") return takeMove(members);
  throw BadLine("\"op\" is not data, add, change, remove or move");
}

void Patcher::State::takeData(Members& members) {
  const auto present = from ? dataDigestOf(old, *from) : std::nullopt;
  const bool had = members.has("was");
  if (had != present.has_value() || (had && members.text("was") != hexOf(*present))) {
    throw BadLine("it does not fit: the table has other data");
  }
  hasNewData = true;
  if (members.truth("none")) return;
  const auto capacity = members.numberIfThere("capacity", UINT32_MAX);
  const auto size = members.numberIfThere("size", UINT32_MAX);
  data = members.bytes("text", "base64");
  members.requireNoOther();
  requireCapacity(capacity, size.value_or(data.size()));
  dataCapacity = static_cast<uint32_t>(capacity.value_or(0));
  if (!size) {
    to->set_data(viewOf(data), dataCapacity);
    return;
  }
  if (*size <= data.size()) throw BadLine("\"size\" is not more than what the line has");
  missing = *size - data.size();
  piece = 1;
  place = Place::dataPieces;
}

// Payloads come in the order of the lines; that of the records is another.
void Patcher::State::bring(const RecordLine& line) {
  ++operations;
  order.noted(line.id) = broughtCount++;
  if (!appender) appender = brought->appender();
  if (!line.size) {
    appender->add(line.newRecord());
    return;
  }
  writer = appender->writer(line.newRecord());
  missing = *line.size - line.payload.size();
  piece = 1;
  place = Place::pieces;
}

void Patcher::State::takePiece(Members& members) {
  const std::string bytes = takeNextPiece(members, piece + 1, missing);
  ++piece;
  missing -= bytes.size();
  if (place == Place::dataPieces) {
    data += bytes;
    if (missing == 0) to->set_data(viewOf(data), dataCapacity);
  } else {
    writer->write(viewOf(bytes));
    if (missing == 0) writer->finish();
  }
  if (missing == 0) place = Place::table;
}

void Patcher::State::takeAdd(Members& members) {
  std::optional<Id> after;
  if (members.has("after")) after = members.id("after");
  const RecordLine line = takeRecord(members);
  members.requireNoOther();
  if (order.has(line.id)) {
    throw BadLine("it does not fit: the table has a record " + to_string(line.id) + " already");
  }
  if (!order.insert(line.id, RecordOrder::kNone, after)) {
    throw BadLine("it does not fit: the table has no record " + to_string(*after));
  }
  bring(line);
}

void Patcher::State::requireWas(Members& members, Id record) {
  const std::string was = members.text("was");
  const auto found = from && order.has(record) ? from->find(record) : std::nullopt;
  if (!found || order.noted(record) != RecordOrder::kNone) {
    throw BadLine("it does not fit: the table has no record " + to_string(record));
  }
  if (hexOf(digestOf(*found, sha256).payload) != was) {
    throw BadLine("it does not fit: record " + to_string(record) + " has another payload");
  }
}

void Patcher::State::takeChange(Members& members) {
  const RecordLine line = takeRecord(members);
  requireWas(members, line.id);
  members.requireNoOther();
  bring(line);
}

void Patcher::State::takeRemove(Members& members) {
  const Id record = members.id("record");
  requireWas(members, record);
  order.remove(record);
  ++operations;
}

void Patcher::State::takeMove(Members& members) {
  const Id record = members.id("record");
  std::optional<Id> after;
  if (members.has("after")) after = members.id("after");
  if (!order.has(record)) {
    throw BadLine("it does not fit: the table has no record " + to_string(record));
  }
  const size_t noted = order.noted(record);
  order.remove(record);
  if (!order.insert(record, noted, after)) {
    throw BadLine("it does not fit: the table has no record " + to_string(*after));
  }
  ++operations;
}

// What the patch says nothing about stays.
void Patcher::State::keepData() {
  if (!from || hasNewData || !requireDataSize(old, *from)) return;
  space.requireData(*from);
  to->set_data(*from->data(), from->data_capacity().value_or(0));
}

void Patcher::State::writeRecords() {
  std::vector<Record> records;
  for (const Record& record : brought->records()) records.push_back(record);
  BulkAppender out = to->appender();
  std::vector<std::byte> buffer;
  for (auto id = order.first(); id; id = order.next(*id)) {
    throwIfInterrupted();
    const size_t noted = order.noted(*id);
    if (noted != RecordOrder::kNone) {
      copyRecord(records[noted], out, buffer);
    } else {
      const Record record = from->find(*id).value();
      space.require(record);
      kept.count(*from, record, "'qvdb salvage' writes a file without it");
      copyRecord(record, out, buffer);
    }
  }
  out.finish();
}

void Patcher::State::endTable() {
  if (appender) appender->finish();
  appender.reset();
  keepData();
  writeRecords();
  place = Place::betweenTables;
}

Patcher::Patcher(const std::string& path, bool sync)
    : state_(std::make_unique<State>(path, sync)) {}

Patcher::~Patcher() = default;

void Patcher::take(std::string_view line) {
  State& state = *state_;
  if (state.place == Place::end) throw BadLine("nothing may follow the end of a patch");
  JsonValue object = parseLine(line);
  Members members(object);
  if (state.place == Place::head) {
    state.takeHead(members);
  } else if (state.place == Place::pieces || state.place == Place::dataPieces) {
    state.takePiece(members);
  } else if (members.has("end")) {
    const bool isTable = members.text("end") == "table";
    if (isTable != (state.place == Place::table))
      throw BadLine("it is not the end of what is open");
    members.requireNoOther();
    if (isTable) return state.endTable();
    for (const Table& table : state.old.tables()) {
      if (state.goneTables.contains(table.id())) continue;
      throw BadLine("it does not fit: it says nothing about table '" + table.name() + "'");
    }
    state.place = Place::end;
  } else if (state.place == Place::table) {
    state.takeOperation(members);
  } else if (members.has("op")) {
    if (members.text("op") != "remove_table") throw BadLine("a table's line is missing before it");
    state.takeRemovedTable(members);
  } else {
    state.takeTable(members);
  }
  members.requireNoOther();
}

void Patcher::finish() {
  State& state = *state_;
  if (state.place != Place::end) throw BadLine("the patch ends before its last line");
  state.made.place();
}

uint64_t Patcher::operations() const {
  return state_->operations;
}

}  // namespace qvdb::tool

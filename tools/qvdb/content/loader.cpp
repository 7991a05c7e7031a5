// Loading a dump.
#include "content/loader.h"

#include <algorithm>
#include <limits>

#include "content/category_text.h"
#include "content/dump_writer.h"
#include "content/file_entry_text.h"

namespace qvdb::tool {
namespace {

constexpr uint64_t k16 = std::numeric_limits<uint16_t>::max();
// Names of which the rest was cut off can be equal.
constexpr size_t kLongestTableName = 32;
constexpr uint64_t k32 = std::numeric_limits<uint32_t>::max();

uint16_t number16(Members& members, std::string_view key) {
  return static_cast<uint16_t>(members.number(key, k16));
}

uint32_t number32(Members& members, std::string_view key) {
  return static_cast<uint32_t>(members.number(key, k32));
}

std::optional<uint32_t> number32IfThere(Members& members, std::string_view key) {
  const auto value = members.numberIfThere(key, k32);
  if (!value) return std::nullopt;
  return static_cast<uint32_t>(*value);
}

std::string payloadOfCategory(Members& line) {
  Members members(line.object("category"));
  CategoryText category;
  category.id = members.id("id");
  category.name = members.bytes("name", "name_base64");
  category.param = number32(members, "param");
  category.related = members.id("related");
  category.first = members.ids("first");
  category.second = members.ids("second");
  category.extra = members.bytes("extra", "extra_base64");
  members.requireNoOther();
  std::optional<std::string> payload = encodeCategory(category);
  if (!payload) throw BadLine("\"name\" has more than 32 characters, or a zero");
  return *std::move(payload);
}

uint16_t modeOf(const std::string& text) {
  uint32_t mode = 0;
  const bool isOctal =
      !text.empty() && text.size() <= 6 &&
      std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '7'; });
  for (const char c : text) mode = mode << 3 | static_cast<uint32_t>(c - '0');
  if (!isOctal || mode > k16) throw BadLine("\"mode\" is not an octal number of 16 bits");
  return static_cast<uint16_t>(mode);
}

ByteView viewOf(const std::string& bytes) {
  return {reinterpret_cast<const std::byte*>(bytes.data()), bytes.size()};
}

}  // namespace

NewRecord RecordLine::newRecord() const {
  NewRecord record(viewOf(payload), capacity.value_or(0), id);
  record.create_time = created;
  record.modify_time = modified;
  record.given_ids = GivenIds::as_they_are;
  record.checksum = hasChecksum ? Checksum::yes : Checksum::no;
  if (hasChecksum) record.reserve -= qvdbase::format::kChecksumCapacity;
  return record;
}

void requireCapacity(const std::optional<uint64_t>& capacity, uint64_t size) {
  if (capacity && *capacity < size) throw BadLine("\"capacity\" is less than the size");
}

RecordLine takeRecord(Members& members) {
  RecordLine line;
  line.id = members.id("record");
  line.created = number32(members, "created");
  line.modified = number32(members, "modified");
  line.capacity = number32IfThere(members, "capacity");
  line.size = number32IfThere(members, "size");
  line.payload =
      members.has("category") ? payloadOfCategory(members) : members.bytes("text", "base64");
  if (line.size && *line.size <= line.payload.size()) {
    throw BadLine("\"size\" is not more than what the line has of the payload");
  }
  line.hasChecksum = members.truth("checksum");
  const uint64_t size = line.size.value_or(static_cast<uint32_t>(line.payload.size()));
  if (line.hasChecksum && line.capacity.value_or(0) < size + qvdbase::format::kChecksumCapacity) {
    throw BadLine("\"capacity\" is not enough for a checksum");
  }
  requireCapacity(line.capacity, line.size.value_or(static_cast<uint32_t>(line.payload.size())));
  return line;
}

NewTable takeNewTable(Members& members) {
  if (!members.has("table") && !members.has("table_base64")) {
    throw BadLine("a table's line, or the end, is missing before it");
  }
  NewTable table(members.bytes("table", "table_base64"));
  table.id = members.id("id");
  table.version = number16(members, "version");
  const std::vector<uint64_t> flags = members.numbers("flags", k16);
  if (flags.size() != 2) throw BadLine("\"flags\" has two numbers");
  table.flags_1 = static_cast<uint16_t>(flags[0]);
  table.flags_2 = static_cast<uint16_t>(flags[1]);
  table.record_write_count = number32IfThere(members, "former_records").value_or(0);
  table.data_write_count = number32IfThere(members, "former_data").value_or(0);
  table.may_repeat_name = table.name.size() == kLongestTableName;
  return table;
}

std::string takeNextPiece(Members& members, uint64_t number, uint64_t missing) {
  if (!members.has("more")) {
    throw BadLine(std::to_string(missing) + " bytes of a payload are missing before it");
  }
  if (members.number("more", UINT64_MAX) != number) {
    throw BadLine("piece " + std::to_string(number) + " of a payload is missing before it");
  }
  std::string piece = members.bytes("text", "base64");
  members.requireNoOther();
  if (piece.empty() || piece.size() > missing) {
    throw BadLine("the payload's \"size\" does not agree with its pieces");
  }
  return piece;
}

bool isAboutTheInput(Reason reason) {
  return reason == Reason::bad_argument || reason == Reason::bad_name ||
         reason == Reason::name_too_long || reason == Reason::table_exists ||
         reason == Reason::directory_full || reason == Reason::too_large;
}

Loader::Loader(std::string path, const CreateOptions& options)
    : path_(std::move(path)), options_(options) {}

void Loader::take(std::string_view line) {
  if (place_ == Place::end) throw BadLine("nothing may follow the end of a dump");
  JsonValue object = parseLine(line);
  Members members(object);
  if (place_ == Place::header) {
    takeHeader(members);
  } else if (place_ == Place::entries) {
    takeEntry(members);
  } else if (place_ == Place::pieces || place_ == Place::dataPieces) {
    takePiece(members);
  } else if (members.has("end")) {
    takeEnd(members);
  } else if (place_ == Place::betweenTables) {
    takeTable(members);
  } else if (place_ == Place::table && members.has("data")) {
    takeData(members);
  } else {
    takeNewRecord(members);
  }
  members.requireNoOther();
}

void Loader::takeHeader(Members& members) {
  if (!members.has("qvdb") || members.text("qvdb") != "dump") {
    throw BadLine("a dump begins with a line {\"qvdb\":\"dump\",...}");
  }
  const uint64_t format = members.number("format", UINT64_MAX);
  if (format != kDumpFormat) {
    throw BadLine("the format " + std::to_string(format) +
                  " is not known; load it with the qvdb that made it, or a newer one");
  }
  const std::string signature = members.bytes("signature", "signature_base64");
  if (signature.size() != options_.signature.size()) throw BadLine("\"signature\" has 4 bytes");
  std::copy(signature.begin(), signature.end(), options_.signature.begin());
  options_.version = number16(members, "version");
  options_.id = members.id("id");
  options_.place = false;
  static_cast<void>(members.truth("part"));
  members.requireNoOther();
  database_ = Database::create(path_, options_);
  place_ = Place::betweenTables;
}

void Loader::takeTable(Members& members) {
  const NewTable table = takeNewTable(members);
  members.requireNoOther();
  table_ = database_->add_table(table);
  ++tables_;
  inTable_ = 0;
  place_ = Place::table;
}

// ---- table data

void Loader::takeData(Members& members) {
  if (!members.truth("data")) throw BadLine("\"data\" is not true");
  const auto capacity = number32IfThere(members, "capacity");
  dataCapacity_ = capacity.value_or(0);
  data_.clear();
  const auto files = members.numberIfThere("files", UINT64_MAX);
  if (files) {
    entries_.clear();
    listHead_ = takeListHead(members);
    missing_ = *files;
    place_ = Place::entries;
    if (missing_ == 0) storeData();
    return;
  }
  const auto size = number32IfThere(members, "size");
  data_ = members.bytes("text", "base64");
  if (size && *size <= data_.size()) {
    throw BadLine("\"size\" is not more than what the line has of the data");
  }
  requireCapacity(capacity, size.value_or(static_cast<uint32_t>(data_.size())));
  if (!size) return storeData();
  missing_ = *size - data_.size();
  piece_ = 1;
  place_ = Place::dataPieces;
}

void Loader::takeEntry(Members& members) {
  if (!members.has("entry")) {
    throw BadLine(std::to_string(missing_) + " entries of the list of files are missing before it");
  }
  ImportedFile file;
  if (!kindOf(members.text("entry"), &file.kind)) {
    throw BadLine("\"entry\" is not file, folder, link or removed");
  }
  file.name = members.bytes("name", "name_base64");
  file.mode = modeOf(members.text("mode"));
  file.seconds = members.signedNumber("seconds");
  file.nanoseconds = static_cast<uint32_t>(members.number("nanoseconds", 999'999'999));
  if (members.has("record")) file.record = members.id("record");
  if (members.has("target") || members.has("target_base64")) {
    file.target = members.bytes("target", "target_base64");
  }
  if (listHead_.version != qvdbase::format::imported::kFirstVersion) {
    if (members.has("since")) file.since = members.signedNumber("since");
    if (members.has("until")) file.until = members.signedNumber("until");
    if (members.has("fields") || members.has("fields_base64")) {
      file.fields = members.bytes("fields", "fields_base64");
    }
  }
  if (!isSound(file)) throw BadLine("no list of files has such a name, target or fields");
  entries_.push_back(std::move(file));
  if (--missing_ == 0) storeData();
}

void Loader::storeData() {
  if (place_ == Place::entries) {
    const std::vector<std::byte> list = encodeList(listHead_, entries_);
    entries_ = {};
    data_ = textOf(list);
    requireCapacity(dataCapacity_ == 0 ? std::nullopt : std::optional(dataCapacity_), data_.size());
  }
  table_->set_data(viewOf(data_), dataCapacity_);
  data_ = {};
  place_ = Place::records;
}

// ---- records

void Loader::takeNewRecord(Members& members) {
  if (members.has("data")) throw BadLine("a table's data is on one line, before its records");
  if (!members.has("record")) throw BadLine("it is not the line of a record, nor the table's end");
  const RecordLine line = takeRecord(members);
  members.requireNoOther();
  if (!appender_) appender_ = table_->appender();
  place_ = Place::records;
  if (!line.size) {
    appender_->add(line.newRecord());
  } else {
    writer_ = appender_->writer(line.newRecord());
    missing_ = *line.size - line.payload.size();
    piece_ = 1;
    place_ = Place::pieces;
  }
  ++records_;
  ++inTable_;
}

void Loader::takePiece(Members& members) {
  const std::string piece = takeNextPiece(members, piece_ + 1, missing_);
  ++piece_;
  missing_ -= piece.size();
  addPiece(piece);
}

void Loader::addPiece(std::string_view piece) {
  if (place_ == Place::dataPieces) {
    data_ += piece;
    if (missing_ == 0) storeData();
    return;
  }
  writer_->write(piece);
  if (missing_ != 0) return;
  writer_->finish();
  writer_.reset();
  place_ = Place::records;
}

// ---- ends

void Loader::takeEnd(Members& members) {
  const std::string what = members.text("end");
  if (what == "table" && place_ != Place::betweenTables) return endTable(members);
  if (what != "dump" || place_ != Place::betweenTables) {
    throw BadLine("the end of a " + std::string(place_ == Place::betweenTables ? "dump" : "table") +
                  " is wanted here");
  }
  if (members.number("tables", UINT64_MAX) != tables_) {
    throw BadLine("the dump had another number of tables than there are");
  }
  if (members.number("records", UINT64_MAX) != records_) {
    throw BadLine("the dump had another number of records than there are");
  }
  place_ = Place::end;
}

void Loader::endTable(Members& members) {
  if (members.number("records", UINT64_MAX) != inTable_) {
    throw BadLine("the table had another number of records than there are");
  }
  const auto lastWritten = members.numberIfThere("last_written", UINT64_MAX);
  if (lastWritten && (*lastWritten == 0 || *lastWritten > inTable_)) {
    throw BadLine("\"last_written\" is not the place of a record");
  }
  members.requireNoOther();
  if (appender_) appender_->finish();
  appender_.reset();
  if (lastWritten) setLastWritten(*lastWritten);
  table_.reset();
  place_ = Place::betweenTables;
}

void Loader::setLastWritten(uint64_t place) {
  for (const Record& record : table_->records()) {
    if (--place != 0) continue;
    table_->set_last_written(record);
    return;
  }
}

void Loader::finish() {
  if (place_ != Place::end)
    throw BadLine("the dump ends before its last line; the rest is missing");
  database_->place();
  database_->close();
}

}  // namespace qvdb::tool

// Saving and verifying digests. The file is JSON Lines: a header, each table with its records in
// their order, and an end with the digest of all.
#include "content/saved_digests.h"

#include <optional>
#include <unordered_map>
#include <vector>

#include "content/digests.h"
#include "content/json_line.h"
#include "content/line_reader.h"
#include "content/text_output.h"
#include "streams/failure.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct SavedRecord {
  RecordDigest digest;
  bool isThere = false;
};

struct SavedTable {
  std::string name;
  std::string head;  // all of its line
  std::vector<SavedRecord> records;
  std::unordered_map<Id, size_t> places;
  bool isThere = false;
};

struct Saved {
  std::unordered_map<Id, SavedTable> tables;
  std::string digest;
};

void writeTableHead(const TableInfo& info, const std::optional<Sha256Digest>& data,
                    JsonLines& lines) {
  lines.begin();
  lines.bytes("table", "table_base64", info.name);
  lines.id("id", info.id);
  lines.number("version", info.version);
  lines.openList("flags");
  lines.number(JsonLines::kElement, info.flags_1);
  lines.number(JsonLines::kElement, info.flags_2);
  lines.close(']');
  if (data) lines.bytes("data", "data", hexOf(*data));
  lines.end();
}

std::string headOf(const TableInfo& info, const std::optional<Sha256Digest>& data) {
  std::string head;
  JsonLines lines([&head](std::string_view text) { head += text; });
  writeTableHead(info, data, lines);
  lines.flush();
  head.pop_back();
  return head;
}

void writeRecord(const RecordDigest& record, JsonLines& lines) {
  lines.begin();
  lines.id("record", record.id);
  lines.number("created", record.created);
  lines.number("modified", record.modified);
  lines.number("size", record.size);
  lines.bytes("sha256", "sha256", hexOf(record.payload));
  lines.end();
}

Sha256Digest digestFrom(const std::string& hex) {
  Sha256Digest digest{};
  const auto valueOf = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
  };
  if (hex.size() != 2 * digest.size()) throw BadLine("\"sha256\" is not 64 hexadecimal digits");
  for (size_t i = 0; i < digest.size(); ++i) {
    const int high = valueOf(hex[2 * i]);
    const int low = valueOf(hex[2 * i + 1]);
    if (high < 0 || low < 0) throw BadLine("\"sha256\" is not 64 hexadecimal digits");
    digest[i] = static_cast<std::byte>(high << 4 | low);
  }
  return digest;
}

SavedRecord recordFrom(Members& members) {
  SavedRecord record;
  record.digest.id = members.id("record");
  record.digest.created = static_cast<uint32_t>(members.number("created", UINT32_MAX));
  record.digest.modified = static_cast<uint32_t>(members.number("modified", UINT32_MAX));
  record.digest.size = static_cast<uint32_t>(members.number("size", UINT32_MAX));
  record.digest.payload = digestFrom(members.text("sha256"));
  return record;
}

void takeLine(std::string_view line, uint64_t number, Saved* saved, SavedTable** table) {
  JsonValue object = parseLine(line);
  Members members(object);
  if (!saved->digest.empty()) throw BadLine("nothing may follow the end");
  if (number == 1) {
    if (!members.has("qvdb") || members.text("qvdb") != "digests" ||
        members.number("format", UINT64_MAX) != 1) {
      throw BadLine("it is not the beginning of saved digests of this version");
    }
  } else if (members.has("end")) {
    saved->digest = members.text("sha256");
  } else if (members.has("record")) {
    if (*table == nullptr) throw BadLine("a table's line is missing before it");
    const SavedRecord record = recordFrom(members);
    (*table)->places.emplace(record.digest.id, (*table)->records.size());
    (*table)->records.push_back(record);
  } else {
    const Id id = members.id("id");
    *table = &saved->tables[id];
    (*table)->name = members.bytes("table", "table_base64");
    (*table)->head = line;
  }
}

Saved readSaved(const std::string& path) {
  LineReader reader(path);
  Saved saved;
  SavedTable* table = nullptr;
  try {
    std::string_view line;
    while (reader.next(&line)) takeLine(line, reader.number(), &saved, &table);
    if (saved.digest.empty()) throw BadLine("the end is missing");
  } catch (const BadLine& bad) {
    throw Failure(reader.about(bad.what()) + "; 'qvdb digest --save' makes it again");
  }
  return saved;
}

// Compares table by table, record by record.
class Verifier {
 public:
  explicit Verifier(Saved saved) : saved_(std::move(saved)) {}

  void table(const TableInfo& info, const std::optional<Sha256Digest>& data) {
    name_ = info.name;
    next_ = 0;
    const auto found = saved_.tables.find(info.id);
    current_ = found == saved_.tables.end() ? nullptr : &found->second;
    if (current_ == nullptr) return say("the table is new");
    current_->isThere = true;
    if (headOf(info, data) != current_->head) say("its name, version, flags or data changed");
  }

  void record(const RecordDigest& now) {
    if (current_ == nullptr) return;
    const auto place = current_->places.find(now.id);
    if (place == current_->places.end()) return say(now.id, "is new");
    // One that is there several times is compared in the order of its records.
    size_t at = place->second;
    if (next_ < current_->records.size() && current_->records[next_].digest.id == now.id)
      at = next_;
    SavedRecord& then = current_->records[at];
    isMoved_ = isMoved_ || at < next_;
    next_ = at + 1;
    then.isThere = true;
    if (now.size != then.digest.size || now.payload != then.digest.payload) {
      say(now.id, "its payload changed");
    } else if (!(now == then.digest)) {
      say(now.id, "its times changed");
    }
  }

  void endOfTable() {
    if (current_ == nullptr) return;
    for (const SavedRecord& record : current_->records) {
      if (!record.isThere) say(record.digest.id, "is missing");
    }
    if (isMoved_) say("the order of its records changed");
    isMoved_ = false;
  }

  uint64_t finish(const Sha256Digest& digest) {
    for (const auto& [id, table] : saved_.tables) {
      if (table.isThere) continue;
      name_ = table.name;
      say("the table is missing");
    }
    if (count_ == 0 && hexOf(digest) != saved_.digest) {
      printLine("the header, or the order of the tables, changed");
      ++count_;
    }
    return count_;
  }

 private:
  void say(const std::string& what) {
    printLine("table '" + escaped(name_) + "': " + what);
    ++count_;
  }
  void say(Id record, const char* what) { say("record " + to_string(record) + ": " + what); }

  Saved saved_;
  SavedTable* current_ = nullptr;
  std::string name_;
  size_t next_ = 0;  // place of the record that should come next
  bool isMoved_ = false;
  uint64_t count_ = 0;
};

}  // namespace

std::string pathOfDigests(const std::string& database) {
  return database + ".sha256";
}

void saveDigests(const Database& database, const std::string& path, bool noSync) {
  TextOutputOptions output;
  output.output = path;
  output.force = true;
  output.noSync = noSync;
  writeText(output, database.path().native(), [&](JsonLines& lines) {
    lines.begin();
    lines.bytes("qvdb", "qvdb", "digests");
    lines.number("format", 1);
    lines.end();
    DigestListener listener;
    listener.table = [&](const TableInfo& info, const std::optional<Sha256Digest>& data) {
      writeTableHead(info, data, lines);
    };
    listener.record = [&](const RecordDigest& record) { writeRecord(record, lines); };
    const Sha256Digest digest = digestOf(database, listener);
    lines.begin();
    lines.bytes("end", "end", "digests");
    lines.bytes("sha256", "sha256", hexOf(digest));
    lines.end();
  });
}

uint64_t verifyDigests(const Database& database, const std::string& path) {
  Verifier verifier(readSaved(path));
  DigestListener listener;
  listener.table = [&](const TableInfo& info, const std::optional<Sha256Digest>& data) {
    verifier.table(info, data);
  };
  listener.record = [&](const RecordDigest& record) { verifier.record(record); };
  listener.endOfTable = [&](const Sha256Digest&) { verifier.endOfTable(); };
  return verifier.finish(digestOf(database, listener));
}

}  // namespace qvdb::tool

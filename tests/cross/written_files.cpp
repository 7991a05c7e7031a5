// Database files that come out the same on every machine.
#include "cross/written_files.h"

#include <qvdbase/qvdbase.h>

#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "kit/bytes.h"
#include "kit/file_fields.h"
#include "kit/replaced_calls.h"

namespace qvdbase::test {
namespace {

std::vector<QVWCHAR> wide(const std::filesystem::path& path) {
  const std::u16string text = path.u16string();
  std::vector<QVWCHAR> units(text.begin(), text.end());
  units.push_back(0);
  return units;
}

void succeed(bool answer, const char* call) {
  if (!answer) throw std::runtime_error(std::string(call) + " failed");
}

uint64_t addTable(int16_t db, const char* name) {
  std::srand(1);
  const uint64_t table = AddTable(db, name);
  succeed(table != 0, "AddTable");
  return table;
}

void add(int16_t db, uint64_t table, uint64_t id, const Bytes& data, uint32_t reserve = 0) {
  succeed(AddRecordData_AssignRecordID(db, table, data.data(), static_cast<uint32_t>(data.size()),
                                       reserve, &id) == 1,
          "AddRecordData_AssignRecordID");
}

void modify(int16_t db, uint64_t table, uint64_t id, const Bytes& data) {
  succeed(ModifyRecordData(db, table, data.data(), static_cast<uint32_t>(data.size()), id,
                           nullptr) == 1,
          "ModifyRecordData");
}

// A category of one record.
Bytes category(uint64_t lists) {
  Bytes payload = Bytes().be(8, 0xC1).text("K").zeros(63).be(4, 0x01020304).be(8, 0xD1);
  return payload.be(4, 1).be(8, 0x1122334455667788).be(4, 1).be(8, lists).be(4, 2).text("ab");
}

void writeRecords(const std::filesystem::path& path, uint64_t* clock) {
  std::srand(1);
  const int16_t db = CreateDBaseW(wide(path).data(), "QVdb", 100);
  succeed(db != 0, "CreateDBaseW");
  // Tables take their identifiers from the counter: with the generator afresh, only that differs.
  ++*clock;
  const uint64_t categories = addTable(db, "QVrz_Category");
  ++*clock;
  const uint64_t records = addTable(db, "QVrz_Record");
  add(db, categories, 0xC1, category(0xA1B2C3D4E5F60718));
  add(db, records, 0xA1B2C3D4E5F60718, bytesOf("first"));
  add(db, records, 0x8000000000000002, bytesOf("second"), 300);
  add(db, records, 0xFFFFFFFFFFFFFF03, pattern(1000));
  add(db, records, 0x04, {});
  modify(db, records, 0x8000000000000002, bytesOf("written over"));
  modify(db, records, 0xFFFFFFFFFFFFFF03, pattern(1500, 2));
  succeed(DeleteOneRecord(db, records, 0x04, nullptr) == 1, "DeleteOneRecord");
  const Bytes data = bytesOf("table data");
  succeed(SetTableData(db, records, data.data(), 10, 20) == 1, "SetTableData");
  CloseDBase(db);
}

void pack(const std::filesystem::path& folder) {
  succeed(PackOneDB2NewW(wide(folder / "records.qvd").data(), wide(folder / "packed.qvd").data(), 0,
                         nullptr) == 1,
          "PackOneDB2NewW");
}

void renumber(const std::filesystem::path& folder) {
  const int16_t db = OpenDBaseW(wide(folder / "records.qvd").data(), 1);
  uint16_t from = 0;
  uint16_t to = 0;
  int status = 0;
  std::srand(1);
  const int result = PackOneDB2AllNewUUIDFile(wide(folder / "renumbered.qvd").data(), db, 0,
                                              nullptr, &from, &to, &status, nullptr);
  CloseDBase(db);
  succeed(result == 1, "PackOneDB2AllNewUUIDFile");
}

void repair(const std::filesystem::path& folder) {
  const std::filesystem::path path = folder / "repaired.qvd";
  Bytes file = readFile(folder / "records.qvd");
  // The first record of the second table loses its link to the next.
  const SlotFields slot = decodeSlot(file, 1);
  file.putBe(static_cast<size_t>(slot.firstRecordPos) + 39, 8, 0);
  writeFile(path, file);
  int result = 0;
  FixOneDBLinkErrorW(wide(path).data(), nullptr, 0, nullptr, &result);
  succeed(result == 2, "FixOneDBLinkErrorW");
}

uint64_t counter = 0;

// A number below `limit`, the same ones on every machine.
uint32_t draw(std::mt19937& random, uint32_t limit) {
  return static_cast<uint32_t>(random()) % limit;
}

// One change of a table. Sizes go from nothing to more than any window or buffer of the library
// holds.
void changeAtRandom(int16_t db, uint64_t table, std::mt19937& random, std::vector<uint64_t>& ids) {
  const uint32_t largest = draw(random, 8) == 0 ? 200'000 : 300;
  const uint32_t size = draw(random, largest);
  const Bytes data = pattern(size, draw(random, 250));
  const uint32_t more = draw(random, 500);
  const uint32_t action = draw(random, 10);
  const size_t which = ids.empty() ? 0 : draw(random, static_cast<uint32_t>(ids.size()));
  if (ids.empty() || action < 5) {
    ids.push_back(uint64_t{draw(random, 1'000'000)} << 20 | ids.size());
    add(db, table, ids.back(), data, more < 150 ? more : 0);
  } else if (action < 8) {
    modify(db, table, ids[which], data);
  } else if (action < 9) {
    succeed(DeleteOneRecord(db, table, ids[which], nullptr) == 1, "DeleteOneRecord");
    ids.erase(ids.begin() + static_cast<std::ptrdiff_t>(which));
  } else {
    succeed(SetTableData(db, table, data.data(), size, size + more) == 1, "SetTableData");
  }
}

void writeSequence(const std::filesystem::path& path) {
  std::srand(1);
  const int16_t db = CreateDBaseW(wide(path).data(), "QVdb", 100);
  succeed(db != 0, "CreateDBaseW");
  std::vector<uint64_t> tables;
  for (const char* name : {"one", "two", "three"}) {
    ++counter;
    tables.push_back(addTable(db, name));
  }
  std::mt19937 random(1);
  std::vector<std::vector<uint64_t>> ids(tables.size());
  for (int i = 0; i < 600; ++i) {
    const size_t which = draw(random, static_cast<uint32_t>(tables.size()));
    changeAtRandom(db, tables[which], random, ids[which]);
  }
  CloseDBase(db);
}

}  // namespace

void writeFiles(const std::filesystem::path& folder) {
  counter = kCounter;
  ReplacedCalls calls;
  calls->time = [] { return static_cast<time_t>(kWrittenAt); };
  calls->microseconds = [] { return counter; };
  writeRecords(folder / "records.qvd", &counter);
  pack(folder);
  renumber(folder);
  repair(folder);
  writeSequence(folder / "sequence.qvd");
}

}  // namespace qvdbase::test

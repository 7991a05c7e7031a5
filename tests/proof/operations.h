// The operations that write, on a base state: each opens the file by itself, makes its one call and
// closes the file again.
#pragma once

#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "kit/wide.h"
#include "proof/base_states.h"

namespace qvdbase::test {

struct Operation {
  // What the call may do to the one record that it names.
  enum class Effect {
    none,        // every record stays as it is
    relocates,   // it has either payload
    overwrites,  // it may have a mixture of both payloads: the format does not show which
    removes,     // it may be gone
  };

  std::string name;
  std::function<bool(const std::filesystem::path&)> run;
  Effect effect = Effect::none;
  uint64_t record = 0;
  Bytes payload = {};  // what the record has when the call has returned
};

namespace operations {

using Call = std::function<bool(int16_t)>;

inline std::function<bool(const std::filesystem::path&)> opened(Call call) {
  return [call](const std::filesystem::path& path) {
    const std::u16string wide = path.u16string();
    const int16_t db = OpenDBaseW(WideText(wide).data(), 3);
    if (db == 0) return false;
    const bool result = call(db);
    CloseDBase(db);
    return result;
  };
}

inline Operation append(const std::string& name, uint64_t table, size_t size, uint32_t reserve) {
  return {name, opened([=](int16_t db) {
            uint64_t id = 0;
            const Bytes payload = pattern(size, 31);
            return AddRecordData(db, table, payload.data(), static_cast<uint32_t>(size), reserve,
                                 &id) == 1;
          })};
}

inline Operation assign(uint64_t table) {
  return {"assign", opened([=](int16_t db) {
            const uint64_t id = 0xEE;
            const Bytes payload = pattern(40, 32);
            return AddRecordData_AssignRecordID(db, table, payload.data(), 40, 0, &id) == 1;
          })};
}

inline Operation modify(const std::string& name, uint64_t table, uint64_t record, size_t size,
                        Operation::Effect effect) {
  const Bytes payload = pattern(size, 33);
  return {name, opened([=](int16_t db) {
            return ModifyRecordData(db, table, payload.data(), static_cast<uint32_t>(size), record,
                                    nullptr) == 1;
          }),
          effect, record, payload};
}

inline Operation touch(uint64_t table, uint64_t record) {
  return {"touch",
          opened([=](int16_t db) { return ModifyOneRecordInfo_LMTime(db, table, record) == 1; })};
}

inline Operation remove(const std::string& name, uint64_t table, uint64_t record) {
  return {name,
          opened([=](int16_t db) { return DeleteOneRecord(db, table, record, nullptr) == 1; }),
          Operation::Effect::removes, record};
}

inline Operation setData(const std::string& name, uint64_t table, size_t size, uint32_t reserve) {
  return {name, opened([=](int16_t db) {
            return SetTableData(db, table, pattern(size, 34).data(), static_cast<uint32_t>(size),
                                reserve) == 1;
          })};
}

inline Operation addTable() {
  return {"add a table", opened([](int16_t db) { return AddTable(db, "added") != 0; })};
}

inline Operation setVersion() {
  return {"set the version", opened([](int16_t db) { return SetDBaseVersion(db, 123) == 1; })};
}

inline Operation repair() {
  return {"repair links", [](const std::filesystem::path& path) {
            int result = 0;
            return FixOneDBLinkErrorW(WideText(path.u16string()).data(), nullptr, 0, nullptr,
                                      &result) == 1 &&
                   result != 1;
          }};
}

// A batch of three records.
inline Operation appendAll(uint64_t table) {
  return {"append a batch", [=](const std::filesystem::path& path) {
            try {
              qvdb::Database database = qvdb::Database::open(path, qvdb::Mode::exclusive);
              const Bytes payload = pattern(50, 35);
              const auto bytes = std::as_bytes(std::span(payload.data(), payload.size()));
              const std::vector<qvdb::NewRecord> records = {
                  {bytes.first(10)}, {bytes, 70}, {bytes.first(0)}};
              database.find_table(qvdb::Id{table}).value().append_all(records);
              return true;
            } catch (const std::exception&) {
              return false;
            }
          }};
}

inline void addRecordOperations(const BaseState& base, std::vector<Operation>* all) {
  using Effect = Operation::Effect;
  const std::vector<uint64_t>& ids = base.records;
  if (ids.empty()) return;
  all->push_back(modify("modify in place", base.table, ids[0], 12, Effect::overwrites));
  // Two bytes of the length change, and the number between the two writes exceeds the capacity.
  all->push_back(modify("grow in place", base.table, ids.back(), 300, Effect::overwrites));
  all->push_back(touch(base.table, ids[ids.size() / 2]));
  if (ids.size() == 1) {
    all->push_back(modify("relocate the only one", base.table, ids[0], 600, Effect::relocates));
    all->push_back(remove("delete the only one", base.table, ids[0]));
    return;
  }
  all->push_back(modify("relocate the first", base.table, ids[0], 600, Effect::relocates));
  all->push_back(modify("relocate the last", base.table, ids.back(), 600, Effect::relocates));
  all->push_back(remove("delete the first", base.table, ids[0]));
  all->push_back(remove("delete the last", base.table, ids.back()));
  if (ids.size() == 2) return;
  all->push_back(modify("relocate a middle one", base.table, ids[1], 600, Effect::relocates));
  all->push_back(remove("delete a middle one", base.table, ids[1]));
}

}  // namespace operations

// All operations that make sense on a base state.
inline std::vector<Operation> operationsOn(const BaseState& base) {
  using namespace operations;
  std::vector<Operation> all = {addTable(), setVersion(), repair()};
  if (base.table == 0) return all;
  all.push_back(append("append", base.table, 70, 0));
  all.push_back(append("append with reserve", base.table, 20, 300));
  all.push_back(append("append nothing", base.table, 0, 0));
  if (base.other != 0) all.push_back(append("append to another table", base.other, 30, 0));
  all.push_back(assign(base.table));
  all.push_back(appendAll(base.table));
  all.push_back(setData("set small table data", base.table, 12, 0));
  all.push_back(setData("set large table data", base.table, 90, 120));
  addRecordOperations(base, &all);
  return all;
}

}  // namespace qvdbase::test

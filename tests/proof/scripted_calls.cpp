// The script of calls.
#include "proof/scripted_calls.h"

#include <gtest/gtest.h>
#include <qvdbase/Aliment8.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvrzdb_sub.h>

#include <cstring>

#include "kit/file_image.h"
#include "kit/old_file.h"
#include "platform/host/memory.h"
#include "recovery/check/base_files.h"

namespace qvdbase::test {
namespace {

Bytes sourceFile() {
  FileImage image;
  const size_t notes = image.addTable("notes", Workbench::kNotes);
  const size_t categories = image.addTable("QVrz_Category", Workbench::kCategories);
  const size_t records = image.addTable("QVrz_Record", Workbench::kRecords);
  for (uint64_t i = 0; i < 4; ++i) {
    image.addRecord(notes, 0xA1 + i, pattern(30, unsigned(i)), {.reserve = 50});
  }
  image.setTableData(notes, bytesOf("what the notes are about"), 40);
  image.addRecord(categories, 0xC1, category(0xC1, {0xE1, 0xE2}));
  for (uint64_t i = 0; i < 3; ++i) image.addRecord(records, 0xE1 + i, pattern(33));
  return image.build();
}

// A chain with a forward link cleared, so that a repair has something to write.
Bytes brokenFile() {
  FileImage image;
  const size_t notes = image.addTable("notes", Workbench::kNotes);
  image.addRecord(notes, 0xA1, pattern(30));
  const int64_t second = image.addRecord(notes, 0xA2, pattern(30));
  image.addRecord(notes, 0xA3, pattern(30));
  image.record(second).nextRecordPos = 0;
  return image.build();
}

std::vector<ScriptedCall> g_calls;

// A call under its long and its short name: `make` gets the function.
template <typename Function, typename Make>
void both(const char* longName, const char* shortName, Function* function, Function* same,
          const std::string& variant, Make make) {
  for (const auto& [name, each] : {std::pair(longName, function), std::pair(shortName, same)}) {
    ScriptedCall call = make(each);
    call.symbol = name;
    call.variant = variant;
    g_calls.push_back(std::move(call));
  }
}

ScriptedCall onHandle(std::function<bool(Workbench&)> run) {
  ScriptedCall call;
  call.call = std::move(run);
  return call;
}

ScriptedCall onPath(std::function<bool(Workbench&)> run) {
  ScriptedCall call = onHandle(std::move(run));
  call.wantsHandle = false;
  return call;
}

// A value that no call writes by chance.
constexpr uint64_t kUntouched = 0x5A5A5A5A5A5A5A5A;

bool judged(bool succeeded, bool isUntouched) {
  if (!succeeded) {
    EXPECT_TRUE(isUntouched) << "a failure has written an output";
  }
  return succeeded;
}

// ---- databases ----------------------------------------------------------------------------------

ScriptedCall creating(decltype(CreateDBaseW)* function, const std::string& name) {
  ScriptedCall call =
      onPath([=](Workbench& bench) { return function(bench.wide(name), "QVdb", 100) != 0; });
  call.successLeavesOpen = true;
  call.failureLeavesOpen = true;
  return call;
}

void addDatabaseCalls() {
  both("GenerateUuID_Int64", "PGUI64", GenerateUuID_Int64, PGUI64, "", [](auto* function) {
    return onPath([=](Workbench&) {
      uint64_t id = 0;
      return function(&id) == 1 && id != 0;
    });
  });
  both("CreateDBaseW", "PCDBW", CreateDBaseW, PCDBW, "NewFile",
       [](auto* function) { return creating(function, "new.qvd"); });
  both("CreateDBaseW", "PCDBW", CreateDBaseW, PCDBW, "NewFolders",
       [](auto* function) { return creating(function, "some/where/new.qvd"); });
  both("CreateDBaseW", "PCDBW", CreateDBaseW, PCDBW, "OldFile",
       [](auto* function) { return creating(function, "old.qvd"); });
  for (const int permission : {0, 1, 3, 4}) {
    both("OpenDBaseW", "PCODBW", OpenDBaseW, PCODBW, "Permission" + std::to_string(permission),
         [=](auto* function) {
           ScriptedCall call = onPath([=](Workbench& bench) {
             return function(bench.wide("source.qvd"), permission) != 0;
           });
           call.successLeavesOpen = true;
           return call;
         });
  }
  both("CloseDBase", "PCCDB", CloseDBase, PCCDB, "", [](auto* function) {
    ScriptedCall call = onHandle([=](Workbench& bench) { return function(bench.db) != 0; });
    call.keepsHandle = false;
    return call;
  });
  both("FlushDBase", "PCFDB", FlushDBase, PCFDB, "", [](auto* function) {
    return onHandle([=](Workbench& bench) { return function(bench.db) == 1; });
  });
  both("GetDBaseInfoW", "PGDBIW", GetDBaseInfoW, PGDBIW, "", [](auto* function) {
    return onPath([=](Workbench& bench) {
      uint16_t version = 7;
      const bool done = function(bench.wide("source.qvd"), nullptr, &version, nullptr) == 1;
      EXPECT_EQ(version, done ? 100 : 7);
      return done;
    });
  });
  both("SetDBaseVersion", "PSDBV", SetDBaseVersion, PSDBV, "", [](auto* function) {
    return onHandle([=](Workbench& bench) { return function(bench.db, 0x70) == 1; });
  });
}

// ---- tables -------------------------------------------------------------------------------------

void addTableCalls() {
  both("AddTable", "PCAT", AddTable, PCAT, "", [](auto* function) {
    return onHandle([=](Workbench& bench) { return function(bench.db, "added") != 0; });
  });
  both("FindTableByName", "PCFTBN", FindTableByName, PCFTBN, "", [](auto* function) {
    return onHandle([=](Workbench& bench) {
      const uint64_t id = function(bench.db, "QVrz_Record");
      EXPECT_TRUE(id == 0 || id == Workbench::kRecords);
      return id != 0;
    });
  });
  both("GetNumberOfTable", "PCGNOT", GetNumberOfTable, PCGNOT, "", [](auto* function) {
    return onHandle([=](Workbench& bench) {
      int32_t count = -5;
      const bool done = function(bench.db, &count) == 1;
      EXPECT_EQ(count, done ? 3 : -5);
      return done;
    });
  });
  both("GetTableNameAndIDByIndex", "PCGTNAIDBI", GetTableNameAndIDByIndex, PCGTNAIDBI, "",
       [](auto* function) {
         return onHandle([=](Workbench& bench) {
           char name[33] = "untouched";
           const bool done = function(bench.db, 2, name) == Workbench::kRecords;
           EXPECT_STREQ(name, done ? "QVrz_Record" : "untouched");
           return done;
         });
       });
  struct Size {
    const char* variant;
    uint32_t size;
    uint32_t reserve;
  };
  for (const Size& each : {Size{"InPlace", 40, 0}, Size{"NewBlock", 80, 200}}) {
    both("SetTableData", "PCSTD", SetTableData, PCSTD, each.variant, [=](auto* function) {
      return onHandle([=](Workbench& bench) {
        return function(bench.db, Workbench::kNotes, pattern(each.size).data(), each.size,
                        each.reserve) == 1;
      });
    });
  }
  both("GetTableData", "PCGTD", GetTableData, PCGTD, "", [](auto* function) {
    return onHandle([=](Workbench& bench) {
      char data[256] = "";
      const bool done = function(bench.db, Workbench::kNotes, data) == 1;
      if (done) {
        EXPECT_STREQ(data, "what the notes are about");
      }
      return done;
    });
  });
  both("GetTableDataSize", "PCGTDS", GetTableDataSize, PCGTDS, "", [](auto* function) {
    return onHandle([=](Workbench& bench) {
      uint32_t size = 7;
      const bool done = function(bench.db, Workbench::kNotes, &size) == 1;
      EXPECT_EQ(size, done ? 24u : 7u);
      return done;
    });
  });
}

// ---- records ------------------------------------------------------------------------------------

void addAppendingCalls() {
  for (const uint32_t reserve : {0u, 200u}) {
    const std::string variant = reserve == 0 ? "Exact" : "WithReserve";
    both("AddRecordData", "PCARD", AddRecordData, PCARD, variant, [=](auto* function) {
      return onHandle([=](Workbench& bench) {
        uint64_t id = kUntouched;
        const bool done =
            function(bench.db, Workbench::kNotes, pattern(60).data(), 60, reserve, &id) == 1;
        return judged(done, id == kUntouched);
      });
    });
    both("AddRecordData_AssignRecordID", "PCARDARID", AddRecordData_AssignRecordID, PCARDARID,
         variant, [=](auto* function) {
           return onHandle([=](Workbench& bench) {
             const uint64_t id = 0xAE;
             return function(bench.db, Workbench::kNotes, pattern(60).data(), 60, reserve, &id) ==
                    1;
           });
         });
  }
}

void addReadingCalls() {
  both("GetOneRecordInfo", "PCGORI", GetOneRecordInfo, PCGORI, "", [](auto* function) {
    return onHandle([=](Workbench& bench) {
      oneRecordInfoP1 info = {};
      const bool done = function(bench.db, Workbench::kNotes, 0xA4, &info, nullptr) == 1;
      if (done) {
        EXPECT_EQ(info.recordID, 0xA4u);
        EXPECT_EQ(info.dataLength, 30u);
        EXPECT_EQ(info.dataCapacity, 50u);
      }
      return done;
    });
  });
  both("GetNumberOfRecords", "PCGNOR", GetNumberOfRecords, PCGNOR, "", [](auto* function) {
    return onHandle([=](Workbench& bench) {
      uint32_t count = 7;
      const bool done = function(bench.db, Workbench::kNotes, &count) == 1;
      EXPECT_EQ(count, done ? 4u : 0u);
      return done;
    });
  });
  both("GetRecordUuIDList", "PCGRUIDL", GetRecordUuIDList, PCGRUIDL, "", [](auto* function) {
    return onHandle([=](Workbench& bench) {
      uint64_t list[4] = {};
      uint32_t count = 0;
      const bool done = function(bench.db, Workbench::kNotes, list, &count) == 1;
      EXPECT_TRUE(done ? count == 4u : count <= 4u) << count;
      for (uint32_t i = 0; i < count && i < 4; ++i) EXPECT_EQ(list[i], 0xA1 + i);
      return done;
    });
  });
}

void addChangingCalls() {
  both("ModifyOneRecordInfo_LMTime", "PCMORILMT", ModifyOneRecordInfo_LMTime, PCMORILMT, "",
       [](auto* function) {
         ScriptedCall call = onHandle(
             [=](Workbench& bench) { return function(bench.db, Workbench::kNotes, 0xA2) == 1; });
         call.failureMayMove = true;
         return call;
       });
  // The payload of the second record is at 4,630 + 106 + 55.
  struct Change {
    const char* variant;
    uint64_t record;
    uint32_t size;
    int64_t positionAfter;
  };
  for (const Change& each : {Change{"InPlace", 0xA2, 45, 4630 + 106 + 55 + 45},
                             Change{"RelocatingTheFirst", 0xA1, 90, Workbench::kPosition},
                             Change{"RelocatingAMiddleOne", 0xA2, 90, Workbench::kPosition},
                             Change{"RelocatingTheLast", 0xA4, 90, Workbench::kPosition}}) {
    both("ModifyRecordData", "PCMRD", ModifyRecordData, PCMRD, each.variant, [=](auto* function) {
      ScriptedCall call = onHandle([=](Workbench& bench) {
        return function(bench.db, Workbench::kNotes, pattern(each.size, 5).data(), each.size,
                        each.record, nullptr) == 1;
      });
      call.positionAfter = each.positionAfter;
      return call;
    });
  }
  struct Removal {
    const char* variant;
    uint64_t table;
    uint64_t record;
  };
  for (const Removal& each :
       {Removal{"First", Workbench::kNotes, 0xA1}, Removal{"Middle", Workbench::kNotes, 0xA2},
        Removal{"Last", Workbench::kNotes, 0xA4}, Removal{"Only", Workbench::kCategories, 0xC1}}) {
    both("DeleteOneRecord", "PCDOR", DeleteOneRecord, PCDOR, each.variant, [=](auto* function) {
      return onHandle([=](Workbench& bench) {
        return function(bench.db, each.table, each.record, nullptr) == 1;
      });
    });
  }
}

// ---- maintenance --------------------------------------------------------------------------------

void addPackCalls() {
  for (const char* target : {"new.qvd", "old.qvd"}) {
    const std::string variant = target == std::string("new.qvd") ? "NewFile" : "OldFile";
    both("PackOneDB2NewW", "PCPOD2NW", PackOneDB2NewW, PCPOD2NW, variant, [=](auto* function) {
      ScriptedCall call = onPath([=](Workbench& bench) {
        return function(bench.wide("source.qvd"), bench.wide(target), 0, nullptr) == 1;
      });
      // Without memory for the header it is left out. The mark of an unfinished pack may fail.
      call.passesOver = {Call::allocate, Call::write};
      return call;
    });
    both("PackOneDB2AllNewUUIDFile", "PCPOD2ANUUIDF", PackOneDB2AllNewUUIDFile, PCPOD2ANUUIDF,
         variant, [=](auto* function) {
           ScriptedCall call = onHandle([=](Workbench& bench) {
             uint16_t source = 0;
             uint16_t destination = 0;
             int status = 0;
             const bool done = function(bench.wide(target), bench.db, 0, nullptr, &source,
                                        &destination, &status, nullptr) == 1;
             EXPECT_TRUE(status == 0 || (status == 100 && !done)) << status;
             return done;
           });
           // Besides, an entry of a category that cannot be read stays unset.
           call.passesOver = {Call::allocate, Call::read};
           return call;
         });
  }
  both("PackOneDB2New_WithHandle", "PCPOD2NWH", PackOneDB2New_WithHandle, PCPOD2NWH, "",
       [](auto* function) {
         ScriptedCall call = onPath([=](Workbench& bench) {
           uint16_t source = 0;
           uint16_t destination = 0;
           int status = 0;
           const bool done = function(bench.wide("bare.qvd"), bench.wide("new.qvd"), 0, nullptr,
                                      &source, &destination, &status) == 1;
           EXPECT_EQ(source, 0);
           EXPECT_TRUE(status == 0 || (status == 100 && !done)) << status;
           return done;
         });
         call.passesOver = {Call::allocate};
         return call;
       });
}

void addMaintenanceCalls() {
  for (const char* file : {"source.qvd", "broken.qvd"}) {
    const bool isBroken = file == std::string("broken.qvd");
    both("FixOneDBLinkErrorW", "PCFODBLEW", FixOneDBLinkErrorW, PCFODBLEW,
         isBroken ? "Broken" : "Sound", [=](auto* function) {
           ScriptedCall call = onPath([=](Workbench& bench) {
             int result = -5;
             const bool done = function(bench.wide(file), nullptr, 0, nullptr, &result) == 1;
             if (done) {
               EXPECT_TRUE(result >= 0 && result <= 2) << result;
             }
             return done && result == (isBroken ? 2 : 0);
           });
           call.takesErrorForDamage = true;
           return call;
         });
  }
  // It has never been able to succeed; the script counts what it always does as success.
  both("DupFrameForRzbd3W", "PCDFFW3W", DupFrameForRzbd3W, PCDFFW3W, "", [](auto* function) {
    ScriptedCall call = onPath([=](Workbench& bench) {
      int status = -5;
      EXPECT_EQ(function(bench.wide("source.qvd"), bench.wide("new.qvd"), &status), 0);
      EXPECT_TRUE(status == 0 || status == 100) << status;
      return status == 0;
    });
    call.successLeavesOpen = true;
    call.failureLeavesOpen = true;
    return call;
  });
}

// ---- category records ---------------------------------------------------------------------------

void addCategoryCalls() {
  ScriptedCall reading = onHandle([](Workbench& bench) {
    oneRecordInfoP1 info = {};
    info.tableID = Workbench::kCategories;
    info.recordID = 0xC1;
    // Behind four records of 106 bytes and a block of table data of 62.
    info.recordPos = 4630 + 4 * 106 + 62;
    info.dataPos = info.recordPos + 55;
    info.dataLength = info.dataCapacity = 96 + 8 + 16 + 3;
    qvrzOneCategoryRecord record = {};
    record.extraData = static_cast<unsigned char*>(platform::allocate(info.dataLength));
    if (record.extraData == nullptr) return false;
    qvrzOneCategoryRecord* pointer = &record;
    const bool done = InternalReadOneRecord2CategoryStruct(bench.db, &info, &pointer) == 1;
    // A first field that cannot be read is a success that decodes nothing.
    if (done && record.categoryID != 0) {
      EXPECT_EQ(record.secondIDCount, 2);
      EXPECT_TRUE(record.secondIDs != nullptr);
    }
    platform::release(record.firstIDs);
    platform::release(record.secondIDs);
    platform::release(record.extraData);
    return done && record.categoryID == 0xC1;
  });
  reading.symbol = "InternalReadOneRecord2CategoryStruct";
  reading.failureMayMove = true;
  g_calls.push_back(reading);

  ScriptedCall encoding = onPath([](Workbench&) {
    qvrzOneCategoryRecord record = {};
    uint64_t id = 0xE1;
    record.secondIDCount = 1;
    record.secondIDs = &id;
    uint32_t length = 7;
    unsigned char* const payload = InternalPutOneCategory2Buffer(0, &record, &length);
    EXPECT_EQ(length, payload != nullptr ? 104u : 7u);
    platform::release(payload);
    return payload != nullptr;
  });
  encoding.symbol = "InternalPutOneCategory2Buffer";
  g_calls.push_back(encoding);

  ScriptedCall converting = onPath([](Workbench&) {
    qvrzOneCategoryRecord record = {};
    uint64_t id = 0xE1;
    record.secondIDCount = 1;
    record.secondIDs = &id;
    const UUIDMapping pair = {0xE1, 0xF1};
    qvrzOneCategoryRecord* pointer = &record;
    return InternalConvertOldCategoryID2New(&pointer, &pair, 1) == 1 && id == 0xF1;
  });
  converting.symbol = "InternalConvertOldCategoryID2New";
  g_calls.push_back(converting);
}

// ---- the buffer codec: asks nothing of the host -------------------------------------------------

template <typename Value, typename Put, typename Get>
void addNumber(const std::string& type, Put put, Get get, Value value) {
  const auto call = [=](Workbench&) {
    unsigned char buffer[8] = {};
    Value back = 0;
    return put(buffer, value) == int(sizeof value) && get(buffer, &back) == int(sizeof value) &&
           back == value;
  };
  for (const char* direction : {"PutToBuffer_", "GetFromBuffer_"}) {
    ScriptedCall scripted = onPath(call);
    scripted.symbol = direction + type;
    g_calls.push_back(scripted);
  }
}

void addCodecCalls() {
  addNumber<unsigned char>("BYTE", PutToBuffer_BYTE, GetFromBuffer_BYTE, 0x12);
  addNumber<uint16_t>("Int16", PutToBuffer_Int16, GetFromBuffer_Int16, 0x1234);
  addNumber<uint32_t>("Int32", PutToBuffer_Int32, GetFromBuffer_Int32, 0x12345678);
  addNumber<uint64_t>("Int64", PutToBuffer_Int64, GetFromBuffer_Int64, 0x123456789ABCDEF0);
  for (const char* symbol : {"RZPutQVWCHAR2Buffer", "RZGetQVWCHARFromBuffer"}) {
    ScriptedCall scripted = onPath([](Workbench&) {
      const QVWCHAR text[2] = {0x1234, 0x5678};
      QVWCHAR back[2] = {};
      unsigned char buffer[4] = {};
      RZPutQVWCHAR2Buffer(buffer, text, 4);
      RZGetQVWCHARFromBuffer(back, buffer, 4);
      return std::memcmp(text, back, sizeof text) == 0;
    });
    scripted.symbol = symbol;
    g_calls.push_back(scripted);
  }
}

}  // namespace

void Workbench::reset() {
  for (const auto& each : std::filesystem::directory_iterator(folder.path())) {
    std::filesystem::remove_all(each.path());
  }
  static const Bytes source = sourceFile();
  static const Bytes broken = brokenFile();
  static const Bytes bare = FileImage().build();
  writeFile(folder / "source.qvd", source);
  writeFile(folder / "broken.qvd", broken);
  writeFile(folder / "bare.qvd", bare);
  writeFile(folder / "old.qvd", bytesOf("something older"));
  for (const char* name : {"source.qvd", "broken.qvd", "bare.qvd"}) makeOld(folder / name);
}

std::vector<std::pair<std::string, Bytes>> Workbench::files() const {
  std::vector<std::pair<std::string, Bytes>> result;
  for (const auto& each : std::filesystem::recursive_directory_iterator(folder.path())) {
    if (!each.is_regular_file()) continue;
    result.emplace_back(each.path().filename().string(), readFile(each.path()));
  }
  std::sort(result.begin(), result.end());
  return result;
}

const std::vector<ScriptedCall>& scriptedCalls() {
  if (g_calls.empty()) {
    addDatabaseCalls();
    addTableCalls();
    addAppendingCalls();
    addReadingCalls();
    addChangingCalls();
    addPackCalls();
    addMaintenanceCalls();
    addCategoryCalls();
    addCodecCalls();
  }
  return g_calls;
}

}  // namespace qvdbase::test

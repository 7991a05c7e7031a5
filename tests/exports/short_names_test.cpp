// The short names: each does on one database what the long name does on an equal one, with the same
// result, the same outputs and the same file afterwards.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kit/maintenance_fixture.h"

namespace qvdbase::test {
namespace {

// What a call gave: its result and its outputs, in bytes.
struct Outcome {
  uint64_t result = 0;
  Bytes outputs;
  Bytes file;
  Bytes target;

  template <typename Value>
  Outcome& out(const Value& value) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
    outputs.insert(outputs.end(), bytes, bytes + sizeof value);
    return *this;
  }
};

template <typename Result>
Outcome result(Result value) {
  Outcome outcome;
  outcome.result = static_cast<uint64_t>(value);
  return outcome;
}

class ShortNames : public MaintenanceTest {
 protected:
  ShortNames() {
    host.setTime(0x5F5E1000);
    host.setMicroseconds(123456);
    allowDamage(kSource);
    allowDamage(kTarget);
  }
  ~ShortNames() override { host.excuseBlocks(); }

  static constexpr uint64_t kTable = LivelyDatabase::kOne;

  // Runs both on equal files, with the database open and from the same clock and generator.
  template <typename Call>
  void expectEqual(Call longName, Call shortName) {
    const Outcome first = run(longName);
    const Outcome second = run(shortName);
    EXPECT_EQ(first.result, second.result);
    EXPECT_EQ(first.outputs, second.outputs);
    EXPECT_TRUE(sameBytes(first.file, second.file));
    EXPECT_TRUE(sameBytes(first.target, second.target));
  }

  using Operation = std::function<Outcome(int16_t db)>;
  Outcome run(const Operation& operation) {
    LivelyDatabase lively;
    lively.image.addTable("QVrz_Category", 0x505);
    putSource(lively.image);
    removeTarget();
    const int16_t db = OpenDBaseW(wide(kSource), 4);
    EXPECT_EQ(db, 1);
    std::srand(7);
    Outcome outcome = operation(db);
    for (int16_t file = 1; file < 20; ++file) CloseDBase(file);
    outcome.file = contents(kSource);
    if (targetExists()) outcome.target = contents(kTarget);
    return outcome;
  }

  // Runs the operation, written once for either name, with both.
  template <typename Function>
  void expectSame(Function longName, Function shortName,
                  const std::function<Outcome(Function, int16_t)>& call) {
    expectEqual<Operation>([&](int16_t db) { return call(longName, db); },
                           [&](int16_t db) { return call(shortName, db); });
  }

  RecordedCalls host;
};

using Path = const QVWCHAR*;

TEST_F(ShortNames, PGUI64) {
  expectSame<decltype(&PGUI64)>(GenerateUuID_Int64, PGUI64, [](auto call, int16_t) {
    uint64_t id = 0;
    const int done = call(&id);
    EXPECT_NE(id, 0u);
    return result(done).out(id).out(call(nullptr));
  });
}

TEST_F(ShortNames, PCDBW) {
  expectSame<decltype(&PCDBW)>(CreateDBaseW, PCDBW, [this](auto call, int16_t) {
    return result(call(wide(kTarget), "qVab", 123)).out(call(nullptr, "qVab", 123));
  });
}

TEST_F(ShortNames, PCODBW) {
  expectSame<decltype(&PCODBW)>(OpenDBaseW, PCODBW, [this](auto call, int16_t) {
    const int16_t db = call(wide(kSource), 1);
    EXPECT_EQ(db, 2);
    return result(db).out(call(nullptr, 1)).out(call(wide(kSource), 5));
  });
}

TEST_F(ShortNames, PGDBIW) {
  expectSame<decltype(&PGDBIW)>(GetDBaseInfoW, PGDBIW, [this](auto call, int16_t) {
    unsigned char signature[5] = {};
    uint16_t version = 0;
    unsigned char id[10] = {};
    const int done = call(wide(kSource), signature, &version, id);
    EXPECT_EQ(version, 123);
    return result(done).out(signature).out(version).out(id).out(
        call(nullptr, nullptr, nullptr, nullptr));
  });
}

TEST_F(ShortNames, PCCDB) {
  expectSame<decltype(&PCCDB)>(CloseDBase, PCCDB, [](auto call, int16_t db) {
    const uint16_t closed = call(db);
    EXPECT_EQ(position(db), -1);
    return result(closed).out(call(db)).out(call(0));
  });
}

TEST_F(ShortNames, PCFDB) {
  expectSame<decltype(&PCFDB)>(FlushDBase, PCFDB,
                               [](auto call, int16_t db) { return result(call(db)).out(call(0)); });
}

TEST_F(ShortNames, PSDBV) {
  expectSame<decltype(&PSDBV)>(SetDBaseVersion, PSDBV, [](auto call, int16_t db) {
    return result(call(db, 0x0102)).out(call(0, 3));
  });
}

TEST_F(ShortNames, PCAT) {
  expectSame<decltype(&PCAT)>(AddTable, PCAT, [](auto call, int16_t db) {
    const uint64_t table = call(db, "a new one");
    EXPECT_NE(table, 0u);
    return result(table).out(call(db, nullptr)).out(call(db, "one"));
  });
}

TEST_F(ShortNames, PCFTBN) {
  expectSame<decltype(&PCFTBN)>(FindTableByName, PCFTBN, [](auto call, int16_t db) {
    const uint64_t table = call(db, "one");
    EXPECT_EQ(table, kTable);
    return result(table).out(call(db, nullptr)).out(call(db, "nope"));
  });
}

TEST_F(ShortNames, PCGNOT) {
  expectSame<decltype(&PCGNOT)>(GetNumberOfTable, PCGNOT, [](auto call, int16_t db) {
    int32_t count = 0;
    const int done = call(db, &count);
    EXPECT_EQ(count, 4);
    return result(done).out(count).out(call(db, nullptr));
  });
}

TEST_F(ShortNames, PCGTNAIDBI) {
  expectSame<decltype(&PCGTNAIDBI)>(
      GetTableNameAndIDByIndex, PCGTNAIDBI, [](auto call, int16_t db) {
        char name[33] = {};
        const uint64_t table = call(db, 1, name);
        EXPECT_EQ(table, LivelyDatabase::kTwo);
        return result(table).out(name).out(call(db, 9, name)).out(call(db, 1, nullptr));
      });
}

TEST_F(ShortNames, PCSTD) {
  expectSame<decltype(&PCSTD)>(SetTableData, PCSTD, [](auto call, int16_t db) {
    const Bytes data = pattern(40);
    return result(call(db, kTable, data.data(), 40, 60)).out(call(db, kTable, nullptr, 1, 0));
  });
}

TEST_F(ShortNames, PCGTDS) {
  expectSame<decltype(&PCGTDS)>(GetTableDataSize, PCGTDS, [](auto call, int16_t db) {
    uint32_t size = 0;
    const int done = call(db, kTable, &size);
    EXPECT_EQ(size, 11u);
    return result(done).out(size).out(call(db, kTable, nullptr)).out(call(db, 0x99, &size));
  });
}

TEST_F(ShortNames, PCGTD) {
  expectSame<decltype(&PCGTD)>(GetTableData, PCGTD, [](auto call, int16_t db) {
    char data[11] = {};
    const int done = call(db, kTable, data);
    EXPECT_EQ(std::memcmp(data, "data of one", 11), 0);
    return result(done).out(data).out(call(db, kTable, nullptr));
  });
}

TEST_F(ShortNames, PCARD) {
  expectSame<decltype(&PCARD)>(AddRecordData, PCARD, [](auto call, int16_t db) {
    const Bytes data = pattern(40);
    uint64_t id = 0;
    const int done = call(db, kTable, data.data(), 40, 60, &id);
    return result(done).out(id).out(call(db, kTable, data.data(), 40, 60, nullptr));
  });
}

TEST_F(ShortNames, PCARDARID) {
  expectSame<decltype(&PCARDARID)>(AddRecordData_AssignRecordID, PCARDARID,
                                   [](auto call, int16_t db) {
                                     const Bytes data = pattern(40);
                                     const uint64_t id = 0x1234;
                                     return result(call(db, kTable, data.data(), 40, 60, &id))
                                         .out(call(db, kTable, data.data(), 40, 60, nullptr));
                                   });
}

TEST_F(ShortNames, PCGNOR) {
  expectSame<decltype(&PCGNOR)>(GetNumberOfRecords, PCGNOR, [](auto call, int16_t db) {
    uint32_t count = 0;
    const int done = call(db, kTable, &count);
    EXPECT_EQ(count, 3u);
    return result(done).out(count).out(call(db, 0x99, &count)).out(count);
  });
}

TEST_F(ShortNames, PCGRUIDL) {
  expectSame<decltype(&PCGRUIDL)>(GetRecordUuIDList, PCGRUIDL, [](auto call, int16_t db) {
    uint64_t list[3] = {};
    uint32_t count = 0;
    const int done = call(db, kTable, list, &count);
    EXPECT_EQ(list[2], LivelyDatabase::kC);
    return result(done).out(list).out(count).out(call(db, kTable, nullptr, &count));
  });
}

TEST_F(ShortNames, PCGORI) {
  expectSame<decltype(&PCGORI)>(GetOneRecordInfo, PCGORI, [](auto call, int16_t db) {
    oneRecordInfoP1 info{};
    const int done = call(db, kTable, LivelyDatabase::kB, &info, nullptr);
    EXPECT_EQ(info.dataLength, 6u);
    return result(done).out(info).out(call(db, kTable, LivelyDatabase::kB, nullptr, nullptr));
  });
}

TEST_F(ShortNames, PCMORILMT) {
  expectSame<decltype(&PCMORILMT)>(
      ModifyOneRecordInfo_LMTime, PCMORILMT, [](auto call, int16_t db) {
        return result(call(db, kTable, LivelyDatabase::kB)).out(call(db, kTable, 0x99));
      });
}

TEST_F(ShortNames, PCMRD) {
  expectSame<decltype(&PCMRD)>(ModifyRecordData, PCMRD, [](auto call, int16_t db) {
    const Bytes data = pattern(40);
    return result(call(db, kTable, data.data(), 40, LivelyDatabase::kB, nullptr))
        .out(call(db, kTable, nullptr, 40, LivelyDatabase::kB, nullptr));
  });
}

TEST_F(ShortNames, PCDOR) {
  expectSame<decltype(&PCDOR)>(DeleteOneRecord, PCDOR, [](auto call, int16_t db) {
    return result(call(db, kTable, LivelyDatabase::kB, nullptr))
        .out(call(db, kTable, LivelyDatabase::kB, nullptr));
  });
}

// The whole-file operations; the log has their progress.

TEST_F(ShortNames, PCPOD2NW) {
  expectSame<decltype(&PCPOD2NW)>(PackOneDB2NewW, PCPOD2NW, [this](auto call, int16_t) {
    ProgressLog log;
    Outcome outcome = result(call(wide(kSource), wide(kTarget), 7, ProgressLog::function));
    for (const ProgressLog::Entry& entry : log.entries) outcome.out(entry.first).out(entry.second);
    return outcome.out(call(nullptr, wide(kTarget), 7, nullptr));
  });
}

TEST_F(ShortNames, PCPOD2NWH) {
  for (const bool withTables : {false, true}) {
    expectSame<decltype(&PCPOD2NWH)>(
        PackOneDB2New_WithHandle, PCPOD2NWH, [&](auto call, int16_t db) {
          ProgressLog log;
          uint16_t src = 9;
          uint16_t dst = 9;
          int status = 9;
          if (!withTables) {
            CloseDBase(db);
            putSource(FileImage());
          }
          const int done =
              call(wide(kSource), wide(kTarget), 7, ProgressLog::function, &src, &dst, &status);
          EXPECT_EQ(done, withTables ? 0 : 1);
          return result(done).out(src).out(dst).out(status).out(log.entries.size());
        });
  }
}

TEST_F(ShortNames, PCPOD2ANUUIDF) {
  expectSame<decltype(&PCPOD2ANUUIDF)>(
      PackOneDB2AllNewUUIDFile, PCPOD2ANUUIDF, [this](auto call, int16_t db) {
        ProgressLog log;
        uint16_t src = 9;
        uint16_t dst = 9;
        int status = 9;
        const int done =
            call(wide(kTarget), db, 7, ProgressLog::function, &src, &dst, &status, this);
        EXPECT_EQ(done, 1);
        EXPECT_EQ(log.entries.at(0), (ProgressLog::Entry{7, 1, this}));
        return result(done).out(src).out(dst).out(status).out(log.entries.size());
      });
}

TEST_F(ShortNames, PCFODBLEW) {
  expectSame<decltype(&PCFODBLEW)>(FixOneDBLinkErrorW, PCFODBLEW, [this](auto call, int16_t) {
    ProgressLog log;
    patchFile(path(kSource), 4630 + 25 + 39, Bytes(8, 0));  // the first record's next link
    int outcome = 9;
    const int done = call(wide(kSource), ProgressLog::function, 7, this, &outcome);
    EXPECT_EQ(outcome, 2);
    EXPECT_EQ(log.entries.at(0), (ProgressLog::Entry{1, 7, this}));
    return result(done)
        .out(outcome)
        .out(log.entries.size())
        .out(call(nullptr, nullptr, 0, nullptr, &outcome));
  });
}

TEST_F(ShortNames, PCDFFW3W) {
  expectSame<decltype(&PCDFFW3W)>(DupFrameForRzbd3W, PCDFFW3W, [this](auto call, int16_t) {
    int status = 9;
    const int done = call(wide(kSource), wide(kTarget), &status);
    EXPECT_EQ(status, 0);
    return result(done).out(status).out(call(nullptr, nullptr, &status)).out(status);
  });
}

}  // namespace
}  // namespace qvdbase::test

// The fixture for tests on whole-file operations: a source with everything in it that a pack has to
// tell apart, and checks that nothing stays open behind an operation.
#pragma once

#include <qvdbase/QVFile.h>
#include <qvdbase/caches.h>

#include <functional>
#include <string>

#include "kit/database_fixture.h"
#include "kit/progress_log.h"
#include "kit/recorded_calls.h"

namespace qvdbase::test {

inline constexpr const char* kSource = "source.qvd";
inline constexpr const char* kTarget = "target.qvd";

class MaintenanceTest : public DatabaseTest {
 protected:
  ~MaintenanceTest() override {
    for (int16_t file = 1; file < 20; ++file) {
      EXPECT_EQ(position(file), -1) << "file number " << file << " stayed open";
      EXPECT_EQ(SearchForGDB2TCache(file), -1) << "file number " << file << " stayed in the cache";
    }
  }

  void putSource(const FileImage& image) { writeFile(path(kSource), image.build()); }
  void putSource(const Bytes& bytes) { writeFile(path(kSource), bytes); }

  bool targetExists() const { return std::filesystem::exists(path(kTarget)); }

  // What a failed operation leaves of a target that it made: the file, without its bytes.
  void expectTargetEmptied() {
    EXPECT_TRUE(targetExists());
    EXPECT_EQ(fileSize(kTarget), 0u);
    allowDamage(kTarget);
  }

  void removeTarget() { std::filesystem::remove(path(kTarget)); }
};

// Tables "one", "two", "three". One: records A, B (in a block that has moved), C, with a deleted
// record between them, and table data that has moved too. Two: table data only. Three: nothing.
struct LivelyDatabase {
  static constexpr uint64_t kOne = 0x1122334455667788;
  static constexpr uint64_t kTwo = 0x202;
  static constexpr uint64_t kThree = 0x303;
  static constexpr uint64_t kA = 0xA1;
  static constexpr uint64_t kB = 0xB2;
  static constexpr uint64_t kC = 0xC3;

  static RecordOptions optionsOfA() { return {.reserve = 20, .createTime = 11, .modifyTime = 12}; }
  static RecordOptions optionsOfB() { return {.reserve = 0, .createTime = 21, .modifyTime = 22}; }
  static RecordOptions optionsOfC() { return {.reserve = 0, .createTime = 31, .modifyTime = 32}; }

  FileImage image;
  int64_t a = 0;
  int64_t b = 0;
  int64_t c = 0;
  int64_t dataOfOne = 0;
  int64_t dataOfTwo = 0;

  LivelyDatabase() {
    image.header().signature = bytesOf("qVxy");
    image.header().version = 123;
    addTables(image);
    image.setTableData(0, bytesOf("old"));
    a = image.addRecord(0, kA, bytesOf("first"), optionsOfA());
    addDead(0xDD, "deleted");
    addDead(kB, "se");
    dataOfTwo = image.setTableData(1, bytesOf("data of two"), 30);
    b = image.addRecord(0, kB, bytesOf("second"), optionsOfB());
    dataOfOne = image.setTableData(0, bytesOf("data of one"));
    c = image.addRecord(0, kC, {}, optionsOfC());
    image.slot(0).recordWriteCount = 4;
    image.slot(0).tableFlags1 = 0x1234;
    image.slot(1).tableVersion = 101;
  }

  static void addTables(FileImage& target) {
    target.addTable("one", kOne);
    target.addTable("two", kTwo);
    target.addTable("three", kThree);
  }

  void addDead(uint64_t id, std::string_view data) {
    RecordFields dead;
    dead.tableID = identifier(kOne);
    dead.recordID = identifier(id);
    dead.room = bytesOf(data);
    dead.dataLength = dead.dataCapacity = static_cast<uint32_t>(data.size());
    image.addDeadRecord(dead);
  }

  // What a pack makes of it: data of one, A, B, C, data of two.
  FileImage packed() {
    FileImage target;
    target.header() = image.header();
    target.header().version = 100;
    target.header().tableCount = 0;  // addTables counts
    addTables(target);
    target.slot(0).tableFlags1 = 0x1234;
    target.slot(1).tableVersion = 101;
    target.setTableData(0, bytesOf("data of one"));
    target.addRecord(0, kA, bytesOf("first"), optionsOfA());
    target.addRecord(0, kB, bytesOf("second"), optionsOfB());
    target.addRecord(0, kC, {}, optionsOfC());
    target.setTableData(1, bytesOf("data of two"), 30);
    // The first record has put the source's table-data positions back.
    SlotFields& one = target.slot(0);
    one.dataWriteCount = 2;
    one.firstDataPos = one.lastWrittenDataPos = one.lastDataPos = dataOfOne;
    return target;
  }
};

}  // namespace qvdbase::test

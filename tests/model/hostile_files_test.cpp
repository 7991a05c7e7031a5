// Every operation on files that are damaged at random: whatever is in them, the library answers,
// puts the position back and stays inside its buffers. The sanitizer build watches the last part.
//
// Seeds and RC_PARAMS as in random_operations_test.cpp.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>
#include <rapidcheck.h>

#include <functional>
#include <ostream>
#include <vector>

#include "kit/file_image.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {
namespace {

constexpr uint64_t kTable = 0x1101;
constexpr uint64_t kOtherTable = 0x2202;

// Two tables with chains, table data and dead blocks.
Bytes soundFile() {
  FileImage image;
  const size_t notes = image.addTable("notes", kTable);
  const size_t other = image.addTable("other", kOtherTable);
  const int64_t first = image.addRecord(notes, 0xA1, bytesOf("first"));
  image.setTableData(notes, bytesOf("old"));
  image.addRecord(other, 0xB1, bytesOf("other's"), {.reserve = 9});
  image.addRecord(notes, 0xA2, bytesOf("second"), {.reserve = 20});
  image.addDeadRecord(image.record(first));
  image.setTableData(notes, bytesOf("newer"), 30);
  image.addRecord(notes, 0xA3, {});
  image.addRecord(notes, 0xA4, pattern(200));
  return image.build();
}

// A number written somewhere into the file, in one of the two byte orders.
struct Patch {
  size_t offset = 0;
  size_t width = 1;
  bool bigEndian = true;
  uint64_t value = 0;
};

std::ostream& operator<<(std::ostream& out, const Patch& patch) {
  return out << patch.width << " bytes at " << patch.offset
             << (patch.bigEndian ? " big" : " little") << "-endian: " << patch.value << "\n";
}

// Header, the first slots, and the blocks, each as often as the others.
rc::Gen<size_t> anyOffset() {
  const size_t end = soundFile().size();
  return rc::gen::oneOf(rc::gen::inRange<size_t>(0, 22), rc::gen::inRange<size_t>(22, 22 + 3 * 144),
                        rc::gen::inRange<size_t>(kDirectoryEnd, end));
}

// The numbers that hurt most: ends of ranges, the places of things, small ones.
rc::Gen<uint64_t> anyValue() {
  const uint64_t end = soundFile().size();
  return rc::gen::oneOf(
      rc::gen::element<uint64_t>(0, 1, 22, 135, 150, 4630, 4691, end - 1, end, end + 1, 0x7FFFFFFF,
                                 0x80000000, 0xFFFFFFFF, 0xFFFFFFC8, 0x7FFFFFFFFFFFFFFF,
                                 0x8000000000000000, 0xFFFFFFFFFFFFFFFF),
      rc::gen::inRange<uint64_t>(0, end), rc::gen::arbitrary<uint64_t>());
}

rc::Gen<Patch> anyPatch() {
  return rc::gen::build<Patch>(rc::gen::set(&Patch::offset, anyOffset()),
                               rc::gen::set(&Patch::width, rc::gen::element<size_t>(1, 2, 4, 8)),
                               rc::gen::set(&Patch::bigEndian, rc::gen::arbitrary<bool>()),
                               rc::gen::set(&Patch::value, anyValue()));
}

// Up to `most` values, each from the whole of its range: sizes would narrow that as well.
template <typename T>
rc::Gen<std::vector<T>> fewOf(const rc::Gen<T>& value, int most) {
  return rc::gen::resize(
      most, rc::gen::container<std::vector<T>>(rc::gen::resize(rc::kNominalSize, value)));
}

Bytes patched(Bytes file, const std::vector<Patch>& patches) {
  for (const Patch& each : patches) {
    if (each.offset + each.width > file.size()) continue;
    if (each.bigEndian) {
      file.putBe(each.offset, each.width, each.value);
    } else {
      file.putLe(each.offset, each.width, each.value);
    }
  }
  return file;
}

int64_t position(int16_t db) {
  int64_t result = -1;
  QVFile().QVGetFilePos(db, &result);
  return result;
}

// Runs an operation that answers 1 or 0 and puts the position back.
void expectAnswer(int16_t db, const std::function<int()>& operation) {
  QVFile().QVSeekFile(db, 1, 77);
  const int result = operation();
  RC_ASSERT(result == 0 || result == 1);
  RC_ASSERT(position(db) == 77);
}

void readAll(int16_t db, uint64_t table) {
  expectAnswer(db, [&] {
    uint32_t size = 0;
    if (GetTableDataSize(db, table, &size) != 1 || size > 1000000) return 0;
    Bytes buffer(size);  // to the byte, so that one too many is seen
    return GetTableData(db, table, buffer.data());
  });
  expectAnswer(db, [&] {
    uint32_t count = 0;
    if (GetNumberOfRecords(db, table, &count) != 1 || count > 1000000) return 0;
    std::vector<uint64_t> list(count);
    uint32_t stored = 0;
    uint64_t none = 0;
    const int result = GetRecordUuIDList(db, table, count == 0 ? &none : list.data(), &stored);
    RC_ASSERT(stored <= count);
    return result;
  });
  for (const uint64_t record : {0xA1u, 0xA2u, 0xA3u, 0xA4u, 0xB1u, 0x99u}) {
    expectAnswer(db, [&] {
      oneRecordInfoP1 info = {};
      return GetOneRecordInfo(db, table, record, &info, nullptr);
    });
  }
}

void changeAll(int16_t db, uint64_t table, const std::vector<unsigned>& order) {
  const Bytes large = pattern(300);
  const Bytes small = bytesOf("four");
  const std::vector<std::function<int()>> changes = {
      [&] { return SetTableData(db, table, small.data(), 4, 0); },
      [&] { return SetTableData(db, table, large.data(), 300, 310); },
      [&] {
        uint64_t id = 0;
        return AddRecordData(db, table, small.data(), 4, 10, &id);
      },
      [&] { return ModifyOneRecordInfo_LMTime(db, table, 0xA2); },
      [&] { return ModifyRecordData(db, table, large.data(), 300, 0xA2, nullptr); },
      [&] { return DeleteOneRecord(db, table, 0xA1, nullptr); },
      [&] { return DeleteOneRecord(db, table, 0xA4, nullptr); },
      [&] { return AddTable(db, "another") != 0 ? 1 : 0; },
  };
  for (const unsigned each : order) {
    QVFile().QVSeekFile(db, 1, 77);
    const int result = changes[each % changes.size()]();
    RC_ASSERT(result == 0 || result == 1);
    // A modification in place is the one operation that leaves the position behind.
    const bool inPlace = each % changes.size() == 4 && result == 1;
    RC_ASSERT(position(db) == 77 || inPlace);
  }
}

TEST(HostileFiles, GetAnAnswerFromEveryOperation) {
  EXPECT_TRUE(rc::check("every operation answers", [] {
    const auto patches = *fewOf(anyPatch(), 6);
    const auto order =
        *rc::gen::resize(12, rc::gen::container<std::vector<unsigned>>(rc::gen::inRange(0u, 8u)));
    const Bytes file = patched(soundFile(), patches);
    TempFolder folder;
    writeFile(folder / "hostile", file);
    GetDBaseInfoW(folder.wide("hostile"), nullptr, nullptr, nullptr);
    const int16_t db = OpenDBaseW(folder.wide("hostile"), 3);
    RC_ASSERT(db != 0);
    for (const uint64_t table : {kTable, kOtherTable}) {
      readAll(db, table);
      changeAll(db, table, order);
      readAll(db, table);
    }
    char name[33];
    for (int i = 0; i < 4; ++i) GetTableNameAndIDByIndex(db, i, name);
    FindTableByName(db, "other");
    RC_ASSERT(CloseDBase(db) != 0);
    RC_ASSERT(std::filesystem::file_size(folder / "hostile") >= file.size());
  }));
}

}  // namespace
}  // namespace qvdbase::test

// Fuzz target: opens the input as a database for writing, changes it, and runs every operation on
// whole files: both packs, renumbering, link repair, frame duplication.
//
// The last bytes of the input, which are part of the file as well, choose the operations.
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <vector>

#include "fuzz/hostile_file.h"

namespace {

using namespace qvdbase::fuzz;

constexpr int64_t kPosition = 77;
constexpr size_t kOperations = 6;

// The operations on whole files, from one path to another.
class Maintenance {
 public:
  Maintenance()
      : source_(widePath(scratchPath("write.qvd"))), target_(widePath(scratchPath("new.qvd"))) {}

  void run(int choice, QVProgressFunction progress) {
    int status = 77;
    uint16_t from = 0;
    uint16_t to = 0;
    int result = 0;
    switch (choice) {
      case 0:
        result = PackOneDB2NewW(source_.data(), target_.data(), 0, progress);
        break;
      case 1:
        result = PackOneDB2New_WithHandle(source_.data(), target_.data(), 0, progress, &from, &to,
                                          &status);
        break;
      case 2:
        result = DupFrameForRzbd3W(source_.data(), target_.data(), &status);
        break;
      case 3:
        repair(progress);
        break;
      default:
        result = renumber(progress, &from, &to, &status);
        break;
    }
    require(result == 0 || result == 1, "the answer is 0 or 1");
    // Numbers that a failure keeps open, as its description says.
    for (int16_t number = 1; number <= 4; ++number) CloseDBase(number);
  }

 private:
  void repair(QVProgressFunction progress) {
    int result = 77;
    if (FixOneDBLinkErrorW(source_.data(), progress, 0, nullptr, &result) == 1) {
      require(result == 0 || result == 1 || result == 2 || result == 10,
              "repair reports its result");
    }
  }

  int renumber(QVProgressFunction progress, uint16_t* from, uint16_t* to, int* status) {
    const int16_t db = OpenDBaseW(source_.data(), 4);
    QVFile().QVSeekFile(db, 1, kPosition);
    const int result =
        PackOneDB2AllNewUUIDFile(target_.data(), db, 0, progress, from, to, status, nullptr);
    int64_t position = -1;
    QVFile().QVGetFilePos(db, &position);
    require(position == kPosition, "renumbering keeps the source's position");
    return result;
  }

  std::vector<QVWCHAR> source_;
  std::vector<QVWCHAR> target_;
};

// Runs operation number `choice` on a table, and looks at its answer and the position.
void change(int16_t db, const TableNumbers& at, int choice) {
  static const std::vector<uint8_t> payload(300, 'p');
  uint64_t made = 0;
  QVFile().QVSeekFile(db, 1, kPosition);
  const std::function<int()> changes[] = {
      [&] { return SetTableData(db, at.table, payload.data(), 4, 0); },
      [&] { return SetTableData(db, at.table, payload.data(), 300, 310); },
      [&] { return AddRecordData(db, at.table, payload.data(), 4, 10, &made); },
      [&] { return AddRecordData_AssignRecordID(db, at.table, nullptr, 0, 0, &at.record); },
      [&] { return ModifyOneRecordInfo_LMTime(db, at.table, at.record); },
      [&] { return ModifyRecordData(db, at.table, payload.data(), 300, at.record, nullptr); },
      [&] { return DeleteOneRecord(db, at.table, at.record, nullptr); },
      [&] { return AddTable(db, "another") != 0 ? 1 : 0; },
      [&] { return ModifyRecordData(db, at.table, payload.data(), 1, at.record, nullptr); },
      [&] { return SetDBaseVersion(db, 100); },
  };
  const size_t index = static_cast<size_t>(choice) % std::size(changes);
  const int result = changes[index]();
  require(result == 0 || result == 1, "the answer is 0 or 1");
  int64_t position = -1;
  QVFile().QVGetFilePos(db, &position);
  const bool inPlace = (index == 5 || index == 8) && result == 1;  // the position is not restored
  const bool untouched = index == 4 && result == 0;  // an unreadable directory does, too
  require(position == kPosition || inPlace || untouched, "the position is kept");
}

int callsLeft = 0;

// A pack copies as many records as a slot counts, also round and round a chain that loops. It is
// the caller who stops it.
uint16_t countDown(int, int, void*) {
  return --callsLeft > 0 ? 1 : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::filesystem::path path = scratchPath("write.qvd");
  writeBytes(path, data, size);
  const std::vector<TableNumbers> tables = firstTables(data, size, 3);
  const WorkLimits limits(size, true);
  Maintenance maintenance;
  for (size_t i = 0; i < std::min(size, kOperations); ++i) {
    const int choice = data[size - 1 - i];
    if (choice >= 128 || tables.empty()) {
      callsLeft = choice % 16 == 15 ? 5 : 5000;
      maintenance.run(choice % 5, countDown);
      continue;
    }
    const int16_t db = OpenDBaseW(widePath(path).data(), 3);
    require(db != 0, "any file opens");
    change(db, tables[static_cast<size_t>(choice / 16) % tables.size()], choice);
    require(CloseDBase(db) != 0, "an open database closes");
  }
  return 0;
}

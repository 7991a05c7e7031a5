// How operations end: prints, for operations on small databases, what each leaves when the host
// takes only so many bytes, when files may only be so long, and when a part of a file cannot be
// read: result and outputs, the file's position, the counts of bytes moved, and every file.
// Whichever way the bytes go to the host, the output is the same.
//
//   cross_endings > FILE
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "kit/file_image.h"
#include "kit/replaced_calls.h"
#include "kit/temp_folder.h"
#include "kit/wide.h"
#include "recovery/check/base_files.h"

namespace qvdbase::test {
namespace {

// ---- the host -----------------------------------------------------------------------------------

constexpr size_t kNoEnd = SIZE_MAX;

struct Host {
  size_t space = kNoEnd;  // bytes that it still takes
  uint64_t limit = UINT64_MAX;
  int64_t badBegin = 0;  // bytes that cannot be read, of any file
  int64_t badEnd = 0;
  bool failsWhole = false;      // a read that has one of them among its bytes gets nothing
  uint64_t ticks = 0;           // for identifiers
  size_t taken = 0;             // bytes
  bool hasPassedLimit = false;  // which would end the process
};
Host host;

ssize_t takeBytes(int descriptor, const void* bytes, size_t count, off_t position) {
  if (static_cast<uint64_t>(position) + count > host.limit) host.hasPassedLimit = true;
  const size_t part = std::min(count, host.space);
  if (part == 0) {
    errno = ENOSPC;
    return -1;
  }
  const ssize_t moved = platform::hostSystemCalls().writeAt(descriptor, bytes, part, position);
  if (moved <= 0) return moved;
  if (host.space != kNoEnd) host.space -= static_cast<size_t>(moved);
  host.taken += static_cast<size_t>(moved);
  return moved;
}

ssize_t giveBytes(int descriptor, void* bytes, size_t count, off_t position) {
  const auto end = static_cast<int64_t>(position) + static_cast<int64_t>(count);
  const bool touches = position < host.badEnd && end > host.badBegin;
  if (touches && (host.failsWhole || position >= host.badBegin)) {
    errno = EIO;
    return -1;
  }
  if (touches) count = static_cast<size_t>(host.badBegin - position);
  return platform::hostSystemCalls().readAt(descriptor, bytes, count, position);
}

// ---- the operations -----------------------------------------------------------------------------

constexpr uint64_t kNotes = 0x1101;
constexpr uint64_t kTwice = 0x4404;
constexpr const char* kSource = "source.qvd";
constexpr const char* kBroken = "broken.qvd";
constexpr const char* kTarget = "target.qvd";

std::filesystem::path folder;

WideText wide(const char* name) {
  return WideText((folder / name).u16string());
}

// What an operation is given and leaves beside the files.
struct Run {
  int16_t db = 0;
  uint64_t out = 0;
  uint16_t from = 77;
  uint16_t to = 77;
  int status = -5;
};

struct Operation {
  const char* name;
  int permission;  // with which the source is opened; 0: it is not
  std::function<uint64_t(Run&)> run;
  // How many of the bytes that it writes are the same on both ways. Beyond them unchanged bytes may
  // go out between two fields of one header, and a full disk does not leave the same.
  size_t comparable = kNoEnd;
};

Bytes sourceFile() {
  FileImage image;
  const size_t notes = image.addTable("notes", kNotes);
  const size_t categories = image.addTable("QVrz_Category", 0x2202);
  const size_t records = image.addTable("QVrz_Record", 0x3303);
  image.addTable("one of two", kTwice);
  const size_t second = image.addTable("two of two", kTwice);
  // Without payload the neighbours of a deleted record are close together.
  for (uint64_t i = 0; i < 3; ++i) image.addRecord(notes, 0xA1 + i, {});
  for (uint64_t i = 3; i < 6; ++i) {
    image.addRecord(notes, 0xA1 + i, pattern(30, static_cast<unsigned>(i)), {.reserve = 50});
  }
  image.setTableData(notes, bytesOf("what the notes are about"), 40);
  image.addRecord(categories, 0xC1, category(0xC1, {0xE1, 0xE2}));
  for (uint64_t i = 0; i < 3; ++i) image.addRecord(records, 0xE1 + i, pattern(33));
  image.setTableData(second, bytesOf("short"), 90);
  return image.build();
}

// Far apart records, and a chain with a link cleared.
Bytes brokenFile() {
  FileImage image;
  const size_t notes = image.addTable("notes", kNotes);
  std::vector<int64_t> at;
  for (uint64_t i = 0; i < 5; ++i) {
    at.push_back(image.addRecord(notes, 0xA1 + i, pattern(5000, static_cast<unsigned>(i))));
  }
  image.record(at[3]).prevRecordPos = 0;
  return image.build();
}

uint64_t add(Run& run, uint32_t size, uint32_t reserve) {
  return static_cast<uint64_t>(
      AddRecordData(run.db, kNotes, pattern(size).data(), size, reserve, &run.out));
}

uint64_t modify(Run& run, uint64_t record, uint32_t size) {
  return static_cast<uint64_t>(
      ModifyRecordData(run.db, kNotes, pattern(size, 9).data(), size, record, nullptr));
}

uint64_t setData(Run& run, uint64_t table, uint32_t size, uint32_t reserve) {
  return static_cast<uint64_t>(SetTableData(run.db, table, pattern(size, 7).data(), size, reserve));
}

uint64_t listAll(Run& run) {
  uint64_t list[6] = {};
  uint32_t count = 0;
  const int result = GetRecordUuIDList(run.db, kNotes, list, &count);
  for (const uint64_t each : list) run.out = run.out * 31 + each;
  run.out = run.out * 31 + count;
  return static_cast<uint64_t>(result);
}

void addChanges(std::vector<Operation>& all, int permission) {
  const auto with = [&](const char* name, std::function<uint64_t(Run&)> run) {
    all.push_back({name, permission, std::move(run)});
  };
  with("add table", [](Run& run) { return AddTable(run.db, "added"); });
  with("version", [](Run& run) { return SetDBaseVersion(run.db, 0x7071) == 1; });
  with("data in place", [](Run& run) { return setData(run, kNotes, 38, 0); });
  with("new data", [](Run& run) { return setData(run, kNotes, 80, 200); });
  with("data of either slot", [](Run& run) { return setData(run, kTwice, 60, 0); });
  with("append", [](Run& run) { return add(run, 60, 0); });
  with("append with reserve", [](Run& run) { return add(run, 60, 40'000); });
  with("append nothing", [](Run& run) { return add(run, 0, 0); });
  with("append much", [](Run& run) { return add(run, 70'000, 0); });
  with("touch", [](Run& run) { return ModifyOneRecordInfo_LMTime(run.db, kNotes, 0xA5) == 1; });
  with("grow in place", [](Run& run) { return modify(run, 0xA4, 45); });
  if (permission == 3) all.back().comparable = 0;
  for (const uint64_t record : {0xA1u, 0xA3u, 0xA6u}) {
    with("relocate", [record](Run& run) { return modify(run, record, 300); });
  }
  for (const uint64_t record : {0xA1u, 0xA2u, 0xA4u, 0xA6u}) {
    with("delete", [record](Run& run) {
      return static_cast<uint64_t>(DeleteOneRecord(run.db, kNotes, record, nullptr));
    });
  }
}

uint64_t renumber(Run& run) {
  return static_cast<uint64_t>(PackOneDB2AllNewUUIDFile(wide(kTarget), run.db, 0, nullptr,
                                                        &run.from, &run.to, &run.status, nullptr));
}

uint64_t repair(Run& run) {
  const int result = FixOneDBLinkErrorW(wide(kBroken), nullptr, 0, nullptr, &run.status);
  return static_cast<uint64_t>(result);
}

std::vector<Operation> operations() {
  std::vector<Operation> all;
  for (const int permission : {3, 4}) addChanges(all, permission);
  all.push_back({"list", 1, listAll});
  all.push_back({"create", 0, [](Run& run) {
                   // A file that cannot be completed stays open under the lowest number.
                   const int16_t db = CreateDBaseW(wide(kTarget), "QVdb", 100);
                   run.db = 1;
                   return static_cast<uint64_t>(db);
                 }});
  all.push_back({"pack", 0, [](Run&) {
                   return static_cast<uint64_t>(
                       PackOneDB2NewW(wide(kSource), wide(kTarget), 0, nullptr));
                 }});
  all.push_back({"pack with handle", 0, [](Run& run) {
                   return static_cast<uint64_t>(PackOneDB2New_WithHandle(
                       wide(kSource), wide(kTarget), 0, nullptr, &run.from, &run.to, &run.status));
                 }});
  all.push_back({"renumber", 1, renumber, 7300});  // ends with a category, modified in place
  all.push_back({"repair", 0, repair});
  return all;
}

// ---- one case -----------------------------------------------------------------------------------

uint64_t sumOf(const Bytes& bytes) {
  uint64_t sum = 1469598103934665603u;
  for (const uint8_t each : bytes) sum = (sum ^ each) * 1099511628211u;
  return sum;
}

void printFiles() {
  for (const char* name : {kSource, kBroken, kTarget}) {
    if (!std::filesystem::exists(folder / name)) continue;
    const Bytes bytes = readFile(folder / name);
    std::printf(" %s %zu %016llx", name, bytes.size(),
                static_cast<unsigned long long>(sumOf(bytes)));
  }
}

// Runs the operation on fresh files and prints the case. Returns how many bytes were written.
size_t tryCase(const Operation& operation, const Host& with, const std::string& what) {
  static const Bytes source = sourceFile();
  static const Bytes broken = brokenFile();
  writeFile(folder / kSource, source);
  writeFile(folder / kBroken, broken);
  std::filesystem::remove(folder / kTarget);
  Run run;
  host = {};
  if (operation.permission != 0) {
    run.db = OpenDBaseW(wide(kSource), operation.permission);
    QVFile().QVSeekFile(run.db, 1, 77);
  }
  std::srand(1);
  gbl_realReaden = gbl_realWriten = 99;
  host = with;
  const uint64_t result = operation.run(run);
  const size_t taken = host.taken;
  const bool hasPassedLimit = host.hasPassedLimit;
  host = {};
  int64_t position = -1;
  QVFile().QVGetFilePos(run.db, &position);
  std::printf("%s, %d, %s: %llx at %lld read %u written %u out %llx %d %d %d", operation.name,
              operation.permission, what.c_str(), static_cast<unsigned long long>(result),
              static_cast<long long>(position), static_cast<unsigned>(gbl_realReaden),
              static_cast<unsigned>(gbl_realWriten), static_cast<unsigned long long>(run.out),
              run.from, run.to, run.status);
  if (hasPassedLimit) std::printf(" PASSES THE LIMIT");
  printFiles();
  std::printf("\n");
  for (int16_t file = 1; file < 5; ++file) CloseDBase(file);
  return taken;
}

// All numbers up to `end`, of large ones a few: each case is a run of the operation.
std::vector<size_t> steps(size_t end) {
  std::vector<size_t> result;
  for (size_t n = 0; n < end; n += 1 + n / 15) result.push_back(n);
  for (size_t n = end - std::min<size_t>(end, 170); n < end; n += 5) result.push_back(n);
  return result;
}

void tryFullDisks(const Operation& operation, size_t written) {
  for (const size_t n : steps(written)) {
    Host with;
    with.space = n;
    tryCase(operation, with, "space " + std::to_string(n));
  }
}

void tryLimits(const Operation& operation) {
  for (uint64_t limit = 0; limit < 6500; limit += limit < 30 ? 1 : limit < 4600 ? 331 : 13) {
    Host with;
    with.limit = limit;
    tryCase(operation, with, "limit " + std::to_string(limit));
  }
}

void tryBadPlaces(const Operation& operation) {
  for (const bool failsWhole : {false, true}) {
    for (int64_t begin = 0; begin < 30'000; begin += begin < 6000 ? 149 : 1501) {
      Host with;
      with.badBegin = begin;
      with.badEnd = begin + 50;
      with.failsWhole = failsWhole;
      tryCase(operation, with, (failsWhole ? "bad whole " : "bad ") + std::to_string(begin));
    }
  }
}

void tryAll() {
  for (const Operation& operation : operations()) {
    const size_t written = tryCase(operation, {}, "sound host");
    tryFullDisks(operation, std::min(written, operation.comparable));
    if (written > 0) tryLimits(operation);
    tryBadPlaces(operation);
  }
}

}  // namespace
}  // namespace qvdbase::test

int main() {
  using namespace qvdbase;
  const test::TempFolder scratch(test::TempFolder::inMemory());
  test::folder = scratch.path();
  test::ReplacedCalls calls;
  calls->writeAt = test::takeBytes;
  calls->readAt = test::giveBytes;
  calls->fileSizeLimit = [] { return test::host.limit; };
  calls->time = [] { return static_cast<time_t>(5000); };
  calls->processClock = [] { return static_cast<clock_t>(7); };
  calls->microseconds = [] { return ++test::host.ticks; };
  test::tryAll();
  return 0;
}

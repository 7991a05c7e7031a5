// qvdb::compact: what it keeps and drops, and what stands in the folder when it does not finish.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <numeric>
#include <random>

#include "kit/maintenance_fixture.h"
#include "kit/random_seed.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::compact;
using qvdb::Reason;

class Compact : public LayerTest {
 protected:
  Compact() { allowDamage(kSource); }

  void putSource(const FileImage& image) { writeFile(path(kSource), image.build()); }

  // What a compaction makes of LivelyDatabase: data first, then the records, table after table.
  static FileImage compacted(LivelyDatabase& lively) {
    FileImage target;
    target.header() = lively.image.header();
    target.header().tableCount = 0;
    LivelyDatabase::addTables(target);
    target.setTableData(0, bytesOf("data of one"));
    const int64_t a =
        target.addRecord(0, LivelyDatabase::kA, bytesOf("first"), LivelyDatabase::optionsOfA());
    target.addRecord(0, LivelyDatabase::kB, bytesOf("second"), LivelyDatabase::optionsOfB());
    target.addRecord(0, LivelyDatabase::kC, {}, LivelyDatabase::optionsOfC());
    target.setTableData(1, bytesOf("data of two"), 30);
    target.slot(0).tableFlags1 = 0x1234;
    target.slot(0).recordWriteCount = 3;  // as many as are in the copy
    target.slot(0).dataWriteCount = 2;
    target.slot(0).lastWrittenRecordPos = a;
    target.slot(1).tableVersion = 101;
    return target;
  }

  static LivelyDatabase lively() {
    LivelyDatabase made;
    made.image.slot(0).lastWrittenRecordPos = made.a;
    return made;
  }
};

// ---- what is kept ----

TEST_F(Compact, KeepsEverythingLiveAndDropsEverythingDead) {
  LivelyDatabase source = lively();
  putSource(source.image);
  const Bytes expected = compacted(source).build();
  const qvdb::CompactReport report = compact(path(kSource));
  EXPECT_TRUE(sameBytes(contents(kSource), expected));
  EXPECT_EQ(report.size_before, static_cast<uint64_t>(source.image.end()));
  EXPECT_EQ(report.size_after, expected.size());
  EXPECT_EQ(report.tables, 3u);
  EXPECT_EQ(report.records, 3u);
  EXPECT_EQ(report.data_blocks, 2u);
  EXPECT_EQ(names(), std::vector<std::string>{kSource});
}

TEST_F(Compact, WritesANewFileAndOnlyReadsTheSource) {
  LivelyDatabase source = lively();
  putSource(source.image);
  compact(path(kSource), path(kTarget));
  EXPECT_TRUE(sameBytes(contents(kTarget), compacted(source).build()));
  EXPECT_TRUE(sameBytes(contents(kSource), source.image.build()));
}

TEST_F(Compact, KeepsTableDataOfTablesThatHaveRecords) {
  const int16_t db = create(kSource);
  const uint64_t table = addTable(db, "t");
  setTableData(db, table, bytesOf("data"));
  const uint64_t id = addRecord(db, table, bytesOf("x"));
  close(db);
  compact(path(kSource), path(kTarget));
  const qvdb::Database compacted = qvdb::Database::open(path(kTarget));
  EXPECT_EQ(bytes(compacted.table("t").data()), bytesOf("data"));
  EXPECT_EQ(bytes(compacted.table("t").get({id})), bytesOf("x"));
}

TEST_F(Compact, LeavesNothingOfWhatWasAfterShorterPayloads) {
  const int16_t db = create(kSource);
  const uint64_t table = addTable(db, "t");
  const uint64_t id = addRecord(db, table, bytesOf("a long secret"));
  ASSERT_EQ(ModifyRecordData(db, table, bytesOf("x").data(), 1, id, nullptr), 1);
  setTableData(db, table, bytesOf("another secret"));
  setTableData(db, table, bytesOf("y"));
  close(db);
  compact(path(kSource));
  const std::string all = contents(kSource).str();
  EXPECT_EQ(all.find("secret"), std::string::npos);
}

TEST_F(Compact, MapsTheLastWrittenPositionToTheLastRecordWhenItsBlockIsDead) {
  LivelyDatabase source;
  source.image.slot(0).lastWrittenRecordPos = source.a + 1;
  putSource(source.image);
  compact(path(kSource));
  EXPECT_EQ(slot(0, kSource).lastWrittenRecordPos, slot(0, kSource).lastRecordPos);
}

TEST_F(Compact, ChangesNothingThatIsCompactAlready) {
  LivelyDatabase source = lively();
  putSource(source.image);
  compact(path(kSource));
  const Bytes once = contents(kSource);
  const qvdb::CompactReport report = compact(path(kSource));
  EXPECT_TRUE(sameBytes(contents(kSource), once));
  EXPECT_EQ(report.size_after, report.size_before);
}

TEST_F(Compact, CarriesLargePayloadsAndEmptyDatabases) {
  FileImage image;
  putSource(image);
  compact(path(kSource));
  EXPECT_TRUE(sameBytes(contents(kSource), image.build()));
  image.addTable("t", 0x101);
  for (const size_t size : {0u, 4096u, 4097u, 3000000u, 1u}) {
    image.addRecord(0, size + 1, pattern(size));
  }
  putSource(image);
  compact(path(kSource));
  EXPECT_TRUE(sameBytes(contents(kSource), image.build()));
}

// Records that follow one another in an order of their own, and what a compaction makes of them.
struct Shuffled {
  FileImage image;
  FileImage compacted;

  explicit Shuffled(const std::vector<RecordOptions>& options, const std::vector<size_t>& sizes) {
    std::vector<size_t> order(sizes.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::mt19937_64 random(randomSeed());
    std::ranges::shuffle(order, random);
    for (FileImage* each : {&image, &compacted}) each->addTable("t", 0x101);
    std::vector<int64_t> positions;
    for (size_t i = 0; i < sizes.size(); ++i) {
      positions.push_back(image.addRecord(0, i + 1, pattern(sizes[i]), options[i]));
    }
    for (size_t i = 0; i < order.size(); ++i) {
      const size_t record = order[i];
      image.record(positions[record]).prevRecordPos = i == 0 ? 0 : positions[order[i - 1]];
      image.record(positions[record]).nextRecordPos =
          i + 1 == order.size() ? 0 : positions[order[i + 1]];
      RecordOptions clean = options[record];
      clean.fill = 0;
      compacted.addRecord(0, record + 1, pattern(sizes[record]), clean);
    }
    image.slot(0).firstRecordPos = positions[order.front()];
    image.slot(0).lastRecordPos = image.slot(0).lastWrittenRecordPos = positions[order.back()];
  }
};

TEST_F(Compact, ReadsAChainThatLeadsToAndFroInTheOrderOfTheFile) {
  constexpr size_t kRecords = 4000;
  std::vector<RecordOptions> options(kRecords);
  std::vector<size_t> sizes(kRecords, 100);
  for (size_t i = 0; i < kRecords; i += 7) options[i] = {.reserve = 150, .fill = 0x55};
  for (size_t i = 0; i < kRecords; i += 11) sizes[i] = 0;
  Shuffled source(options, sizes);
  putSource(source.image);
  RecordedCalls host;
  size_t reads = 0;
  host.observe([&](Call call) { reads += call == Call::read ? 1 : 0; });
  compact(path(kSource));
  host.observe(nullptr);
  EXPECT_LT(reads, 200u);
  EXPECT_TRUE(sameBytes(contents(kSource), source.compacted.build()));
}

// More than is kept in memory at once, and some records that are not kept there at all.
TEST_F(Compact, CarriesMoreThanFitsIntoItsMemory) {
  const auto payloadOf = [](size_t number, size_t size) {
    return std::vector<std::byte>(size, static_cast<std::byte>(number + 1));
  };
  std::vector<size_t> sizes(72, 1'000'000);
  {
    qvdb::Database database = qvdb::Database::create(path(kSource));
    qvdb::Table table = database.add_table("t");
    std::vector<qvdb::Id> ids;
    for (size_t i = 0; i < sizes.size(); ++i) ids.push_back(table.add(payloadOf(i, sizes[i])));
    for (const size_t i : {size_t{50}, size_t{3}, size_t{4}, size_t{71}, size_t{0}}) {
      sizes[i] = i == 4 ? 1'200'000 : 1'000'100;
      ASSERT_TRUE(table.modify(ids[i], payloadOf(i, sizes[i])));
    }
  }
  compact(path(kSource));
  qvdb::Database database = qvdb::Database::open(path(kSource), qvdb::Mode::read_only);
  size_t number = 0;
  for (const qvdb::Record& record : database.table("t").records(qvdb::Load::payloads)) {
    const std::vector<std::byte> expected = payloadOf(number, sizes.at(number));
    ASSERT_EQ(record.loaded().size(), expected.size()) << number;
    ASSERT_EQ(std::memcmp(record.loaded().data(), expected.data(), expected.size()), 0) << number;
    ++number;
  }
  EXPECT_EQ(number, sizes.size());
}

TEST_F(Compact, RefusesToPlaceWhatIsReadBackOtherwise) {
  LivelyDatabase source = lively();
  const Bytes before = source.image.build();
  for (const off_t position : {10, 200, 4700, 4900}) {
    putSource(source.image);
    RecordedCalls host;
    bool isChanged = false;
    // Between writing, which ends with the header, and reading back.
    host.observe([&](Call call) {
      for (const std::string& name : names()) {
        if (name == kSource || call != Call::read || isChanged) continue;
        const int file = ::open(path(name).c_str(), O_RDWR | O_CLOEXEC);
        unsigned char byte = 0;
        if (::pread(file, &byte, 1, 0) == 1 && byte != 0) {
          EXPECT_EQ(::pread(file, &byte, 1, position), 1);
          byte ^= 1;
          EXPECT_EQ(::pwrite(file, &byte, 1, position), 1);
          isChanged = true;
        }
        ::close(file);
      }
    });
    expectError(Reason::cannot_write, [&] { compact(path(kSource)); });
    EXPECT_TRUE(contents(kSource) == before) << position;
    EXPECT_EQ(names(), std::vector<std::string>{kSource});
  }
}

TEST_F(Compact, KeepsThePermissionsOfTheFile) {
  putSource(FileImage());
  ASSERT_EQ(::chmod(path(kSource).c_str(), 0640), 0);
  compact(path(kSource));
  compact(path(kSource), path(kTarget));
  for (const char* name : {kSource, kTarget}) {
    struct stat status = {};
    ASSERT_EQ(::stat(path(name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u) << name;
  }
}

TEST_F(Compact, FollowsSymbolicLinksToTheFile) {
  LivelyDatabase source = lively();
  putSource(source.image);
  std::filesystem::create_symlink(kSource, path("link"));
  compact(path("link"));
  EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
  EXPECT_TRUE(sameBytes(contents(kSource), compacted(source).build()));
}

TEST_F(Compact, TakesTheSourceNamedAsTargetForCompactionInPlace) {
  LivelyDatabase source = lively();
  putSource(source.image);
  compact(path(kSource), folder.path() / "." / kSource);
  EXPECT_TRUE(sameBytes(contents(kSource), compacted(source).build()));
}

TEST_F(Compact, SaysWhatItWouldGainWithoutWritingAnything) {
  LivelyDatabase source = lively();
  putSource(source.image);
  RecordedCalls host;
  const qvdb::CompactReport report = compact(path(kSource), {}, {.dry_run = true});
  EXPECT_EQ(report.size_after, compacted(source).build().size());
  EXPECT_EQ(host.count(Call::write), 0);
  EXPECT_TRUE(sameBytes(contents(kSource), source.image.build()));
  EXPECT_EQ(names(), std::vector<std::string>{kSource});
}

// ---- targets ----

TEST_F(Compact, ReplacesATargetOnlyWhenAsked) {
  LivelyDatabase source = lively();
  putSource(source.image);
  writeFile(path(kTarget), bytesOf("precious"));
  expectError(Reason::file_exists, [&] { compact(path(kSource), path(kTarget)); });
  EXPECT_EQ(contents(kTarget), bytesOf("precious"));
  compact(path(kSource), path(kTarget), {}, {.overwrite = true});
  EXPECT_TRUE(sameBytes(contents(kTarget), compacted(source).build()));
}

TEST_F(Compact, TakesAnEmptyFileOverAndMakesMissingFolders) {
  putSource(FileImage());
  writeFile(path(kTarget), {});
  compact(path(kSource), path(kTarget));
  EXPECT_EQ(fileSize(kTarget), kDirectoryEnd);
  compact(path(kSource), path("new/folder/x.qvd"), {}, {.create_folders = true});
  EXPECT_EQ(fileSize("new/folder/x.qvd"), kDirectoryEnd);
}

TEST_F(Compact, RefusesTargetsInUseAndFolders) {
  putSource(FileImage());
  const int16_t db = create(kTarget);
  expectUnchanged(
      [&] {
        expectError(Reason::in_use,
                    [&] { compact(path(kSource), path(kTarget), {}, {.overwrite = true}); });
      },
      kTarget);
  close(db);
  std::filesystem::create_directory(path("folder"));
  expectError(Reason::not_a_file, [&] { compact(path(kSource), path("folder")); });
}

// ---- sources ----

TEST_F(Compact, RefusesWhatIsNotThereOrNoDatabase) {
  expectError(Reason::no_such_file, [&] { compact(path(kSource)); });
  writeFile(path(kSource), bytesOf("just text"));
  expectError(Reason::not_a_database, [&] { compact(path(kSource)); });
  EXPECT_EQ(contents(kSource), bytesOf("just text"));
  FileImage image;
  image.header().version = 200;
  putSource(image);
  expectError(Reason::version_out_of_range, [&] { compact(path(kSource)); });
}

TEST_F(Compact, RefusesASourceInUse) {
  putSource(FileImage());
  for (const int permission : {3, 4}) {
    const int16_t db = open(kSource, permission);
    expectError(Reason::in_use, [&] { compact(path(kSource)); });
    close(db);
  }
  // Only reading it is no harm, on either side.
  const int16_t db = open(kSource, 4);
  compact(path(kSource), path(kTarget));
  close(db);
  const int16_t reader = open(kSource, 1);
  compact(path(kSource));
  close(reader);
}

TEST_F(Compact, MindsNoReaderInItsOwnProcess) {
  LivelyDatabase source = lively();
  putSource(source.image);
  const auto reader = qvdb::Database::open(path(kSource), qvdb::Mode::read_only);
  const auto before = reader.tables().front().count();
  compact(path(kSource));
  EXPECT_LT(fileSize(kSource), source.image.build().size());
  EXPECT_EQ(reader.tables().front().count(), before);  // it goes on reading the old file
  EXPECT_EQ(reader.info().file_size, source.image.build().size());
}

TEST_F(Compact, RefusesASourceThatAnotherProcessHasOpenForWriting) {
  putSource(FileImage());
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const bool isOpen = OpenDBaseW(wide(kSource), 4) != 0;
    static_cast<void>(!::write(ready[1], isOpen ? "y" : "n", 1));
    for (;;) ::pause();
  }
  char answer = 0;
  ASSERT_EQ(::read(ready[0], &answer, 1), 1);
  ASSERT_EQ(answer, 'y');
  expectError(Reason::in_use, [&] { compact(path(kSource)); });
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(Compact, RefusesADamagedSourceAndSaysWhatIsWrong) {
  const auto refuse = [this](Reason reason, const std::function<void(LivelyDatabase&)>& damage) {
    LivelyDatabase source = lively();
    damage(source);
    putSource(source.image);
    const std::string message = expectError(reason, [&] { compact(path(kSource)); });
    EXPECT_NE(message.find(kSource), std::string::npos);
    EXPECT_TRUE(sameBytes(contents(kSource), source.image.build()));
    EXPECT_EQ(names(), std::vector<std::string>{kSource});
  };
  refuse(Reason::directory_damaged, [](auto& s) { s.image.slot(1).slotEndMark = 0; });
  refuse(Reason::directory_damaged, [](auto& s) { s.image.header().slotSize = 100; });
  refuse(Reason::directory_damaged, [](auto& s) { s.image.header().slotCount = 2; });
  refuse(Reason::directory_damaged, [](auto& s) { s.image.header().slotCount = 32000; });
  refuse(Reason::chain_damaged, [](auto& s) { s.image.slot(0).recordCount = 4; });
  refuse(Reason::chain_damaged, [](auto& s) { s.image.slot(0).recordCount = 0xFFFFFFFF; });
  refuse(Reason::chain_damaged, [](auto& s) { s.image.slot(0).recordCount = 2; });
  refuse(Reason::chain_damaged, [](auto& s) { s.image.slot(0).lastRecordPos = s.a; });
  refuse(Reason::chain_damaged, [](auto& s) { s.image.slot(0).firstRecordPos = -1; });
  refuse(Reason::chain_damaged, [](auto& s) { s.image.record(s.b).prevRecordPos = 0; });
  refuse(Reason::chain_damaged, [](auto& s) { s.image.record(s.b).nextRecordPos = s.a; });
  refuse(Reason::chain_damaged, [](auto& s) { s.image.record(s.c).blockMark = 0; });
  refuse(Reason::chain_damaged, [](auto& s) { s.image.record(s.c).dataLength = 9; });
  refuse(Reason::chain_damaged, [](auto& s) { s.image.record(s.c).dataCapacity = 0x7FFFFFFF; });
  refuse(Reason::data_damaged, [](auto& s) { s.image.tableData(s.dataOfOne).blockMark = 0; });
  refuse(Reason::data_damaged, [](auto& s) { s.image.tableData(s.dataOfOne).dataLength = 99; });
  refuse(Reason::data_damaged, [](auto& s) { s.image.slot(1).firstDataPos = INT64_MAX; });
}

TEST_F(Compact, ReportsTheNumberOfTheRecordThatIsDamaged) {
  LivelyDatabase source = lively();
  source.image.record(source.c).blockMark = 0;
  putSource(source.image);
  try {
    compact(path(kSource));
    FAIL() << "no error";
  } catch (const qvdb::Error& error) {
    EXPECT_EQ(error.record_number(), 3u);
  }
}

// ---- progress and cancelling ----

TEST_F(Compact, ReportsPercentsThatNeverFallUpTo100) {
  LivelyDatabase source = lively();
  putSource(source.image);
  std::vector<int> percents;
  compact(path(kSource), [&](int percent) {
    percents.push_back(percent);
    return true;
  });
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
  EXPECT_EQ(percents.back(), 100);
  EXPECT_GE(percents.size(), 9u);
}

TEST_F(Compact, CanBeCancelledAtEachCallAndLeavesEverythingAsItWas) {
  LivelyDatabase source = lively();
  const Bytes before = source.image.build();
  for (int stop = 0;; ++stop) {
    putSource(source.image);
    int calls = 0;
    bool cancelled = false;
    try {
      compact(path(kSource), [&](int percent) { return percent == 100 || calls++ != stop; });
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), Reason::cancelled);
      cancelled = true;
    }
    EXPECT_EQ(names(), std::vector<std::string>{kSource});
    if (!cancelled) break;
    EXPECT_TRUE(sameBytes(contents(kSource), before));
  }
}

TEST_F(Compact, PassesAnExceptionOfTheProgressFunctionOn) {
  LivelyDatabase source = lively();
  putSource(source.image);
  struct Mine {};
  EXPECT_THROW(compact(path(kSource),
                       [](int percent) -> bool {
                         if (percent > 30) throw Mine();
                         return true;
                       }),
               Mine);
  EXPECT_TRUE(sameBytes(contents(kSource), source.image.build()));
  EXPECT_EQ(names(), std::vector<std::string>{kSource});
}

TEST_F(Compact, NoticesThatTheSourceIsChangedMeanwhile) {
  LivelyDatabase source = lively();
  putSource(source.image);
  bool once = false;
  expectError(Reason::in_use, [&] {
    compact(path(kSource), path(kTarget), [&](int percent) {
      if (percent > 30 && !std::exchange(once, true)) {
        patchFile(path(kSource), static_cast<uint64_t>(source.a) + 27, bytesOf("MMMM"));
      }
      return true;
    });
  });
  EXPECT_EQ(names(), std::vector<std::string>{kSource});
}

// ---- when the host fails, and when the process ends ----

TEST_F(Compact, LeavesTheSourceAsItWasWhereverTheDiskIsFull) {
  LivelyDatabase source = lively();
  const Bytes before = source.image.build();
  const size_t size = compacted(source).build().size();
  putSource(source.image);
  RecordedCalls host;
  for (size_t room = 0; room < size + kHeaderBytes; room += 53) {
    host.fullAfter(room);
    expectError(Reason::disk_full, [&] { compact(path(kSource)); });
    host.heal();
    EXPECT_TRUE(sameBytes(contents(kSource), before));
    EXPECT_EQ(names(), std::vector<std::string>{kSource});
  }
}

TEST_F(Compact, LeavesTheSourceOrTheWholeResultWhicheverCallFails) {
  LivelyDatabase source = lively();
  const Bytes before = source.image.build();
  const Bytes after = compacted(source).build();
  RecordedCalls host;
  for (const Call call : {Call::open, Call::status, Call::length, Call::statusAt, Call::read,
                          Call::write, Call::sync, Call::close, Call::lock, Call::allocate}) {
    for (int step = 0;; ++step) {
      putSource(source.image);
      host.failOnce(call, step);
      bool threw = false;
      try {
        compact(path(kSource));
      } catch (const qvdb::Error&) {
        threw = true;
      }
      host.heal();
      if (!host.failed()) break;
      const Bytes now = contents(kSource);
      EXPECT_TRUE(now == before || now == after) << nameOf(call) << step;
      EXPECT_TRUE(threw || now == after) << nameOf(call) << step;
      EXPECT_EQ(names(), std::vector<std::string>{kSource}) << nameOf(call) << step;
    }
  }
}

TEST_F(Compact, HasTheFileOnTheDeviceBeforeItTakesItsNameAndTheFolderAfterwards) {
  LivelyDatabase source = lively();
  putSource(source.image);
  const Bytes after = compacted(source).build();
  RecordedCalls host;
  std::vector<bool> inPlace;
  host.observe([&](Call call) {
    if (call == Call::sync) inPlace.push_back(readFile(path(kSource)) == after);
  });
  compact(path(kSource));
  host.observe(nullptr);
  EXPECT_EQ(inPlace, (std::vector<bool>{false, true}));
}

// A process is killed before each of its calls to the system in turn. The source's name stands for
// the whole old file or the whole new one; what else is left is no database.
TEST_F(Compact, SurvivesBeingKilledAtEveryCall) {
  LivelyDatabase source = lively();
  const Bytes before = source.image.build();
  const Bytes after = compacted(source).build();
  bool sawOld = false;
  bool finished = false;
  for (int step = 0; !finished && !HasFailure(); ++step) {
    putSource(source.image);
    const pid_t child = ::fork();
    if (child == 0) {
      RecordedCalls host;
      int calls = 0;
      host.observe([&](Call) {
        if (calls++ == step) ::kill(::getpid(), SIGKILL);
      });
      compact(path(kSource));
      ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    finished = WIFEXITED(status);
    const Bytes now = contents(kSource);
    EXPECT_TRUE(now == before || now == after) << step;
    sawOld = sawOld || now == before;
    for (const std::string& name : names()) {
      if (name == kSource) continue;
      EXPECT_TRUE(name.starts_with(".qvdb-") && name.ends_with(".tmp")) << name;
      const Bytes left = contents(name);
      EXPECT_TRUE(left == after || left.size() < 2 || left.at(0, 2) == hex("0000")) << step;
      std::filesystem::remove(path(name));
    }
  }
  EXPECT_TRUE(sawOld);
  EXPECT_TRUE(finished);
}

}  // namespace
}  // namespace qvdbase::test

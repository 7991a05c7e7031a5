// qvdb::pack, renumber and repair: the library's operations, with reasons and without half-made
// files.
#include <pthread.h>

#include <algorithm>
#include <functional>

#include "kit/maintenance_fixture.h"
#include "kit/reaching_writes.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::pack;
using qvdb::Reason;
using qvdb::renumber;
using qvdb::repair;
using qvdb::repair_if;
using qvdb::RepairOutcome;

class WholeFile : public LayerTest {
 protected:
  WholeFile() {
    allowDamage(kSource);
    allowDamage(kTarget);
  }

  void putSource(const FileImage& image) { writeFile(path(kSource), image.build()); }

  static FileImage withCategory(const std::vector<uint64_t>& listed) {
    FileImage image;
    image.addTable("QVrz_Record", 0x202);
    image.addRecord(0, 0xA0, bytesOf("a"));
    image.addRecord(0, 0xA1, bytesOf("b"));
    image.addTable("QVrz_Category", 0x303);
    Bytes payload;
    payload.zeros(88).be(4, listed.size());
    for (const uint64_t id : listed) payload.be(8, id);
    image.addRecord(1, 0xC0, payload.be(4, 0));
    return image;
  }
};

TEST_F(WholeFile, PackMakesWhatTheLibraryMakesAndNamesTheTablesThatLoseTheirData) {
  LivelyDatabase lively;
  putSource(lively.image);
  const qvdb::PackReport report = pack(path(kSource), path(kTarget));
  EXPECT_TRUE(sameBytes(contents(kTarget), lively.packed().build()));
  EXPECT_EQ(report.tables_without_data, std::vector<std::string>{"one"});
  EXPECT_EQ(report.size_before, static_cast<uint64_t>(lively.image.end()));
  EXPECT_EQ(report.size_after, fileSize(kTarget));
  EXPECT_EQ(names(), (std::vector<std::string>{kSource, kTarget}));
}

TEST_F(WholeFile, RenumberGivesNewIdentifiers) {
  const FileImage image = withCategory({0xA0});
  putSource(image);
  renumber(path(kSource), path(kTarget));
  const ReadDatabase made = database(kTarget);
  EXPECT_NE(made.tables.at(0).records.at(0).id, 0xA0u);
  EXPECT_EQ(made.tables.at(1).records.at(0).fields.data().beAt(92, 8),
            made.tables.at(0).records.at(0).id);
}

TEST_F(WholeFile, PackAndRenumberRefuseTheSameThings) {
  const auto both = [&](Reason reason, const qvdb::TargetOptions& options = {}) {
    expectError(reason, [&] { pack(path(kSource), path(kTarget), {}, options); });
    expectError(reason, [&] { renumber(path(kSource), path(kTarget), {}, options); });
  };
  both(Reason::no_such_file);
  writeFile(path(kSource), bytesOf("just text"));
  both(Reason::not_a_database);
  putSource(withCategory({}));
  writeFile(path(kTarget), bytesOf("precious"));
  both(Reason::file_exists);
  EXPECT_EQ(contents(kTarget), bytesOf("precious"));
  const int16_t db = open(kTarget, 4);
  both(Reason::in_use, {.overwrite = true});
  EXPECT_EQ(contents(kTarget), bytesOf("precious"));
  close(db);
  std::filesystem::remove(path(kTarget));
  std::filesystem::create_hard_link(path(kSource), path(kTarget));
  both(Reason::bad_argument);
  EXPECT_TRUE(sameBytes(contents(kSource), withCategory({}).build()));
}

TEST_F(WholeFile, PackAndRenumberReplaceATargetOnlyWithWhatIsFinished) {
  putSource(withCategory({0xA0}));
  writeFile(path(kTarget), bytesOf("precious"));
  for (int stop = 0; stop < 4; ++stop) {
    int calls = 0;
    const auto stopping = [&](int) { return calls++ != stop; };
    calls = 0;
    expectError(Reason::cancelled,
                [&] { pack(path(kSource), path(kTarget), stopping, {.overwrite = true}); });
    calls = 0;
    expectError(Reason::cancelled,
                [&] { renumber(path(kSource), path(kTarget), stopping, {.overwrite = true}); });
    EXPECT_EQ(contents(kTarget), bytesOf("precious"));
    EXPECT_EQ(names(), (std::vector<std::string>{kSource, kTarget}));
  }
  pack(path(kSource), path(kTarget), {}, {.overwrite = true});
  EXPECT_EQ(header(kTarget).version, 100);
}

TEST_F(WholeFile, PackAndRenumberReportPercentsThatNeverFallAlthoughTheLibrarysDo) {
  LivelyDatabase lively;
  lively.image.addTable("QVrz_Category", 0x505);
  putSource(lively.image);
  std::vector<int> percents;
  const auto note = [&](int percent) {
    percents.push_back(percent);
    return true;
  };
  pack(path(kSource), path(kTarget), note);
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
  EXPECT_EQ(percents.back(), 100);
  percents.clear();
  renumber(path(kSource), path(kTarget), note, {.overwrite = true});
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
  EXPECT_EQ(percents.back(), 100);
}

TEST_F(WholeFile, ExceptionsOfProgressFunctionsComeOutWhole) {
  putSource(withCategory({0xA0}));
  struct Mine {};
  const auto throwing = [](int) -> bool { throw Mine(); };
  EXPECT_THROW(pack(path(kSource), path(kTarget), throwing), Mine);
  EXPECT_THROW(renumber(path(kSource), path(kTarget), throwing), Mine);
  EXPECT_THROW(repair(path(kSource), throwing), Mine);
  EXPECT_EQ(names(), std::vector<std::string>{kSource});
}

TEST_F(WholeFile, LetTheCancellationOfTheirThreadPass) {
  putSource(withCategory({0xA0}));
  const auto cancelling = [](int) -> bool {
    pthread_cancel(pthread_self());
    pthread_testcancel();
    return true;
  };
  const std::function<void()> operations[] = {
      [&] { pack(path(kSource), path(kTarget), cancelling); },
      [&] { renumber(path(kSource), path(kTarget), cancelling); },
      [&] { repair(path(kSource), cancelling); },
  };
  for (const std::function<void()>& operation : operations) {
    const auto start = [](void* run) -> void* {
      (*static_cast<const std::function<void()>*>(run))();
      return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, start,
                             const_cast<void*>(static_cast<const void*>(&operation))),
              0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(names(), std::vector<std::string>{kSource});
    expectWritesReachTheFile();
    qvdb::Database::open(path(kSource), qvdb::Mode::exclusive);  // no other opener is left
  }
}

TEST_F(WholeFile, AnOperationCanRunInsideTheProgressFunctionOfAnother) {
  putSource(withCategory({0xA0}));
  LivelyDatabase lively;
  writeFile(path("other.qvd"), lively.image.build());
  allowDamage("other.qvd");
  int calls = 0;
  pack(path(kSource), path(kTarget), [&](int) {
    ++calls;
    repair(path("other.qvd"), [](int) { return true; });
    return true;
  });
  EXPECT_GT(calls, 5);
}

TEST_F(WholeFile, PackDistinguishesDamageFromAFullDisk) {
  LivelyDatabase lively;
  lively.image.record(lively.b).blockMark = 0;
  putSource(lively.image);
  expectError(Reason::chain_damaged, [&] { pack(path(kSource), path(kTarget)); });
  EXPECT_EQ(names(), std::vector<std::string>{kSource});
  putSource(withCategory({}));
  RecordedCalls host;
  host.fullAfter(5000);
  const auto failed = [&] { pack(path(kSource), path(kTarget)); };
  expectError(Reason::disk_full, failed);
  EXPECT_EQ(names(), std::vector<std::string>{kSource});
}

TEST_F(WholeFile, RenumberSaysThatItNeedsCategoriesAndThatTheyMustBeKnown) {
  FileImage image;
  image.addTable("t", 0x101);
  putSource(image);
  expectError(Reason::table_missing, [&] { renumber(path(kSource), path(kTarget)); });
  putSource(withCategory({0x999}));
  expectError(Reason::data_damaged, [&] { renumber(path(kSource), path(kTarget)); });
  EXPECT_EQ(names(), std::vector<std::string>{kSource});
}

TEST_F(WholeFile, RepairReportsWhetherItHadAnythingToDo) {
  LivelyDatabase lively;
  putSource(lively.image);
  EXPECT_EQ(repair(path(kSource)), RepairOutcome::sound);
  lively.image.record(lively.c).prevRecordPos = 0;
  putSource(lively.image);
  EXPECT_EQ(repair(path(kSource)), RepairOutcome::relinked);
  EXPECT_EQ(record(lively.c, kSource).prevRecordPos, lively.b);
}

// The name leads to another file as soon as the first one is judged.
TEST_F(WholeFile, RepairMendsTheFileThatWasJudged) {
  LivelyDatabase lively;
  lively.image.record(lively.c).prevRecordPos = 0;
  putSource(lively.image);
  writeFile(path("other"), lively.image.build());
  const auto replace = [&](const qvdb::RepairPreview& preview) {
    EXPECT_EQ(preview.result, 2);
    std::filesystem::rename(path(kSource), path("aside"));
    std::filesystem::rename(path("other"), path(kSource));
    return true;
  };
  EXPECT_EQ(repair_if(path(kSource), replace), RepairOutcome::relinked);
  EXPECT_EQ(record(lively.c, "aside").prevRecordPos, lively.b);
  EXPECT_EQ(record(lively.c, kSource).prevRecordPos, 0);
  allowDamage(kSource);
  expectUnchanged(
      [&] {
        const auto refuse = [](const qvdb::RepairPreview&) { return false; };
        expectError(Reason::cancelled, [&] { repair_if(path(kSource), refuse); });
      },
      kSource);
}

TEST_F(WholeFile, RepairSaysWhyItCannot) {
  expectError(Reason::no_such_file, [&] { repair(path(kSource)); });
  writeFile(path(kSource), bytesOf("just text"));
  expectError(Reason::not_a_database, [&] { repair(path(kSource)); });
  LivelyDatabase lively;
  lively.image.slot(1).slotMark = 0;
  putSource(lively.image);
  expectError(Reason::directory_damaged, [&] { repair(path(kSource)); });
  lively.image.slot(1).slotMark = 151;
  putSource(lively.image);
  int16_t db = open(kSource, 4);
  expectError(Reason::in_use, [&] { repair(path(kSource)); });
  close(db);
  db = open(kSource, 1);  // a reader is no hindrance
  repair(path(kSource));
  close(db);
  expectError(Reason::cancelled, [&] { repair(path(kSource), [](int) { return false; }); });
}

}  // namespace
}  // namespace qvdbase::test

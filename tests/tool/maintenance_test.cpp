// qvdb compact, pack, renumber, repair
#include <csignal>

#include "kit/maintenance_fixture.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

class ToolMaintenance : public ToolTest {
 protected:
  ToolMaintenance() {
    allowDamage(kSource);
    allowDamage(kTarget);
  }

  void putLively() { writeFile(path(kSource), LivelyDatabase().image.build()); }

  void removeTarget() { std::filesystem::remove(path(kTarget)); }

  size_t filesInFolder() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder.path()),
                                             std::filesystem::directory_iterator()));
  }
};

TEST_F(ToolMaintenance, CompactsInPlaceAndSaysWhatItGained) {
  putLively();
  const size_t before = fileSize(kSource);
  const std::string would = line({"compact", "--dry-run", kSource});
  EXPECT_EQ(fileSize(kSource), before);
  const std::string text = line({"compact", kSource});
  const size_t after = fileSize(kSource);
  EXPECT_LT(after, before);
  EXPECT_EQ(text, std::to_string(before) + " bytes became " + std::to_string(after) + ": " +
                      std::to_string(before - after) + " bytes gained, 3 records in 3 tables");
  EXPECT_EQ(would, std::to_string(before) + " bytes would become " + std::to_string(after) + ": " +
                       std::to_string(before - after) + " bytes to gain, 3 records in 3 tables");
  EXPECT_EQ(done({"data", kSource, "one"}), "data of one");
  EXPECT_EQ(filesInFolder(), 1u);
}

TEST_F(ToolMaintenance, CompactsIntoAnotherFileAndLeavesTheSource) {
  putLively();
  expectUnchanged([&] { done({"compact", kSource, kTarget}); }, kSource);
  EXPECT_EQ(done({"data", kTarget, "one"}), "data of one");
  fails({"compact", kSource, kTarget}, 1, {kTarget, "exists", "--force"});
  done({"compact", "--force", kSource, kTarget});
}

TEST_F(ToolMaintenance, PacksAndWarnsOfTheTableDataThatIsLost) {
  putLively();
  const Outcome outcome = run({"pack", kSource, kTarget});
  EXPECT_EQ(outcome.status, 0);
  expectOneLine(outcome.err, {"'one'", "lost its data", "compact"});
  EXPECT_TRUE(sameBytes(contents(kTarget), LivelyDatabase().packed().build()));
}

TEST_F(ToolMaintenance, RenumbersADatabaseWithCategories) {
  FileImage image;
  image.addTable("QVrz_Category", 0x505);
  image.addTable("t", 0x606);
  image.addRecord(1, 0xA1, bytesOf("x"));
  writeFile(path(kSource), image.build());
  EXPECT_EQ(line({"renumber", kSource, kTarget}), "renumbered 4687 bytes into 4687");
  EXPECT_NE(database(kTarget).tables.at(1).records.at(0).id, 0xA1u);
  putLively();
  fails({"renumber", "--force", kSource, kTarget}, 1, {kSource, "QVrz_Category"});
}

TEST_F(ToolMaintenance, RepairsAndSaysSo) {
  LivelyDatabase lively;
  writeFile(path(kSource), lively.image.build());
  EXPECT_EQ(line({"repair", kSource}), "every chain is sound; nothing was repaired");
  lively.image.record(lively.c).prevRecordPos = 0;
  writeFile(path(kSource), lively.image.build());
  expectUnchanged(
      [&] {
        EXPECT_EQ(line({"repair", "-n", kSource}), "broken chains would be relinked");
      },
      kSource);
  EXPECT_EQ(line({"repair", kSource}), "repaired: broken chains were relinked");
}

TEST_F(ToolMaintenance, RepairLosesNothingUnlessItIsForced) {
  LivelyDatabase lively;
  lively.image.record(lively.a).nextRecordPos = 0;
  writeFile(path(kSource), lively.image.build());
  const std::string losses = "table 'one': 2 records would be lost, 1 would stay\n";
  expectUnchanged(
      [&] {
        const Outcome refused = run({"repair", kSource});
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.out, losses);
        expectOneLine(refused.err, {kSource, "not repaired", "2 records would", "'qvdb salvage'"});
        EXPECT_EQ(done({"repair", "-n", kSource}), losses + "broken chains would be relinked\n");
      },
      kSource);
  EXPECT_EQ(done({"repair", "--force", kSource}),
            losses + "repaired: broken chains were relinked\n");
  EXPECT_EQ(slot(0, kSource).recordCount, 1u);
}

// A record was linked but never counted: the table refuses appends, and link repair calls it sound.
TEST_F(ToolMaintenance, RepairCallsNothingSoundThatIsNot) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t first = image.addRecord(table, 0xA1, bytesOf("first"));
  image.addRecord(table, 0xA2, bytesOf("second"));
  SlotFields& slot = image.slot(table);
  slot.recordCount = slot.recordWriteCount = 1;
  slot.lastRecordPos = slot.lastWrittenRecordPos = first;
  writeFile(path(kSource), image.build());
  allowDamage(kSource);
  expectUnchanged(
      [&] {
        for (const Words& words : {Words{"repair", kSource}, Words{"repair", "-n", kSource}}) {
          const Outcome outcome = run(words);
          EXPECT_EQ(outcome.status, 1);
          EXPECT_EQ(outcome.out,
                    "table 'notes': 1 record outside its chain, which repair takes "
                    "for sound\n");
          expectOneLine(outcome.err, {kSource, "'qvdb check' finds 1 error", "'qvdb salvage'"});
        }
      },
      kSource);
}

TEST_F(ToolMaintenance, RepairHidesNoUnfinishedPack) {
  LivelyDatabase lively;
  lively.image.header().version = 101;
  writeFile(path(kSource), lively.image.build());
  expectUnchanged(
      [&] {
        const Outcome refused = run({"repair", kSource});
        EXPECT_EQ(refused.status, 1);
        expectOneLine(refused.err, {kSource, "unfinished pack", "source"});
      },
      kSource);
  done({"repair", "--force", kSource});
  EXPECT_EQ(contents(kSource).beAt(4, 2), 100u);
}

TEST_F(ToolMaintenance, RepairFailsOnWhatItCannotMend) {
  LivelyDatabase lively;
  lively.image.slot(1).slotMark = 0;
  writeFile(path(kSource), lively.image.build());
  expectUnchanged([&] { fails({"repair", kSource}, 1, {kSource, "cannot repair"}); }, kSource);
  fails({"repair", "-n", kSource}, 1, {kSource, "would fail"});
}

TEST_F(ToolMaintenance, RefusesImpossibleArgumentsAndLeavesNoEmptyTarget) {
  writeFile(path("text"), bytesOf("just text"));
  for (const char* command : {"pack", "renumber", "compact"}) {
    fails({command, "missing", kTarget}, 1, {"missing", "no such file"});
    fails({command, "text", kTarget}, 1, {"text", "not a database"});
    fails({command}, 2, {"SOURCE"});
    EXPECT_FALSE(std::filesystem::exists(path(kTarget)));
  }
  putLively();
  fails({"pack", kSource, kSource}, 1, {"source itself"});
  fails({"renumber", kSource, kSource}, 1, {"source itself"});
  fails({"repair", "missing"}, 1, {"missing", "no such file"});
  fails({"repair", "text"}, 1, {"text", "not a database"});
  EXPECT_EQ(readFile(path("text")), bytesOf("just text"));
  EXPECT_EQ(filesInFolder(), 2u);
}

TEST_F(ToolMaintenance, RefusesDatabasesInUse) {
  putLively();
  const Bytes before = contents(kSource);  // to read it later would end a lock of this process
  const int16_t db = open(kSource, 3);
  fails({"compact", kSource}, 3, {kSource, "another process ("});
  fails({"pack", kSource, kTarget}, 3, {kSource, "another process ("});
  fails({"repair", kSource}, 3, {kSource, "another process ("});
  close(db);
  EXPECT_TRUE(sameBytes(contents(kSource), before));
  EXPECT_EQ(filesInFolder(), 1u);
}

TEST_F(ToolMaintenance, StopsAtCtrlCAndLeavesNothing) {
  FileImage image;
  image.addTable("QVrz_Category", 0x404);
  image.addTable("t", 0x505);
  int64_t previous = 0;
  Bytes file;
  {
    // Many records, made by hand: the image's own bookkeeping would take long.
    constexpr size_t kCount = 200000;
    SlotFields& slot = image.slot(1);
    slot.recordCount = slot.recordWriteCount = kCount;
    slot.firstRecordPos = kDirectoryEnd;
    slot.lastRecordPos = slot.lastWrittenRecordPos =
        static_cast<int64_t>(kDirectoryEnd + (kCount - 1) * 56);
    file = image.build();
    for (size_t i = 0; i < kCount; ++i) {
      const auto position = static_cast<int64_t>(kDirectoryEnd + i * 56);
      RecordFields record;
      record.tableID = slot.tableID;
      record.recordID = identifier(i + 1);
      record.prevRecordPos = previous;
      record.nextRecordPos = i + 1 < kCount ? position + 56 : 0;
      file.add(record.encode());
      previous = position;
    }
  }
  writeFile(path(kSource), file);
  for (const Words& words : {Words{"pack", kSource, kTarget}, Words{"renumber", kSource, kTarget},
                             Words{"compact", kSource, kTarget}}) {
    ProgramCall call = callOf(words);
    // As soon as the temporary file is there, the work has begun.
    call.meanwhile = [this](pid_t process) {
      while (filesInFolder() < 2 && ::kill(process, 0) == 0) ::usleep(100);
      ::kill(process, SIGINT);
    };
    Outcome outcome;
    // On a busy machine the work can be done before the signal is there: then once more.
    for (int attempt = 0; attempt < 50 && outcome.status != 1; ++attempt) {
      removeTarget();
      outcome = runProgram(call);
    }
    EXPECT_EQ(outcome.status, 1) << words[0];
    expectOneLine(outcome.err, {"interrupted"});
    EXPECT_EQ(filesInFolder(), 1u) << words[0];
  }
  EXPECT_TRUE(sameBytes(contents(kSource), file));
}

}  // namespace
}  // namespace qvdbase::test

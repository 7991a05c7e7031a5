// qvdb salvage, history and undelete
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "kit/sanitized.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

class ToolSalvage : public ToolTest {
 protected:
  Words ids = notes({bytesOf("first"), bytesOf("second"), bytesOf("third")});

  // Cuts the chain after the first record.
  void cutChain() {
    patchFile(path(), 4630 + 39, Bytes().zeros(8));
    allowDamage();
  }

  std::string payloadOf(const std::string& file, const std::string& id) {
    return done({"get", file, "notes", id});
  }
};

TEST_F(ToolSalvage, WritesASoundFileWithEverything) {
  cutChain();
  expectOnlyRead([&] {
    EXPECT_EQ(done({"salvage", "test.qvd", "saved.qvd"}),
              "3 blocks live: 3 written\n"
              "1 table, 3 records, 16 bytes of payload written and checked\n");
  });
  EXPECT_EQ(payloadOf("saved.qvd", ids[2]), "third");
  done({"check", "--strict", "saved.qvd"});
}

TEST_F(ToolSalvage, SavesDeletedRecordsOnRequest) {
  done({"rm", "test.qvd", "notes", ids[1]});
  done({"salvage", "test.qvd", "without.qvd"});
  EXPECT_EQ(json({"records", "--json", "without.qvd", "notes"})["records"].size(), 2u);
  done({"salvage", "--deleted", "test.qvd", "apart.qvd"});
  EXPECT_EQ(done({"get", "apart.qvd", "lost-and-found", ids[1]}), "second");
  done({"salvage", "--deleted", "--in-place-tables", "test.qvd", "inside.qvd"});
  EXPECT_EQ(payloadOf("inside.qvd", ids[1]), "second");
}

TEST_F(ToolSalvage, ListsBlocksAndPrintsJson) {
  done({"rm", "test.qvd", "notes", ids[1]});
  const std::string listed = done({"salvage", "-v", "test.qvd", "a.qvd"});
  EXPECT_NE(listed.find("4630  A  " + ids[0] + "  notes  5 bytes  live  -> notes\n"),
            std::string::npos)
      << listed;
  EXPECT_NE(listed.find("deleted  left out\n"), std::string::npos) << listed;
  const auto report = json({"salvage", "--json", "test.qvd", "b.qvd"});
  EXPECT_EQ(report["verified"], true);
  EXPECT_EQ(report["records_written"], 2);
  EXPECT_EQ(report["bytes_unreadable"], 0);
  EXPECT_EQ(report["blocks_left_out"], 1);
}

TEST_F(ToolSalvage, ListsBlocksOnceHoweverOftenTheSourceChangesMeanwhile) {
  ProgramCall call = callOf({"salvage", "-v", "--wait", "100000", kDefaultFile, "new.qvd"});
  call.meanwhile = [this](pid_t) {
    for (int i = 0; i < 4000; ++i) {
      const timespec times[2] = {{.tv_sec = i, .tv_nsec = 0}, {.tv_sec = i, .tv_nsec = 0}};
      ::utimensat(AT_FDCWD, path().c_str(), times, 0);
      ::usleep(100);
    }
  };
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 0) << outcome;
  const size_t first = outcome.out.find(ids[0]);
  EXPECT_NE(first, std::string::npos) << outcome;
  EXPECT_EQ(outcome.out.find(ids[0], first + 1), std::string::npos) << outcome;
}

TEST_F(ToolSalvage, ReadsStandardInputAndExtractsPayloads) {
  done({"salvage", "--extract", "out", "-", "saved.qvd"}, contents().str());
  EXPECT_EQ(readFile(path("out/4630.bin")), bytesOf("first"));
  EXPECT_TRUE(std::filesystem::exists(path("out/manifest.jsonl")));
  EXPECT_EQ(payloadOf("saved.qvd", ids[0]), "first");
}

// It would not fit into memory; the database comes after bytes that are no part of it.
TEST_F(ToolSalvage, ReadsStandardInputInPlaceWhenItIsAFile) {
  constexpr uint64_t kBegin = uint64_t{5} << 30;
  writeFile(path("disk.img"), pattern(100));
  std::filesystem::resize_file(path("disk.img"), kBegin);
  patchFile(path("disk.img"), kBegin, contents());
  struct stat status = {};
  ASSERT_EQ(::stat(path("disk.img").c_str(), &status), 0);
  if (status.st_blocks * 512 > status.st_size / 2) GTEST_SKIP() << "no holes in this file system";

  ProgramCall call = callOf({"salvage", "--from", std::to_string(kBegin), "-", "saved.qvd"});
  call.inputFile = path("disk.img");
  EXPECT_EQ(runProgram(call).status, 0);
  EXPECT_EQ(payloadOf("saved.qvd", ids[1]), "second");
  call.arguments = {"salvage", "-", "all.qvd"};  // through the hole
  EXPECT_EQ(runProgram(call).status, 0);
  EXPECT_EQ(json({"tables", "--json", "all.qvd"})["tables"][0]["records"], 3);
}

TEST_F(ToolSalvage, ReadsStandardInputFromItsPosition) {
  writeFile(path("disk.img"), pattern(4096).add(contents()));
  ProgramCall call =
      callOf({"-c", "dd bs=4096 count=1 of=skipped && exec \"$0\" salvage - a.qvd", QVDB_TOOL});
  call.program = "/bin/sh";
  call.inputFile = path("disk.img");
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_EQ(readFile(path("skipped")), pattern(4096));
  EXPECT_EQ(database("a.qvd").tables.at(0).name, "notes");
}

TEST_F(ToolSalvage, SaysWhenAPipeHoldsMoreThanMemoryDoes) {
  if (kIsSanitized) GTEST_SKIP() << "the sanitizers take more memory than is left here";
  ProgramCall call = callOf(
      {"-c", "ulimit -v 300000; head -c 400000000 /dev/zero | \"$0\" salvage - a.qvd", QVDB_TOOL});
  call.program = "/bin/sh";
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"standard input", "not enough memory", "file"});
  EXPECT_FALSE(std::filesystem::exists(path("a.qvd")));
}

TEST_F(ToolSalvage, LeavesNothingWhenItsOutputHasNoReaderAnyMore) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  for (uint64_t id = 1; id <= 1500; ++id) image.addRecord(table, id, bytesOf("text"));
  writeFile(path(), image.build());
  ProgramCall call = callOf({"salvage", "-v", "--extract", "out", "test.qvd", "saved.qvd"});
  call.closesOutput = true;
  EXPECT_EQ(runProgram(call).status, 1);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()),
                          std::filesystem::directory_iterator()),
            1);
}

TEST_F(ToolSalvage, ExtractReplacesNoFile) {
  done({"salvage", "--extract", "out", "test.qvd", "a.qvd"});
  fails({"salvage", "--extract", "out", "test.qvd", "b.qvd"}, 1,
        {"out/manifest.jsonl", "exists", "another folder"});
  EXPECT_FALSE(std::filesystem::exists(path("b.qvd")));
}

TEST_F(ToolSalvage, TakesImagesThatBeginElsewhere) {
  writeFile(path("disk.img"), pattern(4096).add(contents()));
  done({"salvage", "--from", "4096", "disk.img", "a.qvd"});
  EXPECT_EQ(payloadOf("a.qvd", ids[1]), "second");
  writeFile(path("tail.img"), contents().from(4630));
  done({"salvage", "--from", "-4630", "tail.img", "b.qvd"});
  EXPECT_EQ(json({"tables", "--json", "b.qvd"})["tables"][0]["records"], 3);
}

TEST_F(ToolSalvage, SavesDatabasesThatAreStoredInPayloads) {
  const Bytes inner = contents();
  const std::string id = done({"put", "test.qvd", "notes", "-"}, inner.str());
  const std::string at = std::to_string(database().tables[0].records[3].position + 55);
  EXPECT_EQ(done({"salvage", "--deep", "inside", "test.qvd", "a.qvd"}),
            "4 blocks live: 4 written\n"
            "A database stored at " +
                at + ": 1 table, 3 records written to inside/at-" + at +
                ".qvd\n"
                "1 table, 4 records, " +
                std::to_string(inner.size() + 16) + " bytes of payload written and checked\n");
  EXPECT_EQ(payloadOf("inside/at-" + at + ".qvd", ids[1]), "second");
  const auto report = json({"salvage", "--json", "--deep", "again", "test.qvd", "b.qvd"});
  const auto stored = report["stored"].at(0);
  EXPECT_EQ(std::to_string(stored["offset"].get<int>()), at);
  EXPECT_EQ(stored["file"], "again/at-" + at + ".qvd");
  EXPECT_EQ(stored["tables_written"], 1);
  EXPECT_EQ(stored["records_written"], 3);
  EXPECT_EQ(stored["verified"], true);
  fails({"salvage", "--deep", "inside", "test.qvd", "c.qvd"}, 1,
        {"inside/at-" + at, "exists", "another folder"});
  EXPECT_FALSE(std::filesystem::exists(path("c.qvd")));
}

TEST_F(ToolSalvage, ReplacesNoFileAndSaysWhatIsWrong) {
  writeFile(path("here"), bytesOf("here"));
  fails({"salvage", "test.qvd", "here"}, 1, {"here", "exists", "another name for the new file"});
  EXPECT_EQ(readFile(path("here")), bytesOf("here"));
  fails({"salvage", "absent", "new.qvd"}, 1, {"absent", "no such file"});
  for (const char* text : {"", "QVdb", "a file that is longer than a header, but is none"}) {
    writeFile(path("text"), bytesOf(text));
    fails({"salvage", "text", "new.qvd"}, 1, {"text", "no table and no record"});
    EXPECT_FALSE(std::filesystem::exists(path("new.qvd"))) << text;
  }
  fails({"salvage", "--grade", "D", "test.qvd", "new.qvd"}, 2, {"--grade"});
  fails({"salvage", "--from", "there", "test.qvd", "new.qvd"}, 2, {"--from"});
  fails({"salvage", "test.qvd"}, 2, {"DST"});
  EXPECT_FALSE(std::filesystem::exists(path("new.qvd")));
}

class ToolHistory : public ToolSalvage {
 protected:
  void SetUp() override {
    done({"set", "test.qvd", "notes", ids[1], "-"}, "a longer text");
    done({"rm", "test.qvd", "notes", ids[1]});
  }
};

TEST_F(ToolHistory, ListsVersionsAndWritesOneOfThem) {
  expectOnlyRead([&] {
    const auto versions = json({"history", "--json", "test.qvd", "notes", ids[1]})["versions"];
    ASSERT_EQ(versions.size(), 2u);
    EXPECT_EQ(versions[0]["label"], "superseded");
    EXPECT_EQ(versions[1]["label"], "deleted");
    const std::string at = std::to_string(versions[0]["offset"].get<int>());
    EXPECT_EQ(done({"history", "--at", at, "test.qvd", "notes", ids[1]}), "second");
    EXPECT_NE(done({"history", "test.qvd", "notes", ids[1]}).find(at + "           6  superseded"),
              std::string::npos);
  });
  fails({"history", "--at", "1", "test.qvd", "notes", ids[1]}, 1, {"no version", "at 1"});
  fails({"history", "test.qvd", "notes", "0xee"}, 1, {"no version", "0xee"});
  fails({"history", "test.qvd", "absent", ids[1]}, 1, {"absent"});
  fails({"history", "test.qvd", "notes", "second"}, 2, {"'second'"});
}

TEST_F(ToolHistory, UndeleteBringsARecordBack) {
  expectOnlyRead([&] { done({"undelete", "test.qvd", "new.qvd", "notes", ids[1]}); });
  EXPECT_EQ(payloadOf("new.qvd", ids[1]), "a longer text");
  EXPECT_EQ(payloadOf("new.qvd", ids[2]), "third");
  const auto versions = json({"history", "--json", "test.qvd", "notes", ids[1]})["versions"];
  const std::string at = std::to_string(versions[0]["offset"].get<int>());
  done({"undelete", "--at", at, "test.qvd", "old.qvd", "notes", ids[1]});
  EXPECT_EQ(payloadOf("old.qvd", ids[1]), "second");
  fails({"undelete", "test.qvd", "x.qvd", "notes", ids[0]}, 1, {"in use"});
  fails({"undelete", "test.qvd", "x.qvd", "notes", "0xee"}, 1, {"no such version"});
}

TEST_F(ToolHistory, UndeleteReportsThatAnotherProcessWritesToTheSource) {
  EXPECT_EQ(done({"undelete", "test.qvd", "alone.qvd", "notes", ids[1]}), "");
  const int16_t db = open();
  const std::string text = done({"undelete", "test.qvd", "beside.qvd", "notes", ids[1]});
  const std::string writer = "another process (" + std::to_string(::getpid());
  EXPECT_EQ(text.find("The source is in use: " + writer), 0u) << text;
  EXPECT_NE(text.find(") is writing to it; repeat this when it has closed the file.\n"),
            std::string::npos)
      << text;
  close(db);
}

}  // namespace
}  // namespace qvdbase::test

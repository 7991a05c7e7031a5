// qvdb check
#include <fstream>

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

class ToolCheck : public ToolTest {
 protected:
  // Three records, of which the second is damaged as the patch says.
  void damaged(size_t offset, const Bytes& patch) {
    notes({bytesOf("first"), bytesOf("second"), bytesOf("third")});
    const int64_t second = database().tables[0].records[1].position;
    patchFile(path(), static_cast<uint64_t>(second) + offset, patch);
    allowDamage();
  }
};

TEST_F(ToolCheck, SaysWhyAPathCannotBeReached) {
  for (const char* command : {"check", "salvage"}) {
    Words words = {command, "no\xff.qvd"};
    if (words[0] == "salvage") words.push_back("new.qvd");
    fails(words, 1, {"does not exist", "not valid UTF-8"});
    words[1] = "";
    fails(words, 1, {"it is empty"});
  }
}

TEST_F(ToolCheck, SaysThatAFileIsSound) {
  notes({bytesOf("first")});
  expectOnlyRead([&] {
    EXPECT_EQ(line({"check", "test.qvd"}),
              "test.qvd: sound: 0 errors, 0 warnings; 1 block, 4691 bytes");
  });
}

TEST_F(ToolCheck, ReportsWhatIsWrongWhatFailsAndWhatToDo) {
  damaged(39, Bytes().zeros(8));
  expectOnlyRead([&] {
    const Outcome outcome = run({"check", "test.qvd"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "");
    for (const char* part :
         {"error R5 table 'notes' record 0x", "The chain ends after 2 records of 3.", "fails    ",
          "do       run 'qvdb salvage'", "What will fail on this table now: listing",
          "test.qvd: damaged: 3 errors, 0 warnings; 3 blocks, "}) {
      EXPECT_NE(outcome.out.find(part), std::string::npos) << part << " is not in\n" << outcome;
    }
  });
}

TEST_F(ToolCheck, PrintsJson) {
  damaged(39, Bytes().zeros(8));
  const Outcome outcome = run({"check", "--json", "test.qvd"});
  EXPECT_EQ(outcome.status, 1);
  const auto report = parsedJson(outcome.out);
  EXPECT_EQ(report["state"], "damaged");
  EXPECT_EQ(report["errors"], 3);
  EXPECT_EQ(report["tables"][0]["works"]["append"], true);
  EXPECT_EQ(report["tables"][0]["works"]["list"], false);
  EXPECT_EQ(report["findings"][0]["code"], "R5");
  EXPECT_EQ(report["findings"][0]["table"], "notes");
  uint64_t sum = 0;
  for (const auto& part : report["space"]) sum += part.get<uint64_t>();
  EXPECT_EQ(sum, report["size"]);
}

TEST_F(ToolCheck, PrintsTheSpareCapacityAndHowMuchOfItHoldsOlderData) {
  notes({bytesOf("sixteen bytes ab")});
  const int64_t record = database().tables[0].records[0].position;
  patchFile(path(), static_cast<uint64_t>(record) + 47, Bytes().be(4, 4));  // the length
  const auto report = parsedJson(run({"check", "--json", "test.qvd"}).out);
  EXPECT_EQ(report["state"], "sound");
  EXPECT_EQ(report["spare_room"]["bytes"], 12);
  EXPECT_EQ(report["spare_room"]["stale"], 12);
}

TEST_F(ToolCheck, CountsWarningsOnlyWhenItIsStrict) {
  damaged(23, Bytes().zeros(8));  // both times
  EXPECT_EQ(run({"check", "test.qvd"}).status, 0);
  const Outcome strict = run({"check", "--strict", "test.qvd"});
  EXPECT_EQ(strict.status, 1);
  EXPECT_NE(strict.out.find("warning R14"), std::string::npos) << strict;
}

TEST_F(ToolCheck, ShowsInformationAndSpaceWithVerbose) {
  const Words ids = notes({bytesOf("first"), bytesOf("second")});
  done({"rm", "test.qvd", "notes", ids[0]});
  EXPECT_EQ(done({"check", "test.qvd"}).find("S2"), std::string::npos);
  const std::string out = done({"check", "-v", "test.qvd"});
  EXPECT_NE(out.find("information S2 table 'notes' at 4630"), std::string::npos) << out;
  EXPECT_NE(out.find("              61  deleted records\n"), std::string::npos) << out;
}

TEST_F(ToolCheck, ReportsADamagedFileInUseWithAStatusOfItsOwn) {
  damaged(39, Bytes().zeros(8));
  const int16_t db = open();  // in another process than the tool's
  const Outcome outcome = run({"check", "test.qvd"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_NE(outcome.out.find("in use: "), std::string::npos) << outcome;
  close(db);
}

TEST_F(ToolCheck, ChecksAFileThatIsNotADatabase) {
  writeFile(path("text"), bytesOf("some text"));
  writeFile(path("empty"), {});
  EXPECT_NE(run({"check", "text"}).out.find("error F2"), std::string::npos);
  EXPECT_NE(run({"check", "empty"}).out.find("error F1"), std::string::npos);
  EXPECT_EQ(run({"check", "empty"}).status, 1);
  fails({"check", "absent"}, 1, {"absent", "no such file"});
  fails({"check", "."}, 1, {"not a regular file"});
}

TEST_F(ToolCheck, RefusesAFileThatTheSystemMakesUp) {
  if (!std::ifstream("/proc/version")) GTEST_SKIP() << "there is no /proc";
  for (const char* command : {"check", "map"}) {
    fails({command, "/proc/version"}, 1,
          {"/proc/version", "the system makes what is read from it"});
  }
}

TEST_F(ToolCheck, EscapesWhatTheFileSays) {
  const int16_t db = create();
  addTable(db, "bell\aesc\x1b[2J");
  close(db);
  const std::string out = done({"check", "-v", "test.qvd"});
  EXPECT_NE(out.find("information D4"), std::string::npos) << out;
  EXPECT_EQ(out.find('\a'), std::string::npos);
  EXPECT_EQ(out.find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace qvdbase::test

// Waiting for a database that another process has open: --wait, and the status of those who do not.
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <utility>

#include "tool/holder.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

using ToolWait = ToolTest;

TEST_F(ToolWait, AnImportThatIsInterruptedMeanwhileReportsThatNothingIsStored) {
  notes({});
  writeFile(path("input"), bytesOf("b"));
  const Holder holder(wide(kDefaultFile));
  ASSERT_TRUE(holder.isHolding());
  expectUnchanged([&] {
    ProgramCall call = callOf({"import", "--wait", "600", kDefaultFile, "files", "input"});
    call.meanwhile = [](pid_t process) {
      // It can be interrupted once it catches the signal.
      const std::string status = "/proc/" + std::to_string(process) + "/status";
      for (;;) {
        std::ifstream lines(status);
        for (std::string line; std::getline(lines, line);) {
          if (!line.starts_with("SigCgt:")) continue;
          if ((std::stoull(line.substr(7), nullptr, 16) & 2) != 0) {
            ::kill(process, SIGINT);
            return;
          }
        }
      }
    };
    const Outcome outcome = runProgram(call);
    EXPECT_EQ(outcome.status, 1) << outcome;
    expectOneLine(outcome.err, {"interrupted", "nothing was stored"});
  });
}

TEST_F(ToolWait, ADatabaseInUseHasAStatusOfItsOwn) {
  const Words ids = notes({bytesOf("a")});
  writeFile(path("input"), bytesOf("b"));
  const Holder holder(wide(kDefaultFile));
  ASSERT_TRUE(holder.isHolding());
  const std::vector<Words> commands = {
      {"create", "--force", kDefaultFile},
      {"add-table", kDefaultFile, "more"},
      {"put", kDefaultFile, "notes", "input"},
      {"set", kDefaultFile, "notes", ids[0], "input"},
      {"touch", kDefaultFile, "notes", ids[0]},
      {"rm", kDefaultFile, "notes", ids[0]},
      {"import", kDefaultFile, "files", "input"},
      {"compact", kDefaultFile},
      {"pack", kDefaultFile, "packed.qvd"},
      {"repair", kDefaultFile},
      {"trim", kDefaultFile},
      {"trim", "--dry-run", kDefaultFile},
  };
  expectUnchanged([&] {
    for (const Words& words : commands) {
      fails(words, 3, {holder.named(), ") is writing to it; wait, or use --wait 10"});
      Words waiting = words;
      waiting.insert(waiting.begin() + 1, {"--wait", "0"});
      fails(waiting, 3, {holder.named()});
    }
  });
  // Readers need not wait.
  EXPECT_EQ(done({"get", "--wait", "100000", kDefaultFile, "notes", ids[0]}), "a");
}

TEST_F(ToolWait, WaitsUntilTheDatabaseIsFree) {
  notes({bytesOf("a")});
  writeFile(path("input"), bytesOf("b"));
  Holder holder(wide(kDefaultFile));
  ASSERT_TRUE(holder.isHolding());
  ProgramCall call = callOf({"put", "--wait", "100000", kDefaultFile, "notes", "input"});
  call.meanwhile = [&](pid_t) { holder.end(); };
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_EQ(database().tables[0].records.size(), 2u);
}

// What looks like damage can be its work in progress.
TEST_F(ToolWait, ACheckNamesWhoWrites) {
  notes({bytesOf("a")});
  patchFile(path(kDefaultFile), static_cast<uint64_t>(slot(0).firstRecordPos), Bytes().be(1, 0));
  expectDamage(kDefaultFile);
  const Holder holder(wide(kDefaultFile));
  ASSERT_TRUE(holder.isHolding());
  for (const Words& words :
       {Words{"check", kDefaultFile}, {"check", "--wait", "1", kDefaultFile}}) {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 4) << outcome;
    EXPECT_NE(outcome.out.find("in use: " + holder.named()), std::string::npos) << outcome;
    EXPECT_NE(outcome.out.find(") is writing to it; "), std::string::npos) << outcome;
  }
  const Outcome outcome = run({"check", "--json", kDefaultFile});
  EXPECT_EQ(outcome.status, 4) << outcome;
  EXPECT_EQ(parsedJson(outcome.out)["writer"]["process"].dump(), holder.number()) << outcome;
}

TEST_F(ToolWait, ASalvageNamesWhoWritesToItsSource) {
  notes({bytesOf("a")});
  const Holder holder(wide(kDefaultFile));
  ASSERT_TRUE(holder.isHolding());
  const std::string text = done({"salvage", kDefaultFile, "new.qvd"});
  EXPECT_NE(text.find("The source is in use: " + holder.named()), std::string::npos) << text;
  const auto report = parsedJson(done({"salvage", "--json", kDefaultFile, "second.qvd"}));
  EXPECT_EQ(report["source_in_use"], true);
  EXPECT_EQ(report["source_writer"]["process"].dump(), holder.number());
}

// In each of its forms, on standard error.
TEST_F(ToolWait, AMapNamesWhoWrites) {
  notes({bytesOf("a")});
  std::optional<Holder> holder(std::in_place, wide(kDefaultFile));
  ASSERT_TRUE(holder->isHolding());
  const std::vector<Words> forms = {
      {"map", kDefaultFile}, {"map", "--extents", kDefaultFile}, {"map", "--json", kDefaultFile}};
  for (const Words& words : forms) {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_NE(outcome.err.find(": " + holder->named()), std::string::npos) << outcome;
    EXPECT_NE(
        outcome.err.find(") is writing to it; what looks like damage can be work in progress"),
        std::string::npos)
        << outcome;
  }
  holder.reset();
  for (const Words& words : forms) EXPECT_EQ(run(words).err, "");
}

TEST_F(ToolWait, WaitsForTheFileThatItReplaces) {
  const Words ids = notes({bytesOf("a")});
  done({"data", kDefaultFile, "notes", "--set", "-"}, "data");
  std::filesystem::create_directory(path("out"));
  done({"create", "out/used.qvd"});
  done({"import", kDefaultFile, "files", "out/"});
  const std::string at = std::to_string(slot(0).firstRecordPos);
  const std::vector<Words> commands = {
      {"export", kDefaultFile, "files", "out"},
      {"get", kDefaultFile, "notes", ids[0], "-o", "out/used.qvd"},
      {"data", kDefaultFile, "notes", "-o", "out/used.qvd"},
      {"history", kDefaultFile, "notes", ids[0], "--at", at, "-o", "out/used.qvd"},
  };
  for (Words words : commands) {
    SCOPED_TRACE(words[0]);
    Holder holder(wide("out/used.qvd"));
    ASSERT_TRUE(holder.isHolding());
    words.insert(words.end(), {"--force", "--wait", "100000"});
    ProgramCall call = callOf(words);
    call.meanwhile = [&](pid_t) {
      ::usleep(300'000);  // in which it begins to wait
      holder.end();
    };
    const Outcome outcome = runProgram(call);
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(outcome.err, "");
  }
}

TEST_F(ToolWait, StopsWaitingAtCtrlC) {
  notes({bytesOf("a")});
  writeFile(path("input"), bytesOf("b"));
  const Holder holder(wide(kDefaultFile));
  ASSERT_TRUE(holder.isHolding());
  ProgramCall call = callOf({"put", "--wait", "100000", kDefaultFile, "notes", "input"});
  // Until it catches signals it ends by one, which is as good.
  call.meanwhile = [](pid_t tool) {
    ::usleep(300'000);  // in which it begins to wait
    ::kill(tool, SIGINT);
  };
  const Outcome outcome = runProgram(call);
  EXPECT_TRUE(outcome.status == 1 || outcome.signal == SIGINT) << outcome;
}

TEST_F(ToolWait, TakesWholeSeconds) {
  notes({});
  for (const char* text : {"", "soon", "-1", "1.5", "1s"}) {
    fails({"tables", "--wait", text, kDefaultFile}, 2, {"--wait"});
  }
  EXPECT_NE(done({"put", "--help"}).find("--wait SECONDS"), std::string::npos);
}

}  // namespace
}  // namespace qvdbase::test

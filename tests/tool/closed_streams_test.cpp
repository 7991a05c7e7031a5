// The tool started without some of its standard streams, as daemons and schedulers start programs.
#include <sys/stat.h>

#include <set>

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

class ClosedStreams : public ToolTest {
 protected:
  // Every combination of closed streams, none of them left out.
  template <typename Check>
  void forEachCombination(Check check) {
    for (int bits = 1; bits < 8; ++bits) {
      std::set<int> closed;
      for (int i = 0; i < 3; ++i) {
        if ((bits & (1 << i)) != 0) closed.insert(i);
      }
      check(closed);
      if (HasFailure()) return;
    }
  }

  Outcome runWithout(const std::set<int>& closed, const Words& words) {
    ProgramCall call = callOf(words);
    call.closedStreams = closed;
    return runProgram(call);
  }
};

// The depth of the path decides which descriptor a file would get: both are tried.
TEST_F(ClosedStreams, LeaveEveryCommandItsFiles) {
  std::filesystem::create_directories(path("deep/er"));
  writeFile(path("input"), bytesOf("payload"));
  std::filesystem::create_directories(path("tree"));
  writeFile(path("tree/one"), bytesOf("1"));
  ASSERT_EQ(::mkfifo(path("tree/pipe").c_str(), 0600), 0);
  int round = 0;
  forEachCombination([&](const std::set<int>& closed) {
    for (const std::string below : {"", "deep/er/"}) {
      const std::string number = std::to_string(++round);
      const std::string file = below + number + ".qvd";
      const std::vector<std::pair<int, Words>> commands = {
          {0, {"create", file}},
          {0, {"add-table", file, "t"}},
          {0, {"import", file, "t", "tree"}},  // which complains of the pipe
          {0, {"put", "--id", "0x7", file, "t", "input"}},
          {0, {"set", file, "t", "0x7", "input"}},
          {0, {"records", file, "t"}},
          {1, {"get", file, "t", "0x8"}},
          {0, {"export", file, "t", number + ".out"}},
          {0, {"rm", file, "t", "0x7"}},
          {0, {"trim", file}},
          {0, {"compact", file}},
          {0, {"salvage", file, number + ".saved.qvd"}},
          {0, {"check", file}},
      };
      for (const auto& [status, words] : commands) {
        const Outcome outcome = runWithout(closed, words);
        EXPECT_EQ(outcome.status, status) << words[0] << ' ' << outcome;
      }
      done({"check", file});
      EXPECT_EQ(done({"get", file, "t", "tree/one"}), "1");
      EXPECT_EQ(readFile(path(number + ".out/tree/one")).str(), "1");
    }
  });
}

TEST_F(ClosedStreams, InputIsRefusedAtOnce) {
  const Words ids = notes({bytesOf("a")});
  forEachCombination([&](std::set<int> closed) {
    closed.insert(0);
    const Outcome outcome = runWithout(closed, {"put", kDefaultFile, "notes"});
    EXPECT_EQ(outcome.status, 1) << outcome;
    if (!closed.contains(2)) expectOneLine(outcome.err, {"standard input"});
  });
  EXPECT_EQ(json({"records", "--json", kDefaultFile, "notes"}).at("records").size(), ids.size());
}

}  // namespace
}  // namespace qvdbase::test

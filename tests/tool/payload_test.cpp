// qvdb get, put, set, rm, touch and data
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

using ToolGet = ToolTest;
using ToolPut = ToolTest;
using ToolSet = ToolTest;
using ToolRm = ToolTest;
using ToolTouch = ToolTest;
using ToolData = ToolTest;

// ---- get

TEST_F(ToolGet, WritesThePayloadToStandardOutputByteForByte) {
  const Bytes payload = pattern(300'000);
  const Words ids = notes({bytesOf("text\n"), payload, {}});
  expectOnlyRead([&] {
    EXPECT_EQ(done({"get", "test.qvd", "notes", ids[0]}), "text\n");
    EXPECT_EQ(bytesOf(done({"get", "test.qvd", "notes", ids[1]})), payload);
    EXPECT_EQ(done({"get", "test.qvd", "notes", ids[2]}), "");
    EXPECT_EQ(done({"get", "test.qvd", "notes", ids[0], "--output", "-"}), "text\n");
  });
}

TEST_F(ToolGet, WritesToAFileThatDoesNotExistYet) {
  const Words ids = notes({bytesOf("text")});
  EXPECT_EQ(done({"get", "test.qvd", "notes", ids[0], "-o", "out.txt"}), "");
  EXPECT_EQ(readFile(path("out.txt")), bytesOf("text"));
  writeFile(path("out.txt"), bytesOf("precious"));
  fails({"get", "test.qvd", "notes", ids[0], "-o", "out.txt"}, 1, {"out.txt", "exists", "--force"});
  EXPECT_EQ(readFile(path("out.txt")), bytesOf("precious"));
  done({"get", "test.qvd", "notes", ids[0], "-o", "out.txt", "--force"});
  EXPECT_EQ(readFile(path("out.txt")), bytesOf("text"));
  fails({"get", "test.qvd", "notes", ids[0], "-o", "no/such/folder"}, 1, {"no/such/folder"});
}

TEST_F(ToolGet, DoesNotOfferToWriteToAFolder) {
  const Words ids = notes({bytesOf("a")});
  for (const Words& more : {Words{}, Words{"--force"}}) {
    Words words = {"get", kDefaultFile, "notes", ids[0], "--output", "."};
    words.insert(words.end(), more.begin(), more.end());
    const std::string message = fails(words, 1, {".: is a folder"});
    EXPECT_EQ(message.find("--force"), std::string::npos) << message;
  }
}

TEST_F(ToolGet, StopsAtASignalWhileNoProgramReadsThePipe) {
  const Words ids = notes({bytesOf("a")});
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  ProgramCall call = callOf({"get", kDefaultFile, "notes", ids[0], "--force", "-o", "pipe"});
  // Until it catches signals it ends by one, which is as good.
  call.meanwhile = [](pid_t tool) {
    ::usleep(300'000);  // in which it begins to wait
    ::kill(tool, SIGTERM);
  };
  const Outcome outcome = runProgram(call);
  if (outcome.signal != SIGTERM) {
    EXPECT_EQ(outcome.err, "qvdb: interrupted\n") << outcome;
  }
}

// The other end of a pipe may have made it so, as event loops do.
TEST_F(ToolGet, WaitsForAPipeThatDoesNotBlock) {
  const Bytes payload(1 << 20, 'x');
  const Words ids = notes({payload});
  int ends[2] = {};
  ASSERT_EQ(::pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  const std::string file = path();
  const pid_t tool = ::fork();
  if (tool == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    ::execl(QVDB_TOOL, QVDB_TOOL, "get", file.c_str(), "notes", ids[0].c_str(), nullptr);
    ::_exit(127);
  }
  // Nothing is read until the pipe is full.
  pollfd full = {ends[1], POLLOUT, 0};
  while (::poll(&full, 1, 0) == 1) ::usleep(1000);
  ::usleep(100'000);
  ::close(ends[1]);
  size_t size = 0;
  std::vector<char> buffer(65536);
  for (ssize_t got = 1; got != 0;) {
    pollfd filled = {ends[0], POLLIN, 0};
    ::poll(&filled, 1, -1);
    got = ::read(ends[0], buffer.data(), buffer.size());
    if (got > 0) size += static_cast<size_t>(got);
  }
  ::close(ends[0]);
  int status = -1;
  ::waitpid(tool, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(size, payload.size());
}

TEST_F(ToolGet, TakesHexadecimalAndDecimalIdentifiers) {
  const Words ids = notes({bytesOf("text")});
  const std::string decimal = std::to_string(std::stoull(ids[0], nullptr, 16));
  EXPECT_EQ(done({"get", "test.qvd", "notes", decimal}), "text");
  fails({"get", "test.qvd", "notes", "0x1"}, 1, {"0x0000000000000001", "qvdb records"});
  fails({"get", "test.qvd", "notes", "nonsense"}, 1, {"nonsense", "identifier"});
}

TEST_F(ToolGet, ShowsOnlyPlainTextOnATerminal) {
  const Words ids = notes({bytesOf("gr\u00fc\u00dfe\n"), bytesOf("\x1b[2J"), bytesOf("\xff\xfe")});
  ProgramCall call = callOf({"get", "test.qvd", "notes", ids[0]});
  call.terminal = Terminal::output;
  EXPECT_EQ(runProgram(call).out, "gr\u00fc\u00dfe\r\n");
  for (const std::string& id : {ids[1], ids[2]}) {
    call.arguments = {"get", "test.qvd", "notes", id};
    const Outcome refused = runProgram(call);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "");
    expectOneLine(refused.err, {"--output", "--raw"});
  }
  call.arguments = {"get", "--raw", "test.qvd", "notes", ids[1]};
  EXPECT_EQ(runProgram(call).out, "\x1b[2J");
}

TEST_F(ToolGet, DoesNotTrustALengthInTheFile) {
  FileImage image;
  image.addTable("notes", 0x11);
  const auto at = image.addRecord(0, 0xA1, bytesOf("x"));
  image.record(at).dataLength = 0xFFFFFFFF;
  writeFile(path(), image.build());
  allowDamage();
  fails({"get", "test.qvd", "notes", "0xa1"}, 1, {"beyond the end"});
  fails({"get", "test.qvd", "notes", "0xa1", "-o", "out"}, 1, {"beyond the end"});
  EXPECT_FALSE(std::filesystem::exists(path("out")));
}

TEST_F(ToolGet, FindsTheRecordsOfATableWhoseIdentifierHasAWrongSum) {
  FileImage image;
  image.addTable("notes", 0x11);
  image.slot(0).tableID[9] ^= 1;
  const auto at = image.addRecord(0, 0xA1, bytesOf("payload"));
  image.record(at).tableID = image.slot(0).tableID;
  writeFile(path(), image.build());
  allowDamage();
  EXPECT_EQ(json({"records", "--json", "test.qvd", "notes"})["records"].size(), 1u);
  EXPECT_EQ(done({"get", "test.qvd", "notes", "0xa1"}), "payload");
}

// ---- put

TEST_F(ToolPut, StoresStandardInputAndPrintsTheIdentifier) {
  notes({});
  const std::string first = line({"put", "test.qvd", "notes"}, "hello");
  const std::string second = line({"put", "test.qvd", "notes", "-"}, std::string("a\0b", 3));
  const std::string third = line({"put", "test.qvd", "notes"});
  EXPECT_EQ(done({"get", "test.qvd", "notes", first}), "hello");
  EXPECT_EQ(done({"get", "test.qvd", "notes", second}), std::string("a\0b", 3));
  EXPECT_EQ(done({"get", "test.qvd", "notes", third}), "");
  EXPECT_EQ(json({"records", "--json", "test.qvd", "notes"})["records"][1]["id"], second);
}

TEST_F(ToolPut, StoresSeveralFilesARecordEach) {
  notes({});
  writeFile(path("a"), bytesOf("one"));
  writeFile(path("b"), pattern(200'000));
  const std::string out = done({"put", "test.qvd", "notes", "a", "b"});
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2);
  EXPECT_EQ(bytesOf(done({"get", "test.qvd", "notes", out.substr(19, 18)})), pattern(200'000));
  fails({"put", "test.qvd", "notes", "absent"}, 1, {"absent", "open"});
}

TEST_F(ToolPut, KeepsReserveAndGivenIdentifier) {
  notes({});
  EXPECT_EQ(line({"put", "--id", "0xabc", "--reserve", "100", "test.qvd", "notes"}, "x"),
            "0x0000000000000abc");
  const auto record = json({"records", "--json", "test.qvd", "notes"})["records"][0];
  EXPECT_EQ(record["capacity"], 100);
  expectOnlyRead([&] {
    fails({"put", "--id", "0xabc", "test.qvd", "notes"}, 1, {"already", "qvdb set"}, "y");
    fails({"put", "--id", "1", "test.qvd", "notes", "a", "b"}, 2, {"--id"});
    fails({"put", "--id", "x", "test.qvd", "notes"}, 2, {"--id"});
    fails({"put", "--reserve", "4294967296", "test.qvd", "notes"}, 2, {"--reserve"});
  });
}

TEST_F(ToolPut, StoresAllInputsOrNone) {
  notes({});
  writeFile(path("a"), bytesOf("one"));
  writeFile(path("b"), bytesOf("two"));
  expectOnlyRead([&] {
    fails({"put", "test.qvd", "notes", "a", "absent", "b"}, 1, {"absent", "open"});
    fails({"put", "test.qvd", "notes", "a", ".", "b"}, 1, {"folder", "qvdb import"});
  });
}

TEST_F(ToolPut, RefusesTheIdentifierThatMeansNone) {
  notes({});
  expectOnlyRead([&] {
    for (const char* id : {"0", "0x0", "0x0000000000000000"}) {
      fails({"put", "--id", id, "test.qvd", "notes"}, 2, {"--id", "0"}, "x");
    }
  });
}

TEST_F(ToolPut, RefusesAFileThatNoRecordCanHoldBeforeAnythingIsStored) {
  notes({});
  writeFile(path("a"), bytesOf("one"));
  writeFile(path("large"), {});
  std::filesystem::resize_file(path("large"), 4'294'967'296);
  expectOnlyRead([&] {
    fails({"put", "test.qvd", "notes", "a", "large"}, 1, {"large", "4,294,967,295", "split"});
  });
}

// Another program can write to the database while 'put' waits for its input.
TEST_F(ToolPut, ReadsItsInputBeforeItOpensTheDatabase) {
  notes({});
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  ProgramCall call = callOf({"put", "test.qvd", "notes", "pipe"});
  call.meanwhile = [&](pid_t) {
    const int held = ::open(path("pipe").c_str(), O_WRONLY);  // returns when 'put' has opened it
    done({"put", "test.qvd", "notes"}, "first");
    EXPECT_EQ(::write(held, "second", 6), 6);
    ::close(held);
  };
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 0) << outcome;
  const auto records = database().tables[0].records;
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].fields.data(), bytesOf("first"));
  EXPECT_EQ(records[1].fields.data(), bytesOf("second"));
}

TEST_F(ToolPut, IntoAnUnfinishedPackIsRefused) {
  FileImage image;
  image.header().version = 101;
  image.addTable("notes", 0x11);
  writeFile(path(), image.build());
  allowDamage();
  expectOnlyRead([&] {
    fails({"put", "test.qvd", "notes"}, 1, {"unfinished pack", "101", "qvdb salvage"}, "x");
    fails({"add-table", "test.qvd", "more"}, 1, {"unfinished pack"});
  });
}

TEST_F(ToolPut, StopsAtCtrlCWithNothingStored) {
  notes({});
  writeFile(path("a"), bytesOf("stored"));
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  ProgramCall call = callOf({"put", "test.qvd", "notes", "a", "pipe"});
  int held = -1;
  call.meanwhile = [&](pid_t process) {
    held = ::open(path("pipe").c_str(), O_WRONLY);  // returns when the tool has opened it, too
    ::kill(process, SIGINT);
  };
  const Outcome outcome = runProgram(call);
  ::close(held);
  EXPECT_EQ(outcome.status, 1) << outcome;
  expectOneLine(outcome.err, {"interrupted"});
  EXPECT_EQ(json({"records", "--json", "test.qvd", "notes"})["count"], 0);
}

// A record that is cut off would get the first bytes of what is appended, to whichever table.
TEST_F(ToolPut, AddsNothingAfterARecordThatIsCutOff) {
  notes({bytesOf("first"), bytesOf("last")});
  done({"add-table", "test.qvd", "other"});
  allowDamage(kDefaultFile);
  std::filesystem::resize_file(path(kDefaultFile),
                               std::filesystem::file_size(path(kDefaultFile)) - 1);
  const Bytes before = readFile(path(kDefaultFile));
  for (const char* table : {"notes", "other"}) {
    fails({"put", kDefaultFile, table}, 1, {"notes", "beyond the end of the file"}, "x");
    EXPECT_TRUE(sameBytes(readFile(path(kDefaultFile)), before));
  }
}

// ---- set

TEST_F(ToolPut, RefusesTheDatabaseItself) {
  notes({bytesOf("a")});
  std::filesystem::create_symlink(path(), path("link"));
  std::filesystem::create_hard_link(path(), path("hard"));
  expectUnchanged([&] {
    for (const char* input : {kDefaultFile, "link", "hard"}) {
      fails({"put", kDefaultFile, "notes", input}, 1, {input, "is the database itself"});
    }
  });
  std::filesystem::remove(path("hard"));
}

TEST_F(ToolPut, StoresMoreFilesThanCanBeOpenAtOnce) {
  notes({});
  ProgramCall call =
      callOf({"-c", "ulimit -n 30 && exec \"$@\"", "sh", QVDB_TOOL, "put", kDefaultFile, "notes"});
  call.program = "/bin/sh";
  for (int i = 0; i < 60; ++i) {
    const std::string name = "in" + std::to_string(i);
    writeFile(path(name), bytesOf(name));
    call.arguments.push_back(name);
  }
  const Outcome outcome = runProgram(call);
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_EQ(database().tables[0].records.size(), 60u);
}

TEST_F(ToolPut, RefusesAFileThatIsNotTheOneItHasLookedAt) {
  notes({});
  writeFile(path("input"), bytesOf("old"));
  writeFile(path("other"), bytesOf("new"));
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  ProgramCall call = callOf({"put", kDefaultFile, "notes", "input", "pipe"});
  // A pipe without reader is not opened for writing; the files before it have been looked at then.
  call.meanwhile = [this](pid_t) {
    const int pipe = ::open(path("pipe").c_str(), O_WRONLY | O_CLOEXEC);
    std::filesystem::rename(path("other"), path("input"));
    ::close(pipe);
  };
  expectUnchanged([&] {
    const Outcome outcome = runProgram(call);
    EXPECT_EQ(outcome.status, 1) << outcome;
    expectOneLine(outcome.err, {"input", "replaced", "nothing was stored"});
  });
}

TEST_F(ToolPut, ReadsStandardInputOnce) {
  notes({});
  expectUnchanged([&] {
    fails({"put", kDefaultFile, "notes", "-", "-"}, 2, {"standard input", "once"}, "text");
  });
}

TEST_F(ToolSet, ReplacesThePayload) {
  const Words ids = notes({bytesOf("old"), bytesOf("other")});
  EXPECT_EQ(done({"set", "test.qvd", "notes", ids[0]}, "a longer one"), "");
  EXPECT_EQ(done({"get", "test.qvd", "notes", ids[0]}), "a longer one");
  writeFile(path("in"), bytesOf("short"));
  done({"set", "test.qvd", "notes", ids[0], "in"});
  EXPECT_EQ(done({"get", "test.qvd", "notes", ids[0]}), "short");
  EXPECT_EQ(done({"get", "test.qvd", "notes", ids[1]}), "other");
}

TEST_F(ToolSet, ReplacesThePayloadByAnEmptyOne) {
  const Words ids = notes({bytesOf("old"), bytesOf("other")});
  EXPECT_EQ(done({"set", "test.qvd", "notes", ids[0]}, ""), "");
  EXPECT_EQ(done({"get", "test.qvd", "notes", ids[0]}), "");
  EXPECT_EQ(done({"get", "test.qvd", "notes", ids[1]}), "other");
  EXPECT_EQ(json({"records", "--json", "test.qvd", "notes"})["records"][0]["id"], ids[0]);
}

TEST_F(ToolSet, ChangesNothingWhenItCannot) {
  const Words ids = notes({bytesOf("old")});
  expectOnlyRead([&] {
    fails({"set", "test.qvd", "notes", "0x1"}, 1, {"0x0000000000000001"}, "x");
    fails({"set", "test.qvd", "notes", ids[0], "absent"}, 1, {"absent"});
  });
}

// ---- rm and touch

TEST_F(ToolRm, DeletesAllOfThemOrNone) {
  const Words ids = notes({bytesOf("1"), bytesOf("2"), bytesOf("3"), bytesOf("4")});
  expectOnlyRead([&] { fails({"rm", "test.qvd", "notes", ids[0], "0x1"}, 1, {"no record"}); });
  EXPECT_EQ(done({"rm", "test.qvd", "notes", ids[2], ids[0], ids[0]}), "");
  const auto list = json({"records", "--json", "test.qvd", "notes"})["records"];
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0]["id"], ids[1]);
  EXPECT_EQ(list[1]["id"], ids[3]);
}

TEST_F(ToolTouch, SetsTheTimeOfModificationOnly) {
  FileImage image;
  image.addTable("notes", 0x11);
  image.addRecord(0, 0xA1, bytesOf("1"), {.createTime = 5, .modifyTime = 50});
  image.addRecord(0, 0xA2, bytesOf("2"), {.createTime = 5, .modifyTime = 50});
  writeFile(path(), image.build());
  expectOnlyRead([&] { fails({"touch", "test.qvd", "notes", "0xa1", "7"}, 1, {"no record"}); });
  done({"touch", "test.qvd", "notes", "0xa1"});
  const auto list = json({"records", "--json", "test.qvd", "notes"})["records"];
  EXPECT_EQ(list[0]["created"], "1970-01-01T00:00:05Z");
  EXPECT_GT(list[0]["modified"], "2020-01-01T00:00:00Z");
  EXPECT_EQ(list[1]["modified"], "1970-01-01T00:00:50Z");
}

TEST_F(ToolTouch, OfADatabaseInUseFailsAtOnce) {
  const Words ids = notes({bytesOf("1")});
  const Bytes before = contents();  // to read it later would end a lock of this process
  const int16_t db = open();
  fails({"touch", "test.qvd", "notes", ids[0]}, 3, {"another process (", "--wait"});
  close(db);
  EXPECT_TRUE(sameBytes(contents(), before));
}

// ---- data

TEST_F(ToolData, IsSetAndPrinted) {
  notes({});
  fails({"data", "test.qvd", "notes"}, 1, {"no data", "--set"});
  EXPECT_EQ(done({"data", "test.qvd", "notes", "--set", "-", "--reserve", "50"}, "some data"), "");
  expectOnlyRead([&] { EXPECT_EQ(done({"data", "test.qvd", "notes"}), "some data"); });
  writeFile(path("in"), pattern(1000));
  done({"data", "test.qvd", "notes", "--set", "in"});
  done({"data", "test.qvd", "notes", "-o", "out"});
  EXPECT_EQ(readFile(path("out")), pattern(1000));
  fails({"data", "test.qvd", "notes", "-o", "out"}, 1, {"exists"});
  fails({"data", "test.qvd", "notes", "--reserve", "5"}, 2, {"--set"});
}

}  // namespace
}  // namespace qvdbase::test

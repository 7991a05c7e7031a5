// Failing calls to the host under the commands of the tool that store files, write them back and
// rewrite databases: each call of each kind fails once, fails from then on, or moves only a part of
// its bytes. The commands run in this process. Whatever happens,
//
//   - a command that reports success has had its whole effect;
//   - one that does not ends with a message, not with an exception of another kind;
//   - what it only reads is as it was, and every record that was there before can still be read;
//   - a file under the name that was asked for is whole;
//   - no file of the library stays open.
//
// And the same commands in a process that is killed at each of their calls: no record is missing,
// and no file that is not whole has the name that was asked for.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "kit/holes.h"
#include "kit/old_file.h"
#include "kit/recorded_calls.h"
#include "kit/temp_folder.h"
#include "proof/failures.h"
#include "recovery/salvage/salvage_kit.h"
#include "tool/in_process.h"
#include "tools/qvdb/compression/payload_encoder.h"
#include "tools/qvdb/content/json_lines.h"
#include "tools/qvdb/content/patch_writer.h"
#include "tools/qvdb/streams/given_time.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using Files = std::map<std::string, Bytes>;

struct ToolCall {
  const char* name;
  std::vector<std::string> words;  // "@" is the folder of the test
  bool changesDatabase = false;    // full.qvd; else it is as it was
  const char* product = nullptr;   // what it makes: a file, or a folder of files
  std::set<Call> passesOver = {};  // failures that it goes on without, as is stated of it
  // A command before all this: "rm" takes one record of full.qvd away, any other none.
  std::vector<std::string> first = {};
  // full.qvd ends in a record whose adding was cut off before so many of its last writes.
  size_t missingWrites = 0;
  int success = 0;     // the status of success
  bool isOne = false;  // full.qvd is what it was, or what the whole command makes of it
};

std::vector<ToolCall> toolCalls() {
  return {
      {"Import", {"import", "@/full.qvd", "more", "@/in/"}, true},
      {"ImportReplacing", {"import", "--replace", "@/full.qvd", "photos", "@/changed/"}, true},
      {"ImportUpdating",
       {"import", "--update", "--delete", "@/full.qvd", "photos", "@/changed/"},
       true},
      {"ImportCompressing", {"import", "--compress", "@/full.qvd", "more", "@/in/"}, true},
      {"ImportWithOwners", {"import", "--owners", "@/full.qvd", "more", "@/in/"}, true},
      {"ImportOfOwners", {"import", "--update", "--owners", "@/full.qvd", "photos", "@/in/"}, true},
      {"Export", {"export", "@/full.qvd", "photos", "@/out"}, false, "out"},
      {"ExportAsItWas",
       {"export", "--at", "2100-01-01", "@/full.qvd", "photos", "@/out"},
       false,
       "out"},
      {.name = "ExportOfCompressed",
       .words = {"export", "@/full.qvd", "packed", "@/out"},
       .product = "out",
       .first = {"import", "--compress", "@/full.qvd", "packed", "@/in/"}},
      {"Put", {"put", "@/full.qvd", "photos", "@/in/b"}, true},
      {"GetToFile", {"get", "@/full.qvd", "photos", "b", "-o", "@/got"}, false, "got"},
      {"Remove", {"rm", "@/full.qvd", "photos", "a.txt"}, true},
      {"Compact", {"compact", "@/full.qvd"}, true},
      {"CompactToAnother", {"compact", "@/full.qvd", "@/new.qvd"}, false, "new.qvd"},
      {.name = "DumpToFile",
       .words = {"dump", "-o", "@/new.jsonl", "@/full.qvd"},
       .product = "new.jsonl"},
      {"Load", {"load", "@/new.qvd", "@/dump.jsonl"}, false, "new.qvd"},
      {.name = "Diff", .words = {"diff", "@/full.qvd", "@/changed.qvd"}, .success = 1},
      {.name = "DiffAsPatch",
       .words = {"diff", "--patch", "@/full.qvd", "@/changed.qvd"},
       .success = 1},
      {.name = "DiffAsJson",
       .words = {"diff", "--json", "@/full.qvd", "@/changed.qvd"},
       .success = 1},
      {.name = "Digest", .words = {"digest", "--records", "@/full.qvd"}},
      {.name = "ExportForCopy",
       .words = {"export", "--copy", "@/new.txt", "@/full.qvd"},
       .product = "new.txt"},
      {.name = "ExportToParquet",
       .words = {"export", "--parquet", "@/new.parquet", "@/full.qvd"},
       .product = "new.parquet"},
#ifdef QVDB_HAS_SQLITE
      {.name = "ExportToSqlite",
       .words = {"export", "--sqlite", "@/new.sqlite", "@/full.qvd"},
       .product = "new.sqlite"},
      {.name = "Sql", .words = {"sql", "@/full.qvd", "select id, length(payload) from photos"}},
#endif
      {.name = "Patch",
       .words = {"patch", "@/full.qvd", "@/changes.jsonl"},
       .changesDatabase = true,
       .isOne = true},
      {.name = "Undelete",
       .words = {"undelete", "@/full.qvd", "@/new.qvd", "photos", "a.txt"},
       .product = "new.qvd",
       .passesOver = {Call::read},  // what cannot be read is left out, with a note
       .first = {"rm", "@/full.qvd", "photos", "a.txt"}},
      {.name = "Trim",
       .words = {"trim", "@/full.qvd"},
       .changesDatabase = true,
       .first = {"rm", "@/full.qvd", "photos", "b"}},
      {.name = "Protect", .words = {"protect", "@/full.qvd"}, .changesDatabase = true},
      {.name = "Backup", .words = {"backup", "@/full.qvd", "@/new.qvd"}, .product = "new.qvd"},
      {.name = "BackupInPieces",
       .words = {"backup", "--pieces", "@/full.qvd", "@/pool"},
       .product = "pool"},
      {.name = "Restore",
       .words = {"restore", "@/kept", "@/new.qvd"},
       .product = "new.qvd",
       .first = {"backup", "--pieces", "@/full.qvd", "@/kept"}},
      {.name = "Mend",
       .words = {"mend", "@/full.qvd"},
       .changesDatabase = true,
       .missingWrites = 1},
      {.name = "MendLinking",
       .words = {"mend", "--link", "@/full.qvd"},
       .changesDatabase = true,
       .missingWrites = 2},
      {.name = "MendDiscarding",
       .words = {"mend", "--discard", "@/full.qvd"},
       .changesDatabase = true,
       .missingWrites = 2},
  };
}

bool canCompress() {
  try {
    qvdb::tool::PayloadEncoder::requireCompression();
    return true;
  } catch (const qvdb::tool::Failure&) {
    return false;
  }
}

class FailingToolCalls : public testing::TestWithParam<ToolCall> {
 protected:
  struct Attempt {
    bool succeeded = false;
    bool failed = false;  // something was made to fail
    std::string message;
    Files files;
  };

  void SetUp() override {
    if (!kCanMakeHoles && GetParam().words.front() == "trim") {
      GTEST_SKIP() << "the library makes no holes";
    }
    if (std::string(GetParam().name).find("Compress") != std::string::npos && !canCompress()) {
      GTEST_SKIP() << "the tool has no zstd";
    }
    fs::create_directories(folder / "in/sub");
    fs::create_directories(folder / "changed");
    writeFile(folder / "in/a.txt", bytesOf("text\n"));
    writeFile(folder / "in/b", pattern(70'000));
    writeFile(folder / "in/sub/c", bytesOf("c"));
    writeFile(folder / "changed/a.txt", pattern(900, 4));
    std::string message;
    ASSERT_EQ(runCommand(folder.path(), {"create", "@/full.qvd"}, &message), 0) << message;
    ASSERT_EQ(runCommand(folder.path(), {"import", "@/full.qvd", "photos", "@/in/"}, &message), 0)
        << message;
    ASSERT_EQ(runCommand(folder.path(), {"dump", "-o", "@/dump.jsonl", "@/full.qvd"}, &message), 0)
        << message;
    const auto& first = GetParam().first;
    if (!first.empty()) {
      ASSERT_EQ(runCommand(folder.path(), first, &message), 0) << message;
    }
    makeAChangedOne();
    full_ = readFile(folder / "full.qvd");
    records_ = takenRecords(full_);
    const std::string before = first.empty() ? "" : first.front();
    ASSERT_EQ(records_.size(), before == "rm" ? 2u : before == "import" ? 6u : 3u);
    if (GetParam().missingWrites > 0) cutAnAppendOff();
  }

  // changed.qvd has a record more, and changes.jsonl is the patch that adds it.
  void makeAChangedOne() {
    const std::string name = folder / "changed.qvd";
    fs::copy_file(folder / "full.qvd", name);
    {
      auto database = qvdb::Database::open(name, qvdb::Mode::exclusive);
      database.table("photos").add(asBytes(pattern(600, 7)));
    }
    const auto a = qvdb::Database::open(folder / "full.qvd", qvdb::Mode::read_only);
    const auto b = qvdb::Database::open(name, qvdb::Mode::read_only);
    std::string text;
    qvdb::tool::JsonLines lines([&text](std::string_view more) { text += more; });
    ASSERT_TRUE(qvdb::tool::writePatch(a, b, lines));
    lines.flush();
    writeFile(folder / "changes.jsonl", bytesOf(text));
  }

  void cutAnAppendOff() {
    std::vector<Write> writes;
    {
      RecordedCalls host;
      auto database = qvdb::Database::open(folder / "full.qvd", qvdb::Mode::exclusive);
      database.table("photos").add(asBytes(pattern(500, 9)));
      writes = ranges(host.writes());
    }
    ASSERT_GT(writes.size(), GetParam().missingWrites);
    writes.resize(writes.size() - GetParam().missingWrites);
    full_ = applied(full_, writes);
  }

  void TearDown() override { qvdb::tool::setClock(nullptr); }

  void reset() {
    for (const auto& each : fs::directory_iterator(folder.path())) {
      const fs::path name = each.path().filename();
      const bool isInput = name == "in" || name == "changed" || name == "dump.jsonl" ||
                           name == "changed.qvd" || name == "changes.jsonl" || name == "kept";
      if (!isInput) fs::remove_all(each.path());
    }
    writeFile(folder / "full.qvd", full_);
    makeOld(folder / "full.qvd");
  }

  // Identifiers and times are the same in each attempt.
  static void stopClocks(RecordedCalls& host) {
    host.setTime(5000);
    host.setMicroseconds(6000);
    qvdb::tool::setClock([] { return int64_t{5000}; });
    std::srand(1);
  }

  Attempt attempt(const Failure* failure, int skip) {
    reset();
    RecordedCalls host;
    stopClocks(host);
    if (failure != nullptr) failure->plan(host, skip);
    Attempt result;
    const int status = runCommand(folder.path(), GetParam().words, &result.message);
    result.succeeded = status == GetParam().success;
    result.failed = failure != nullptr && host.failed();
    host.heal();
    EXPECT_EQ(host.openDescriptors(), 0u);
    host.releaseBlocks();
    result.files = filesNow();
    return result;
  }

  // Runs the command in a process that ends at the call after `skip` others. Returns whether it
  // did.
  bool killAfter(int skip) {
    reset();
    const pid_t child = ::fork();
    if (child == 0) {
      RecordedCalls host;
      stopClocks(host);
      int left = skip;
      host.observe([&](Call) {
        if (left-- == 0) ::kill(::getpid(), SIGKILL);
      });
      std::string message;
      ::_exit(runCommand(folder.path(), GetParam().words, &message));
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == GetParam().success);
    return WIFSIGNALED(status);
  }

  static bool isManifest(const fs::directory_entry& entry) {
    return entry.path().extension() == ".manifest";
  }

  // Without the lists of backups, which have the time of the machine: what one lists can be
  // restored.
  Files filesNow() const {
    const fs::path pool = folder / "pool";
    if (fs::exists(pool) && std::any_of(fs::directory_iterator(pool), {}, isManifest)) {
      std::string message;
      EXPECT_EQ(runCommand(folder.path(), {"restore", "@/pool", "@/restored.qvd"}, &message), 0)
          << message;
    }
    Files result;
    for (const auto& each : fs::recursive_directory_iterator(folder.path())) {
      if (!each.is_regular_file() || isManifest(each)) continue;
      result[fs::relative(each.path(), folder.path()).native()] = readFile(each.path());
    }
    return result;
  }

  // The file that was asked for, or those in the folder that was, are whole.
  void expectWholeProducts(const Attempt& outcome, const Attempt& whole) {
    if (GetParam().product == nullptr) return;
    const std::string product = GetParam().product;
    for (const auto& [name, bytes] : whole.files) {
      if (name != product && !name.starts_with(product + "/")) continue;
      const auto is = outcome.files.find(name);
      if (is == outcome.files.end()) {
        EXPECT_FALSE(outcome.succeeded) << name << " is not there";
      } else {
        EXPECT_TRUE(sameBytes(is->second, bytes)) << name << ": " << outcome.message;
      }
    }
  }

  void expectRecordsKept(const Attempt& outcome) {
    const auto is = outcome.files.find("full.qvd");
    ASSERT_NE(is, outcome.files.end()) << outcome.message;
    if (!GetParam().changesDatabase) {
      EXPECT_TRUE(sameBytes(is->second, full_)) << outcome.message;
      return;
    }
    const auto found = takenRecords(is->second, {.deleted = true});
    for (const auto& [key, bytes] : records_) {
      const auto place = found.find(key);
      ASSERT_NE(place, found.end()) << "record " << key.second << ": " << outcome.message;
      const bool isReplaced = std::string(GetParam().name).starts_with("Import");
      EXPECT_TRUE(isReplaced || place->second == bytes) << "record " << key.second;
    }
  }

  // Everything was done, or nothing.
  void expectAllOrNothing(const Attempt& outcome, const Attempt& whole) {
    if (!GetParam().isOne) return;
    const Bytes& is = outcome.files.at("full.qvd");
    if (is == full_) return;
    EXPECT_TRUE(sameBytes(is, whole.files.at("full.qvd"))) << outcome.message;
  }

  TempFolder folder{TempFolder::inMemory()};
  Bytes full_;
  std::map<std::pair<uint64_t, uint64_t>, Bytes> records_;  // added before all this
};

TEST_P(FailingToolCalls, EndInAMessageOrInFullSuccess) {
  const Attempt whole = attempt(nullptr, 0);
  ASSERT_TRUE(whole.succeeded) << whole.message;
  const uint64_t attempts = tryAllFailures(
      2, [&](const Failure* failure, int skip) { return attempt(failure, skip); },
      [&](const Failure& failure, const Attempt& outcome) {
        EXPECT_TRUE(outcome.succeeded || !outcome.message.empty());
        expectRecordsKept(outcome);
        if (!isClock(failure.kind)) expectAllOrNothing(outcome, whole);
        if (isClock(failure.kind) || GetParam().passesOver.contains(failure.kind)) return;
        expectWholeProducts(outcome, whole);
        if (!outcome.succeeded) return;
        for (const auto& [name, bytes] : whole.files) {
          const auto is = outcome.files.find(name);
          ASSERT_NE(is, outcome.files.end()) << name;
          EXPECT_TRUE(sameBytes(is->second, bytes)) << name;
        }
      });
  reportCount("failing calls, failures under the tool", attempts);
}

TEST_P(FailingToolCalls, LoseNothingWhenTheirProcessIsKilled) {
  const Attempt whole = attempt(nullptr, 0);
  ASSERT_TRUE(whole.succeeded) << whole.message;
  uint64_t kills = 0;
  for (int skip = 0; killAfter(skip); skip += testEverything() ? 1 : 1 + skip / 10) {
    SCOPED_TRACE("killed after " + std::to_string(skip) + " calls");
    ++kills;
    const Attempt outcome{.message = "killed", .files = filesNow()};
    expectRecordsKept(outcome);
    expectAllOrNothing(outcome, whole);
    expectWholeProducts(outcome, whole);
    if (HasFailure()) return;
  }
  reportCount("killed commands of the tool", kills);
}

std::string nameOfToolCall(const testing::TestParamInfo<ToolCall>& info) {
  return info.param.name;
}

void PrintTo(const ToolCall& call, std::ostream* out) {
  *out << call.name;
}

INSTANTIATE_TEST_SUITE_P(Of, FailingToolCalls, testing::ValuesIn(toolCalls()), nameOfToolCall);

}  // namespace
}  // namespace qvdbase::test

// Failing calls to the host under the C++ layer: over a script of its operations, each call of each
// kind fails once, fails from then on, or moves only a part of its bytes. Whatever happens,
//
//   - an operation that returns has had its whole effect;
//   - one that does not throws qvdb::Error, and nothing else;
//   - what it only reads is as it was, and a file that it was to make is whole or not there;
//   - every record that it was not about can still be read, by salvage at the latest;
//   - no file stays open and no memory stays allocated, except the chunk of fill bytes.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>
#include <qvdbase/qvdb/check.hpp>
#include <qvdbase/qvdb/history.hpp>
#include <qvdbase/qvdb/salvage.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <set>

#include "proof/failures.h"
#include "proof/scripted_calls.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::Table;
using Path = std::filesystem::path;
using Files = std::vector<std::pair<std::string, Bytes>>;

constexpr Id kFirst{0xA1};
constexpr Id kMiddle{0xA2};
constexpr Id kLast{0xA4};

struct LayerCall {
  const char* name;
  std::function<void(const Path& folder)> run;
  bool writesSource = false;       // source.qvd; else it is as it was
  std::set<Id> about = {};         // the records of source.qvd that may be changed or gone
  std::set<Call> passesOver = {};  // failures that it survives, as is documented

  LayerCall passingOver(std::set<Call> calls) && {
    passesOver = std::move(calls);
    return std::move(*this);
  }
};

std::vector<std::byte> payload(size_t size) {
  return std::vector<std::byte>(size, std::byte{'p'});
}

// An operation on the table "notes" of source.qvd.
LayerCall onNotes(const char* name, std::function<void(Table&)> change, std::set<Id> about = {}) {
  const auto run = [change = std::move(change)](const Path& folder) {
    Database database = Database::open(folder / "source.qvd", Mode::exclusive);
    Table notes = database.table("notes");
    change(notes);
  };
  return {name, run, true, about};
}

LayerCall making(const char* name, std::function<void(const Path& source, const Path& made)> run) {
  return {name, [run = std::move(run)](const Path& folder) {
            run(folder / "source.qvd", folder / "new.qvd");
          }};
}

void readEverything(const Path& folder) {
  const Database database = Database::open(folder / "source.qvd", Mode::read_only);
  for (const Table& table : database.tables()) {
    for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
      if (table.get(record.id()) != record.payload()) throw std::logic_error("other bytes");
    }
    static_cast<void>(table.data());
  }
}

void require(bool isRight, const char* what) {
  if (!isRight) throw std::logic_error(what);
}

void readBackward(const Path& folder) {
  const Database database = Database::open(folder / "source.qvd", Mode::read_only);
  for (const Table& table : database.tables()) {
    std::vector<Id> ids;
    for (const qvdb::Record& record : table.records()) ids.push_back(record.id());
    const auto first = table.first();
    const auto last = table.last();
    require(first.has_value() != ids.empty() && last.has_value() != ids.empty(), "no ends");
    if (ids.empty()) continue;
    require(first->id() == ids.front() && last->id() == ids.back(), "other ends");
    for (const qvdb::Record& record :
         table.records({.order = qvdb::Order::newest_first, .load = qvdb::first_bytes(8)})) {
      require(!ids.empty() && record.id() == ids.back(), "another order");
      ids.pop_back();
    }
    require(ids.empty(), "not all records");
    size_t after = 0;
    for (const qvdb::Record& record : table.records_after(*first)) after += record.id() != Id{};
    require(after + 1 == table.count(), "not all records after the first");
  }
}

void openAgain(const Path& folder) {
  Database database = Database::open(folder / "source.qvd", Mode::exclusive);
  Table notes = database.table("notes");
  const auto last = notes.last();
  require(database.is_current(), "the name has not changed");
  database.reopen();
  require(notes.find(last->id()).has_value(), "the record is there");
}

void backUp(const Path& source, const Path& made, Mode mode) {
  Database::open(source, mode).backup(made);
}

void undeleteMiddle(const Path& folder) {
  const Path source = folder / "source.qvd";
  const auto versions = qvdb::history(source, "notes", kMiddle);
  if (versions.empty()) return;
  qvdb::undelete(source, folder / "new.qvd", "notes", kMiddle, versions[0].offset);
}

void changeByIndex(Table& notes) {
  const qvdb::RecordIndex index = notes.index();
  notes.modify(kMiddle, payload(500));
}

// The file has numbers that are drawn: so it is looked into, and then removed. Where keep_indexes()
// fails once, the database writes it when it is closed.
void keepIndexes(const Path& folder) {
  struct Removed {
    const Path file;
    ~Removed() {
      std::error_code ignored;
      std::filesystem::remove(file, ignored);
    }
  };
  const Removed kept{folder / "source.qvdx"};
  const auto keyOf = [](std::string_view text) { return std::to_string(text.size()); };
  const auto ask = [&](Mode mode, bool isKept) {
    Database database = Database::open(folder / "source.qvd", mode);
    const Table notes = database.table("notes");
    const qvdb::RecordIndex index = notes.index({.kept = true});
    const qvdb::KeyIndex<std::string> sizes(notes, keyOf, {.ordered = true, .kept_as = "size"});
    const std::string size = std::to_string(notes.find(kMiddle)->info().size);
    require(sizes.find(size).has_value(), "its key is there");
    require(!notes.contains(Id{0x99}) && !sizes.contains("none"), "what is not there");
    const auto count = static_cast<uint64_t>(std::ranges::distance(sizes.records()));
    require(count == notes.count(), "all keys");
    if (isKept) database.keep_indexes();
  };
  ask(Mode::exclusive, true);
  require(std::filesystem::exists(kept.file), "it is kept");
  ask(Mode::read_only, false);
}

void addAsGiven(Table& notes) {
  const std::vector<std::byte> bytes = payload(30);
  for (const uint64_t id : {0x7001u, 0x7002u}) {
    qvdb::NewRecord given(bytes, 40, Id{id});
    given.create_time = 5;
    notes.add(given);
  }
}

void createAndPlace(const Path&, const Path& made) {
  Database database = Database::create(made, {.id = Id{0x1234}, .place = false});
  database.add_table("notes").add(payload(10));
  database.place();
}

std::vector<LayerCall> readingCalls() {
  return {
      {"Read", readEverything},
      {"ReadBackward", readBackward},
      {"OpenAgain", openAgain},
      {"Check", [](const Path& folder) { qvdb::check(folder / "source.qvd", {}, {.retries = 0}); }},
      {"OpenChecked", [](const Path& folder) { qvdb::open_checked(folder / "source.qvd"); }},
      {"VisitExtents",
       [](const Path& folder) {
         qvdb::visit_extents(folder / "source.qvd", [](const qvdb::Extent&) {});
       }},
      {"PredictRepair", [](const Path& folder) { qvdb::predict_repair(folder / "source.qvd"); }},
      {"History",
       [](const Path& folder) { qvdb::history(folder / "source.qvd", "notes", kMiddle); }},
      making("Create", [](const Path&, const Path& made) { Database::create(made); }),
      making("CreateAndPlace", createAndPlace),
      making("CompactToAnother",
             [](const Path& source, const Path& made) { qvdb::compact(source, made); }),
      making("BackUp",
             [](const Path& source, const Path& made) { backUp(source, made, Mode::exclusive); }),
      making("BackUpWhatOthersWrite",
             [](const Path& source, const Path& made) { backUp(source, made, Mode::read_only); }),
      making("Pack", [](const Path& source, const Path& made) { qvdb::pack(source, made); }),
      {"Renumber",
       [](const Path& folder) { qvdb::renumber(folder / "source.qvd", folder / "new.qvd"); },
       false,
       {},
       {Call::read, Call::allocate}},
      // What cannot be read is what these two are for.
      {"Salvage",
       [](const Path& folder) { qvdb::salvage(folder / "source.qvd", folder / "new.qvd"); },
       false,
       {},
       {Call::read}},
      {"Undelete", undeleteMiddle, false, {}, {Call::read}},
  };
}

std::vector<LayerCall> changingCalls() {
  return {
      onNotes("Add", [](Table& notes) { notes.add(payload(70), 90); }),
      onNotes("AppendAll",
              [](Table& notes) {
                notes.append_all(std::vector{payload(10), payload(270'000), payload(10)});
              }),
      onNotes("ModifyInPlace", [](Table& notes) { notes.modify(kMiddle, payload(40)); }, {kMiddle}),
      onNotes("ModifyAndMove", [](Table& notes) { notes.modify(kLast, payload(400)); }, {kLast}),
      onNotes("ModifyAndMoveBetweenTwo", [](Table& notes) { notes.modify(kMiddle, payload(400)); },
              {kMiddle}),
      onNotes("ModifyByIndex", changeByIndex, {kMiddle}),
      onNotes("Touch", [](Table& notes) { notes.touch(kFirst); }),
      onNotes("Remove", [](Table& notes) { notes.remove(kFirst); }, {kFirst}),
      onNotes("RemoveBetweenTwo", [](Table& notes) { notes.remove(kMiddle); }, {kMiddle}),
      onNotes("SetDataInPlace", [](Table& notes) { notes.set_data(payload(10)); }),
      onNotes("SetLargerData", [](Table& notes) { notes.set_data(payload(300), 310); }),
      {"AddTable",
       [](const Path& folder) {
         Database::open(folder / "source.qvd", Mode::exclusive).add_table("more");
       },
       true},
      onNotes("AddAsGiven", addAsGiven),
      onNotes("SetLastWritten", [](Table& notes) { notes.set_last_written(*notes.first()); }),
      {"AddTableAsGiven",
       [](const Path& folder) {
         qvdb::NewTable given("more");
         given.id = Id{0x7777};
         given.flags_1 = 3;
         Database::open(folder / "source.qvd", Mode::exclusive).add_table(given);
       },
       true},
      {"SetVersionAndSync",
       [](const Path& folder) {
         Database database = Database::open(folder / "source.qvd", Mode::exclusive);
         database.set_version(150);
         database.sync();
       },
       true},
      {"KeepIndexes", keepIndexes},
      {"CompactInPlace", [](const Path& folder) { qvdb::compact(folder / "source.qvd"); }},
      {"CompactWhileOpen",
       [](const Path& folder) {
         Database::open(folder / "source.qvd", Mode::exclusive).compact();
       }},
      {"Repair",
       [](const Path& folder) { qvdb::repair(folder / "broken.qvd"); },
       false,
       {},
       {Call::read}},
  };
}

// More than a batch holds in memory: a record that is written to the file before it is finished.
void writeInPieces(qvdb::RecordWriter& writer) {
  const std::vector<std::byte> piece = payload(100'000);
  for (int i = 0; i < 4; ++i) writer.write(piece);
}

void writeAlone(Table& notes) {
  qvdb::RecordWriter writer = notes.writer(450'000);
  writeInPieces(writer);
  writer.finish();
}

void writeInBatch(Table& notes) {
  qvdb::BulkAppender bulk = notes.appender();
  bulk.add(payload(10));
  qvdb::RecordWriter dropped = bulk.writer();
  writeInPieces(dropped);
  dropped.discard();
  qvdb::RecordWriter writer = bulk.writer();
  writeInPieces(writer);
  writer.finish();
  bulk.add(payload(10));
  bulk.finish();
}

void discardBatch(Table& notes) {
  qvdb::BulkAppender bulk = notes.appender();
  for (int i = 0; i < 4; ++i) bulk.add(payload(100'000));
}

void appendRangeThatThrows(Table& notes) {
  struct Stop {};
  static const auto large = payload(200'000);
  struct Element {
    int number;
    operator qvdb::NewRecord() const {
      if (number == 3) throw Stop();
      return qvdb::NewRecord(large);
    }
  };
  const std::vector<Element> payloads = {{1}, {2}, {3}};
  try {
    notes.append_all(payloads);
  } catch (const Stop&) {
  }
}

void findOrAddTables(const Path& folder) {
  Database database = Database::open(folder / "source.qvd", Mode::exclusive);
  for (const char* name : {"notes", "more", "more"}) {
    if (database.find_or_add_table(name).name() != name) throw std::logic_error("another table");
  }
}

// What a discarded batch cannot take back it covers with zeros, or leaves without a report, because
// a destructor cannot throw.
const std::set<Call> kTakingBack = {Call::length, Call::truncate};

std::vector<LayerCall> batchCalls() {
  return {
      onNotes("WriteInPieces", writeAlone),
      onNotes("WriteInPiecesInABatch", writeInBatch).passingOver(kTakingBack),
      onNotes("DiscardABatch", discardBatch).passingOver(kTakingBack),
      onNotes("AppendARangeThatThrows", appendRangeThatThrows).passingOver(kTakingBack),
      onNotes("WriteAPart", [](Table& notes) { notes.write(kMiddle, 5, payload(10)); }, {kMiddle}),
      onNotes("EraseSome",
              [](Table& notes) {
                qvdb::erase_if(notes, [](const qvdb::Record& each) { return each.id() != kFirst; });
              },
              {kMiddle, Id{0xA3}, kLast}),
      onNotes("EraseAll",
              [](Table& notes) {
                qvdb::erase_if(
                    notes, [](const qvdb::Record& each) { return !each.loaded().empty(); },
                    qvdb::Load::payloads);
              },
              {kFirst, kMiddle, Id{0xA3}, kLast}),
      {"FindOrAddTable", findOrAddTables, true},
  };
}

std::vector<LayerCall> openingCalls() {
  using namespace std::chrono_literals;
  const auto opening = [](const char* name, qvdb::OpenOptions options) {
    return making(name, [options](const Path& source, const Path& made) {
      Database::open(options.create ? made : source, options);
    });
  };
  // Where the file cannot be compacted it stays as it was, without a report.
  static constexpr qvdb::CompactWhen anyDead{.dead_part = 1e-9, .dead_bytes = 1};
  const auto compacting = [](const char* name, bool isWhenClosed) {
    const auto run = [=](const Path& folder) {
      const auto open = [&](const qvdb::CompactWhen& when) {
        return Database::open(folder / "source.qvd",
                              {.mode = Mode::exclusive, .compact_when = when});
      };
      Database database = open(isWhenClosed ? anyDead : qvdb::CompactWhen{});
      Table notes = database.table("notes");
      notes.remove(kMiddle);
      database.close();
      if (!isWhenClosed) open(anyDead);
    };
    return LayerCall{name, run, true, {kMiddle}}.passingOver(
        {std::begin(kFailingCalls), std::end(kFailingCalls)});
  };
  return {
      compacting("CompactWhenOpened", false),
      compacting("CompactWhenClosed", true),
      opening("OpenOrCreate", {.mode = Mode::exclusive, .create = true}),
      opening("OpenOrCreateShared", {.mode = Mode::shared, .create = true}),
      opening("OpenAndCheck", {.mode = Mode::exclusive, .check = true}),
      opening("OpenAndWait", {.mode = Mode::exclusive, .wait = 1ms}),
      making("OpenWhatIsThere",
             [](const Path& source, const Path&) {
               Database::open(source, {.mode = Mode::exclusive, .create = true, .check = true});
             }),
  };
}

std::vector<LayerCall> layerCalls() {
  std::vector<LayerCall> all = readingCalls();
  for (auto more : {changingCalls, batchCalls, openingCalls}) {
    for (LayerCall& each : more()) all.push_back(std::move(each));
  }
  return all;
}

const Bytes* fileOf(const Files& files, const std::string& name) {
  for (const auto& [each, bytes] : files) {
    if (each == name) return &bytes;
  }
  return nullptr;
}

class FailingLayerCalls : public testing::TestWithParam<LayerCall> {
 protected:
  struct Outcome {
    bool succeeded = false;
    bool failed = false;  // something was made to fail
    std::string message;
    Files files;
  };

  Outcome attempt(const Failure* failure, int skip) {
    bench_.reset();
    before_ = bench_.files();
    RecordedCalls host;
    host.setTime(5000);
    host.setMicroseconds(6000);
    std::srand(1);  // identifiers are the same in each attempt
    if (failure != nullptr) failure->plan(host, skip);
    Outcome outcome;
    try {
      GetParam().run(bench_.folder.path());
      outcome.succeeded = true;
    } catch (const qvdb::Error& error) {
      outcome.message = error.what();
      EXPECT_NE(outcome.message, "");
    }
    outcome.failed = failure != nullptr && host.failed();
    host.heal();
    EXPECT_EQ(host.openDescriptors(), 0u);
    const bool mayLeak = failure != nullptr && failure->kind == Call::write && !outcome.succeeded;
    EXPECT_LE(host.heldBlocks(), mayLeak ? 1u : 0u);
    host.releaseBlocks();
    outcome.files = bench_.files();
    return outcome;
  }

  // Where a file gets its name by a second one, and the host removes none, both stay.
  static bool mayKeepBothNames(const Failure& failure) {
    return failure.kind == Call::remove && failure.isForGood;
  }

  void expectWholeEffect(const Outcome& outcome, const Outcome& whole, bool mayHaveMore = false) {
    for (const auto& [name, bytes] : whole.files) {
      const Bytes* const is = fileOf(outcome.files, name);
      ASSERT_NE(is, nullptr) << name;
      EXPECT_TRUE(sameBytes(*is, bytes)) << name;
    }
    EXPECT_LE(outcome.files.size(), whole.files.size() + (mayHaveMore ? 1 : 0));
    EXPECT_GE(outcome.files.size(), whole.files.size());
  }

  // To remove a file, its folder is opened: when the host opens nothing any more, a file under a
  // temporary name stays, and so does one that was whole when its folder could not be synced. A
  // database that cannot be opened after it was created stays as an empty file: it is not certain
  // then who made it. One that was created, and cannot be opened again in another mode, stays too.
  static bool mayStay(const Failure& failure, const std::string& name, const Bytes& bytes,
                      const Outcome& whole) {
    const std::string call = GetParam().name;
    if (bytes.empty() && call == "Create") return true;
    const Bytes* const wanted = fileOf(whole.files, name);
    const bool isWhole = wanted != nullptr && *wanted == bytes;
    if (isWhole && call == "OpenOrCreateShared") return true;
    if (failure.kind != Call::open || !failure.isForGood) return false;
    return name.ends_with(".tmp") || isWhole;
  }

  void expectNoHarm(const Failure& failure, const Outcome& outcome, const Outcome& whole) {
    const LayerCall& call = GetParam();
    const Bytes* const source = fileOf(outcome.files, "source.qvd");
    ASSERT_NE(source, nullptr);
    // The message says so when the new file is in its place anyway.
    const bool isPlaced = outcome.message.find("the new file is in its place") != std::string::npos;
    if (isPlaced) return expectWholeEffect(outcome, whole);
    if (!call.writesSource) {
      EXPECT_TRUE(sameBytes(*source, *fileOf(before_, "source.qvd"))) << outcome.message;
    } else {
      expectOtherRecords(*source);
    }
    for (const auto& [name, bytes] : outcome.files) {
      EXPECT_TRUE(fileOf(before_, name) != nullptr || mayStay(failure, name, bytes, whole))
          << name << " is left: " << outcome.message;
    }
  }

  void expectOtherRecords(const Bytes& source) {
    static const auto all = recordsOf(readDatabase(*fileOf(before_, "source.qvd")));
    const auto found = takenRecords(source);
    for (const auto& [key, bytes] : all) {
      if (GetParam().about.contains(Id{key.second})) continue;
      const auto is = found.find(key);
      ASSERT_NE(is, found.end()) << "record " << key.second;
      EXPECT_EQ(is->second, bytes) << "record " << key.second;
    }
  }

 private:
  Workbench bench_;
  Files before_;
};

TEST_P(FailingLayerCalls, ThrowOrHaveTheirWholeEffect) {
  const Outcome whole = attempt(nullptr, 0);
  ASSERT_TRUE(whole.succeeded);
  const uint64_t attempts = tryAllFailures(
      2, [&](const Failure* failure, int skip) { return attempt(failure, skip); },
      [&](const Failure& failure, const Outcome& outcome) {
        if (!outcome.succeeded) {
          expectNoHarm(failure, outcome, whole);
        } else if (GetParam().passesOver.contains(failure.kind)) {
          if (GetParam().writesSource) expectNoHarm(failure, outcome, whole);
        } else if (!isClock(failure.kind)) {
          expectWholeEffect(outcome, whole, mayKeepBothNames(failure));
        }
      });
  reportCount("failing calls, operations of the C++ layer", 1);
  reportCount("failing calls, failures under the C++ layer", attempts);
}

std::string nameOfLayerCall(const testing::TestParamInfo<LayerCall>& call) {
  return call.param.name;
}

INSTANTIATE_TEST_SUITE_P(Of, FailingLayerCalls, testing::ValuesIn(layerCalls()), nameOfLayerCall);

}  // namespace
}  // namespace qvdbase::test

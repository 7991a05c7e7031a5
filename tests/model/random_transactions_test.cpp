// Random sequences in which transactions begin, end and are taken back between other operations, on
// the library and on a model at once: what every object shows is what the model says, and what the
// file holds is what was committed. Objects are kept over the ends of transactions: records that
// were found long ago, indexes, a second opener that only reads.
//
// As in random_operations_test.cpp a sequence that fails is made shorter, and RC_PARAMS repeats it.
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <array>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "kit/file_checker.h"
#include "kit/table_contents.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::Table;

enum class Move {
  begin,
  commit,
  rollBack,
  add,
  addMany,
  modify,
  modifyHeld,
  touch,
  remove,
  removeHeld,
  setData,
  addTable,
  hold,
  index,
  reopen,
  changeDurability,
};

inline constexpr std::array kMoveNames = {"begin",   "commit",     "rollBack",   "add",
                                          "addMany", "modify",     "modifyHeld", "touch",
                                          "remove",  "removeHeld", "setData",    "addTable",
                                          "hold",    "index",      "reopen",     "durability"};

struct Step {
  Move move = Move::begin;
  unsigned table = 0;
  unsigned record = 0;
  uint32_t size = 0;
};

std::ostream& operator<<(std::ostream& out, const Step& step) {
  return out << kMoveNames[static_cast<size_t>(step.move)] << "(table " << step.table << ", record "
             << step.record << ", size " << step.size << ")\n";
}

rc::Gen<Move> anyMove() {
  return rc::gen::weightedElement<Move>({{6, Move::begin},
                                         {4, Move::commit},
                                         {2, Move::rollBack},
                                         {8, Move::add},
                                         {1, Move::addMany},
                                         {12, Move::modify},
                                         {4, Move::modifyHeld},
                                         {2, Move::touch},
                                         {4, Move::remove},
                                         {2, Move::removeHeld},
                                         {2, Move::setData},
                                         {1, Move::addTable},
                                         {4, Move::hold},
                                         {2, Move::index},
                                         {1, Move::reopen},
                                         {1, Move::changeDurability}});
}

rc::Gen<Step> anyStep() {
  return rc::gen::build<Step>(rc::gen::set(&Step::move, anyMove()),
                              rc::gen::set(&Step::table, rc::gen::inRange(0u, 60u)),
                              rc::gen::set(&Step::record, rc::gen::inRange(0u, 60u)),
                              rc::gen::set(&Step::size, rc::gen::inRange<uint32_t>(0, 120)));
}

std::string textOf(const std::vector<std::byte>& payload) {
  return {reinterpret_cast<const char*>(payload.data()), payload.size()};
}

TableContents tableContentsOf(const Database& database) {
  TableContents state;
  for (const Table& table : database.tables()) {
    TableContent& content = state[table.name()];
    if (const auto data = table.data()) content.data = textOf(*data);
    for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
      content.records.emplace_back(record.id().value, textOf(record.payload()));
    }
  }
  return state;
}

// A record that was found at some time, and where.
struct Held {
  std::string table;
  qvdb::Record record;
};

constexpr qvdb::Durability kInterval = qvdb::Durability::interval(std::chrono::hours(1));

class Course {
 public:
  Course() : database_(Database::create(path())) {
    addTable("first");
    keys_ = keysOf(database_);
    reader_ = Database::open(path(), Mode::read_only);
  }

  void step(const Step& step) {
    ++number_;
    switch (step.move) {
      case Move::begin:
        if (!transaction_.is_active()) begin();
        break;
      case Move::commit:
        if (transaction_.is_active()) transaction_.commit();
        break;
      case Move::rollBack:
        if (transaction_.is_active()) rollBack();
        break;
      case Move::reopen:
        if (transaction_.is_active()) state_ = before_;
        held_.clear();
        database_.reopen();
        break;
      case Move::changeDurability:
        if (!transaction_.is_active()) changeDurability();
        break;
      case Move::addTable:
        if (state_.size() < 5) addTable("table " + std::to_string(number_));
        break;
      default:
        onTable(step);
    }
    if (step.size % 3 == 0) compare();
  }

  void compare() {
    RC_ASSERT(tableContentsOf(database_) == state_);
    const TableContents& committed = transaction_.is_active() ? before_ : state_;
    // What is held back is put in place first, or only readers of the layer see it.
    const bool holdsBack = durability_ == kInterval;
    if (holdsBack && !transaction_.is_active() && number_ % 2 == 0) database_.sync();
    if (!holdsBack || (!transaction_.is_active() && number_ % 2 == 0)) {
      RC_ASSERT(tableContentsOf(readFile(path())) == committed);
    }
    RC_ASSERT(tableContentsOf(reader_) == committed);
    compareKeys();
    for (const auto& [name, content] : state_) {
      const Table table = database_.table(name);
      for (const auto& [id, payload] : content.records) {
        RC_ASSERT(textOf(table.get(Id{id}).value()) == payload);
      }
    }
    for (const auto& [name, content] : committed) {
      const Table table = reader_.table(name);
      for (const auto& [id, payload] : content.records) {
        RC_ASSERT(textOf(table.get(Id{id}).value()) == payload);
      }
    }
  }

  // In the order of the keys, and each found by its own.
  void compareKeys() {
    std::vector<std::string> expected;
    for (const auto& [id, payload] : state_["first"].records) expected.push_back(payload);
    std::sort(expected.begin(), expected.end());
    std::vector<std::string> found;
    auto records = keys_.records();
    for (const auto& [key, record] : records) {
      RC_ASSERT(textOf(record.payload()) == key);
      found.emplace_back(key);
    }
    RC_ASSERT(found == expected);
    for (const std::string& key : expected) RC_ASSERT(keys_.contains(key));
  }

  void end() {
    if (transaction_.is_active()) state_ = before_;
    transaction_.rollback();
    compare();
    indexes_.clear();
    keys_ = {};
    database_.close();
    const std::vector<Finding> findings = checkFile(readFile(path()));
    if (!findings.empty()) RC_FAIL(describe(findings));
    RC_ASSERT(tableContentsOf(readFile(path())) == state_);
  }

 private:
  std::filesystem::path path() const { return folder_ / "model.qvd"; }

  static qvdb::KeyIndex<std::string> keysOf(const Database& database) {
    return {database.table("first"),
            [](std::string_view text) { return text; },
            {.unique = false, .ordered = true}};
  }

  void addTable(const std::string& name) {
    database_.add_table(name);
    state_[name] = {};
  }

  void begin() {
    transaction_ = database_.begin();
    before_ = state_;
  }

  void rollBack() {
    transaction_.rollback();
    state_ = before_;
  }

  void changeDurability() {
    held_.clear();
    indexes_.clear();
    keys_ = {};
    database_.close();
    durability_ = durability_ == qvdb::Durability::process ? qvdb::Durability::power
                  : durability_ == kInterval               ? qvdb::Durability::process
                                                           : kInterval;
    hasCache_ = !hasCache_;
    database_ = Database::open(path(), {.mode = Mode::exclusive,
                                        .cache = hasCache_ ? size_t{1} << 20 : 0,
                                        .durability = durability_});
    keys_ = keysOf(database_);
  }

  void onTable(const Step& step) {
    auto entry = std::next(state_.begin(), static_cast<std::ptrdiff_t>(step.table % state_.size()));
    Table table = database_.table(entry->first);
    TableContent& content = entry->second;
    const std::string text(step.size, static_cast<char>('a' + number_ % 26));
    switch (step.move) {
      case Move::add:
        content.records.emplace_back(table.add(text, step.size / 2).value, text);
        return;
      case Move::addMany:
        return addMany(table, content, text);
      case Move::setData:
        table.set_data(text);
        content.data = text;
        return;
      case Move::index:
        indexes_.push_back(step.record % 2 == 0 ? table.index() : indexOfReader(entry->first));
        if (indexes_.size() > 3) indexes_.erase(indexes_.begin());
        return;
      case Move::modifyHeld:
      case Move::removeHeld:
        return onHeld(step, text);
      default:
        if (!content.records.empty()) onRecord(step, table, content, text);
    }
  }

  qvdb::RecordIndex indexOfReader(const std::string& name) {
    const auto table = reader_.find_table(name);
    return table ? table->index() : database_.table(name).index();
  }

  static void addMany(Table& table, TableContent& content, const std::string& text) {
    qvdb::BulkAppender appender = table.appender();
    for (int i = 0; i < 3; ++i) content.records.emplace_back(appender.add(text).value, text);
    appender.finish();
  }

  void onRecord(const Step& step, Table& table, TableContent& content, const std::string& text) {
    const auto at =
        content.records.begin() + static_cast<std::ptrdiff_t>(step.record % content.records.size());
    const Id id{at->first};
    switch (step.move) {
      case Move::modify:
        RC_ASSERT(table.modify(id, text));
        at->second = text;
        return;
      case Move::touch:
        RC_ASSERT(table.touch(id));
        return;
      case Move::remove:
        RC_ASSERT(table.remove(id));
        content.records.erase(at);
        return;
      default:
        held_.push_back({table.name(), table.find(id).value()});
        if (held_.size() > 8) held_.erase(held_.begin());
    }
  }

  // It is found where it is now, wherever it was, or is not there any more.
  void onHeld(const Step& step, const std::string& text) {
    if (held_.empty()) return;
    const Held& held = held_[step.record % held_.size()];
    if (!state_.contains(held.table)) return;
    auto& records = state_[held.table].records;
    const auto at = std::find_if(records.begin(), records.end(), [&](const auto& each) {
      return each.first == held.record.id().value;
    });
    Table table = database_.table(held.table);
    const bool isThere = at != records.end();
    if (step.move == Move::modifyHeld) {
      RC_ASSERT(table.modify(held.record, text) == isThere);
      if (isThere) at->second = text;
    } else {
      RC_ASSERT(table.remove(held.record) == isThere);
      if (isThere) records.erase(at);
    }
  }

  TempFolder folder_;
  Database database_;
  Database reader_;
  qvdb::KeyIndex<std::string> keys_;  // of the first table, by payloads
  qvdb::Transaction transaction_;
  bool hasCache_ = false;
  qvdb::Durability durability_ = qvdb::Durability::process;
  TableContents state_;
  TableContents before_;  // while a transaction is open
  std::vector<Held> held_;
  std::vector<qvdb::RecordIndex> indexes_;
  unsigned number_ = 0;
};

TEST(RandomTransactionSteps, ShowAndCommitWhatTheModelSays) {
  EXPECT_TRUE(rc::check("every object shows, and the file holds, what the model says", [] {
    const auto steps = *rc::gen::scale(2, rc::gen::container<std::vector<Step>>(anyStep()));
    Course course;
    for (const Step& each : steps) course.step(each);
    course.end();
  }));
}

}  // namespace
}  // namespace qvdbase::test

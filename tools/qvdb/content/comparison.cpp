// Comparing two databases.
#include "content/comparison.h"

#include <algorithm>
#include <unordered_map>

#include "commands/locate.h"
#include "content/steady_file.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

constexpr size_t kPiece = size_t{1} << 20;

bool hasSameHeader(const DatabaseInfo& a, const DatabaseInfo& b) {
  return a.signature == b.signature && a.version == b.version && a.id == b.id;
}

std::vector<TablePair> pairsOf(const std::vector<Table>& a, const std::vector<Table>& b) {
  std::vector<bool> isTaken(a.size());
  std::vector<TablePair> pairs(b.size());
  const auto pairBy = [&](auto isSame) {
    for (size_t i = 0; i < b.size(); ++i) {
      pairs[i].b = b[i];
      for (size_t j = 0; j < a.size() && !pairs[i].a; ++j) {
        if (isTaken[j] || !isSame(a[j], b[i])) continue;
        pairs[i].a = a[j];
        isTaken[j] = true;
      }
    }
  };
  pairBy([](const Table& x, const Table& y) { return x.id() == y.id(); });
  pairBy([](const Table& x, const Table& y) { return x.name() == y.name(); });
  for (size_t j = 0; j < a.size(); ++j) {
    if (!isTaken[j]) pairs.push_back({a[j], std::nullopt});
  }
  return pairs;
}

// Whether the tables that both have are in another order.
bool isReordered(const std::vector<Table>& a, const std::vector<TablePair>& pairs) {
  size_t last = 0;
  for (const TablePair& pair : pairs) {
    if (!pair.a || !pair.b) continue;
    const auto place = static_cast<size_t>(
        std::find_if(a.begin(), a.end(), [&](const Table& t) { return t.id() == pair.a->id(); }) -
        a.begin());
    if (place < last) return true;
    last = place;
  }
  return false;
}

bool hasSameData(const Database& a, const Table& ofA, const Database& b, const Table& ofB) {
  const auto size = requireDataSize(a, ofA);
  if (size != requireDataSize(b, ofB)) return false;
  if (!size) return true;
  std::vector<std::byte> one(kPiece);
  std::vector<std::byte> other(kPiece);
  for (uint64_t offset = 0; offset < *size; offset += kPiece) {
    throwIfInterrupted();
    one.resize(ofA.read_data(offset, one));
    other.resize(ofB.read_data(offset, other));
    if (one != other) return false;
    one.resize(kPiece);
    other.resize(kPiece);
  }
  return true;
}

bool hasSamePayload(const Record& a, const Record& b) {
  if (a.size() != b.size()) return false;
  if (a.size() > kPiece) {
    a.require_sound();
    b.require_sound();
  }
  std::vector<std::byte> one(std::min<size_t>(kPiece, a.size()));
  std::vector<std::byte> other(one.size());
  for (uint64_t offset = 0; offset < a.size();) {
    throwIfInterrupted();
    const size_t got = a.read(offset, one);
    if (got == 0 || b.read(offset, other) != got) return false;
    if (!std::equal(one.begin(), one.begin() + static_cast<ptrdiff_t>(got), other.begin())) {
      return false;
    }
    offset += got;
  }
  return true;
}

ChangedMeanwhile changedMeanwhile(const Database& database) {
  return ChangedMeanwhile(database.path().native());
}

// The identifiers of a table's records with their places.
class Places {
 public:
  Places(const Database& database, const Table& table) {
    for (const Record& record : table.records()) {
      throwIfInterrupted();
      const auto place = static_cast<uint32_t>(ids_.size());
      ids_.push_back(record.id());
      if (places_.emplace(record.id(), place).second) continue;
      throw Failure(database.path().native() + ": cannot be compared: table '" + table.name() +
                    "' has several records " + to_string(record.id()) +
                    "; 'qvdb check' lists those that are there twice");
    }
  }

  const std::vector<Id>& ids() const { return ids_; }
  std::optional<uint32_t> find(Id id) const {
    const auto found = places_.find(id);
    if (found == places_.end()) return std::nullopt;
    return found->second;
  }

 private:
  std::vector<Id> ids_;
  std::unordered_map<Id, uint32_t> places_;
};

class Comparer {
 public:
  Comparer(const Database& a, const Database& b, DifferenceTaker& taker)
      : a_(a), b_(b), taker_(taker) {}

  bool differs() const { return differs_; }

  void compare() {
    const DatabaseInfo a = a_.info();
    const DatabaseInfo b = b_.info();
    differs_ = !hasSameHeader(a, b);
    if (differs_) taker_.header(a, b);
    const std::vector<Table> ofA = a_.tables();
    const std::vector<TablePair> pairs = pairsOf(ofA, b_.tables());
    if (isReordered(ofA, pairs)) {
      taker_.tableOrder();
      differs_ = true;
    }
    for (const TablePair& pair : pairs) {
      if (pair.b) continue;
      taker_.tableRemoved(*pair.a);
      differs_ = true;
    }
    for (const TablePair& pair : pairs) {
      if (pair.b) compareTables(pair);
    }
  }

 private:
  void compareTables(const TablePair& pair) {
    TableDifferences differences;
    if (pair.a) {
      const TableInfo a = pair.a->info();
      const TableInfo b = pair.b->info();
      differences = {a.name != b.name, a.id != b.id, a.version != b.version,
                     a.flags_1 != b.flags_1 || a.flags_2 != b.flags_2,
                     !hasSameData(a_, *pair.a, b_, *pair.b)};
    }
    differs_ = differs_ || !pair.a || differences.any();
    taker_.beginTable(pair, differences);
    pair.a ? compareRecords(*pair.a, *pair.b) : addRecords(*pair.b);
    taker_.endTable();
  }

  void addRecords(const Table& table) {
    std::optional<Id> before;
    for (const Record& record : table.records()) {
      throwIfInterrupted();
      taker_.added(record, before);
      before = record.id();
    }
  }

  void compareRecords(const Table& a, const Table& b) {
    const Places ofA(a_, a);
    const Places ofB(b_, b);
    std::vector<uint32_t> common;
    for (const Id id : ofB.ids()) {
      if (const auto place = ofA.find(id)) common.push_back(*place);
    }
    const std::vector<bool> stays = ascendingSeries(common);
    takeRemoved(a, ofA, ofB);
    const RecordIndex index = a.index();
    std::optional<Id> before;
    size_t at = 0;
    size_t commonAt = 0;
    for (const Record& record : b.records()) {
      throwIfInterrupted();
      if (at >= ofB.ids().size() || ofB.ids()[at++] != record.id()) throw changedMeanwhile(b_);
      if (!ofA.find(record.id())) {
        differs_ = true;
        taker_.added(record, before);
      } else {
        compareRecord(a, record, before, stays[commonAt++]);
      }
      before = record.id();
    }
  }

  void takeRemoved(const Table& a, const Places& ofA, const Places& ofB) {
    size_t at = 0;
    for (const Record& record : a.records()) {
      throwIfInterrupted();
      if (at >= ofA.ids().size() || ofA.ids()[at++] != record.id()) throw changedMeanwhile(a_);
      if (ofB.find(record.id())) continue;
      differs_ = true;
      taker_.removed(record);
    }
  }

  void compareRecord(const Table& a, const Record& ofB, std::optional<Id> before, bool stays) {
    const std::optional<Record> ofA = a.find(ofB.id());
    if (!ofA) throw changedMeanwhile(a_);
    const RecordInfo& one = ofA->info();
    const RecordInfo& other = ofB.info();
    const RecordDifferences differences = {
        !hasSamePayload(*ofA, ofB),
        one.create_time != other.create_time || one.modify_time != other.modify_time};
    differs_ = differs_ || differences.any() || !stays;
    if (differences.any()) taker_.changed(*ofA, ofB, differences);
    if (!stays) taker_.moved(ofB, before);
  }

  const Database& a_;
  const Database& b_;
  DifferenceTaker& taker_;
  bool differs_ = false;
};

}  // namespace

// Of each length the series whose last number is least is known; each number knows the one before
// it in the best series that ends with it.
std::vector<bool> ascendingSeries(const std::vector<uint32_t>& numbers) {
  constexpr size_t kNone = ~size_t{0};
  std::vector<size_t> lasts;
  std::vector<size_t> previous(numbers.size(), kNone);
  for (size_t i = 0; i < numbers.size(); ++i) {
    const auto at = std::lower_bound(lasts.begin(), lasts.end(), numbers[i],
                                     [&](size_t last, uint32_t n) { return numbers[last] < n; });
    if (at != lasts.begin()) previous[i] = *(at - 1);
    if (at == lasts.end()) {
      lasts.push_back(i);
    } else {
      *at = i;
    }
  }
  std::vector<bool> belongs(numbers.size());
  for (size_t i = lasts.empty() ? kNone : lasts.back(); i != kNone; i = previous[i]) {
    belongs[i] = true;
  }
  return belongs;
}

bool compareDatabases(const Database& a, const Database& b, DifferenceTaker& taker) {
  const SteadyFile steadyA(a);
  const SteadyFile steadyB(b);
  Comparer comparer(a, b, taker);
  comparer.compare();
  steadyA.require();
  steadyB.require();
  return comparer.differs();
}

}  // namespace qvdb::tool

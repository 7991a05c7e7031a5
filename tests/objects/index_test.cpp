// Indexes: what is found in constant time is what the walk would find, whatever happens beside
// them.
#include <map>
#include <random>
#include <vector>

#include "kit/fake_host.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "objects/indexes/index_map.h"
#include "objects/layer_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Mode;
using qvdb::Reason;

using LayerIndex = LayerTest;

TEST(IndexMap, AgreesWithAMapThroughRandomInsertionsAndErasures) {
  const auto seed = static_cast<unsigned>(randomSeed());
  std::mt19937_64 random(seed);
  qvdb::detail::IndexMap map;
  std::map<uint64_t, int64_t> model;
  for (int step = 0; step < 60000; ++step) {
    const uint64_t key = random() % 3000 << (step % 2 == 0 ? 0 : 40);
    const auto position = static_cast<int64_t>(random() % 1000000 + 1);
    switch (random() % 4) {
      case 0:
      case 1:
        ASSERT_EQ(map.insert(key, position), model.emplace(key, position).second);
        break;
      case 2:
        map.erase(key);
        model.erase(key);
        break;
      default:
        map.replace(key, position);
        if (model.contains(key)) model[key] = position;
    }
    ASSERT_EQ(map.size(), model.size());
    const auto found = map.find(key);
    ASSERT_EQ(found.has_value(), model.contains(key));
    if (found) {
      ASSERT_EQ(*found, model[key]);
    }
  }
  for (const auto& [key, position] : model) ASSERT_EQ(map.find(key), position);
}

TEST(IndexMap, TakesTheKeysThatItHasSpaceForWithoutGrowing) {
  qvdb::detail::IndexMap map;
  map.reserve(5000);
  const size_t bytes = map.bytes();
  EXPECT_LE(bytes, 5000u * 24);
  for (uint64_t key = 1; key <= 5000; ++key) {
    EXPECT_TRUE(map.insert(key * 0x10001, static_cast<int64_t>(key)));
  }
  EXPECT_EQ(map.bytes(), bytes);
  map.reserve(100'000);  // not while there is something in it
  EXPECT_EQ(map.find(0x10001), 1);
  EXPECT_EQ(map.size(), 5000u);
}

// The number that is hashed to `hash` by who knows the seed: each step of the hash undone.
uint64_t unmixed(uint64_t hash, const qvdbase::support::HashSeed& seed) {
  uint64_t inverse = 1;  // of the factor: each round doubles the number of its right bits
  for (int i = 0; i < 6; ++i) inverse *= 2 - 0xD6E8FEB86659FD93u * inverse;
  hash = (hash ^ (hash >> 32)) * inverse;
  hash = (hash ^ (hash >> 32)) * inverse;
  hash = ((hash ^ (hash >> 32)) ^ seed.between) * inverse;
  return (hash ^ (hash >> 32)) ^ seed.before;
}

constexpr size_t kCrafted = 5000;

// Identifiers of which a map with this seed takes all for the same place.
std::vector<uint64_t> collidingUnder(const qvdbase::support::HashSeed& seed) {
  std::vector<uint64_t> keys;
  for (size_t i = 0; i < kCrafted; ++i) keys.push_back(unmixed(i, seed));
  return keys;
}

// The places that searches for all keys look at, after some have come and gone.
size_t stepsOfAll(qvdb::detail::IndexMap& map, const std::vector<uint64_t>& keys) {
  for (const uint64_t key : keys) EXPECT_TRUE(map.insert(key, 1));
  for (size_t i = 0; i < keys.size(); i += 2) map.erase(keys[i]);
  for (size_t i = 0; i < keys.size(); i += 2) EXPECT_TRUE(map.insert(keys[i], 1));
  size_t steps = 0;
  for (const uint64_t key : keys) steps += map.stepsTo(key);
  return steps;
}

TEST(IndexMap, FindsCraftedIdentifiersInAFewStepsUnlessItsSeedIsKnown) {
  const qvdbase::support::HashSeed known = {0x0123456789ABCDEF, 0x42};
  qvdb::detail::IndexMap attacked(known);
  EXPECT_EQ(stepsOfAll(attacked, collidingUnder(known)), kCrafted * (kCrafted + 1) / 2);

  // Full to seven eighths a map needs 4.5 steps on average.
  constexpr size_t kFew = 20 * kCrafted;
  const qvdbase::support::HashSeed others[] = {qvdbase::support::hashSeed(), {}, {1, 0}, {0, 1}};
  for (const qvdbase::support::HashSeed& seed : others) {
    qvdb::detail::IndexMap map(seed);
    EXPECT_LE(stepsOfAll(map, collidingUnder(known)), kFew) << seed.before;
  }
  for (const uint64_t distance :
       {uint64_t{1}, uint64_t{1} << 32, uint64_t{1} << 51, uint64_t{0xFFFFFFFF}}) {
    std::vector<uint64_t> keys;
    for (size_t i = 1; i <= kCrafted; ++i) keys.push_back(i * distance);
    qvdb::detail::IndexMap map;
    EXPECT_LE(stepsOfAll(map, keys), kFew) << distance;
  }
}

TEST(IndexMap, OfNothingFindsNothing) {
  qvdb::detail::IndexMap map;
  EXPECT_EQ(map.find(1), std::nullopt);
  map.erase(1);
  map.replace(1, 5);
  EXPECT_EQ(map.size(), 0u);
}

// The reads of a lookup, of which a walk along the chain of these tables needs more than five.
template <typename Lookup>
int readsOf(Lookup lookup) {
  RecordedCalls host;
  lookup();
  return host.count(Call::read);
}

// An index in a database that others change: in this process, so that nothing but the file says so.
class IndexBesideWriters : public LayerTest {
 protected:
  IndexBesideWriters() : writer_(createDatabase()), written_(writer_.add_table("t")) {
    for (int i = 0; i < kRecords; ++i) ids_.push_back(written_.add(large_));
    reader_ = openDatabase(Mode::read_only);
    table_.emplace(reader_.table("t"));
    index_.emplace(table_->index());
  }

  bool isConstant(Id id) {
    return readsOf([&] { EXPECT_TRUE(table_->contains(id)); }) <= 6;
  }

  static constexpr int kRecords = 500;
  const std::string large_ = std::string(3000, 'x');
  qvdb::Database writer_;
  qvdb::Table written_;
  std::vector<Id> ids_;
  qvdb::Database reader_;
  std::optional<qvdb::Table> table_;
  std::optional<qvdb::RecordIndex> index_;
};

TEST_F(IndexBesideWriters, CatchesUpWithWhatOthersAdd) {
  if (!platform::gathersTransfers()) GTEST_SKIP() << "each transfer is a system call of its own";
  EXPECT_TRUE(isConstant(ids_[499]));
  for (int round = 0; round < 3; ++round) {
    const Id added = written_.add("added");
    EXPECT_TRUE(isConstant(added));
    const std::vector<std::string> more = {"a", "b"};
    written_.append_all(more);
    EXPECT_LE(readsOf([&] { EXPECT_FALSE(table_->contains(Id{1})); }), 8);
    EXPECT_EQ(index_->size(), written_.count());
  }
}

TEST_F(IndexBesideWriters, NeverFindsWhatOthersHaveDeletedAndAlwaysWhatTheyHaveMoved) {
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(written_.remove(ids_[static_cast<size_t>(i) * 7]));
    EXPECT_TRUE(written_.modify(ids_[static_cast<size_t>(i) * 7 + 3], large_ + "more"));
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_FALSE(table_->contains(ids_[static_cast<size_t>(i) * 7]));
    EXPECT_EQ(table_->get(ids_[static_cast<size_t>(i) * 7 + 3])->size(), large_.size() + 4);
  }
  EXPECT_EQ(index_->size(), 480u);
}

// Others have moved it, and the search along the chain breaks off on its way.
TEST_F(IndexBesideWriters, FindsARecordWhoseSearchFailedBefore) {
  for (size_t i = 0; i < 12; ++i) {
    const Id moved = ids_[480 - i];
    EXPECT_TRUE(written_.modify(moved, large_ + "more"));
    FakeHost host;
    host.failFrom(FakeHost::Call::read, static_cast<int>(i));
    try {
      EXPECT_TRUE(table_->contains(moved)) << i;
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), Reason::cannot_read) << i;
    }
    host.heal();
    EXPECT_TRUE(table_->contains(moved)) << i;
  }
}

TEST_F(IndexBesideWriters, FindsASuccessorOfItsLastRecordWhateverBecameOfThat) {
  EXPECT_TRUE(written_.modify(ids_[499], large_ + "more"));
  const Id first = written_.add("first");
  EXPECT_TRUE(table_->contains(first));
  EXPECT_TRUE(written_.remove(first));
  const Id second = written_.add("second");
  EXPECT_TRUE(table_->contains(second));
  EXPECT_FALSE(table_->contains(first));
  const Id third = written_.add("third");
  EXPECT_TRUE(written_.remove(second));
  EXPECT_TRUE(table_->contains(third));
  for (const qvdb::Record& record : written_.records()) {
    EXPECT_TRUE(table_->contains(record.id()));
  }
}

TEST_F(IndexBesideWriters, KnowsAnIdentifierThatIsUsedAgain) {
  EXPECT_TRUE(written_.remove(ids_[100]));
  written_.add_with_id(ids_[100], "again");
  EXPECT_EQ(bytes(table_->get(ids_[100])).str(), "again");
  written_.add_with_id(ids_[200], "a second one");
  EXPECT_EQ(table_->get(ids_[200])->size(), large_.size());
  EXPECT_TRUE(written_.remove(ids_[200]));
  EXPECT_EQ(bytes(table_->get(ids_[200])).str(), "a second one");
}

TEST_F(IndexBesideWriters, OfTwoSharedWritersEachKnowsWhatTheOtherDoes) {
  writer_.close();
  qvdb::Database first = openDatabase(Mode::shared);
  qvdb::Database second = openDatabase(Mode::shared);
  qvdb::Table one = first.table("t");
  qvdb::Table two = second.table("t");
  const qvdb::RecordIndex indexOfOne = one.index();
  const qvdb::RecordIndex indexOfTwo = two.index();
  for (int i = 0; i < 20; ++i) {
    const Id byOne = one.add("one");
    const Id byTwo = two.add("two");
    EXPECT_TRUE(two.modify(byOne, "longer than it was"));
    EXPECT_TRUE(one.touch(byTwo));
    if (i % 2 == 0) {
      EXPECT_TRUE(one.remove(byTwo));
    }
    EXPECT_EQ(two.contains(byTwo), i % 2 != 0);
    EXPECT_EQ(bytes(one.get(byOne)).str(), "longer than it was");
  }
  EXPECT_EQ(idsOf(one).size(), 500u + 20u + 10u);
}

TEST_F(LayerIndex, OfADamagedChainSaysWhere) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  table.add(span(bytesOf("a")));
  table.add(span(bytesOf("b")));
  database.close();
  Bytes image = contents();
  const auto first = static_cast<size_t>(slot(0).firstRecordPos);
  for (size_t i = 0; i < 8; ++i) image[first + 39 + i] = 0;
  writeFile(path(), image);
  allowDamage();
  auto damaged = openDatabase();
  expectError(Reason::chain_damaged, [&] { static_cast<void>(damaged.table("t").index()); });
}

TEST_F(LayerIndex, FindsARecordWithoutWalkingTheChain) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  std::vector<Id> ids;
  for (int i = 0; i < 2000; ++i)
    ids.push_back(table.add(span(Bytes(300, static_cast<uint8_t>(i)))));
  const qvdb::RecordIndex index = table.index();
  EXPECT_EQ(index.size(), 2000u);
  EXPECT_GE(index.bytes(), 2000u * 16);
  EXPECT_LE(index.bytes(), 2000u * 25);
  RecordedCalls host;
  EXPECT_EQ(bytes(table.get(ids[1900])), Bytes(300, static_cast<uint8_t>(1900)));
  EXPECT_LE(host.count(Call::read), platform::gathersTransfers() ? 4 : 60);
}

TEST_F(LayerIndex, KnowsThatARecordIsNotThereWithoutWalkingTheChain) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  for (int i = 0; i < 2000; ++i) table.add(span(Bytes(300, 'x')));
  const qvdb::RecordIndex index = table.index();
  RecordedCalls host;
  EXPECT_EQ(table.find(Id{12345}), std::nullopt);
  EXPECT_LE(host.count(Call::read), 4);
}

// Slot and blocks have the same sum, whatever it is: the index asks for the one of the slot.
TEST_F(LayerIndex, FindsTheRecordsOfATableWhoseIdentifierHasAWrongSum) {
  FileImage image;
  image.addTable("t", 0x11);
  image.slot(0).tableID[9] ^= 1;
  for (uint64_t i = 0; i < 500; ++i) {
    const int64_t at = image.addRecord(0, 0xA1 + i, pattern(300, static_cast<unsigned>(i)));
    image.record(at).tableID[9] = image.slot(0).tableID[9];
  }
  allowDamage();
  auto database = openImage(image);
  const auto table = database.table("t");
  const qvdb::RecordIndex index = table.index();
  RecordedCalls host;
  EXPECT_EQ(bytes(table.get(Id{0xA1 + 400})), pattern(300, 400));
  EXPECT_EQ(bytes(table.get(Id{0xA1 + 200})), pattern(300, 200));
  EXPECT_LE(host.count(Call::read), platform::gathersTransfers() ? 8 : 120);
}

TEST_F(LayerIndex, IsSharedByAllCopiesOfATableAndEndsWithItsLastHolder) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id id = table.add(span(bytesOf("a")));
  auto index = std::make_unique<qvdb::RecordIndex>(table.index());
  const qvdb::RecordIndex second = database.table("t").index();
  table.add(span(bytesOf("b")));
  EXPECT_EQ(index->size(), 2u);
  EXPECT_EQ(second.size(), 2u);
  index.reset();
  EXPECT_EQ(bytes(table.get(id)), bytesOf("a"));
}

TEST_F(LayerIndex, GivesTheFirstOfTwoRecordsWithOneIdentifierAndThenTheOther) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  table.add_with_id(Id{7}, span(bytesOf("first")));
  const qvdb::RecordIndex index = table.index();
  table.add_with_id(Id{7}, span(bytesOf("second")));
  EXPECT_EQ(bytes(table.get(Id{7})), bytesOf("first"));
  EXPECT_TRUE(table.remove(Id{7}));
  EXPECT_EQ(bytes(table.get(Id{7})), bytesOf("second"));
  EXPECT_TRUE(table.remove(Id{7}));
  EXPECT_EQ(table.find(Id{7}), std::nullopt);
}

TEST_F(LayerIndex, KnowsTheOneRecordOfABatchThatGaveUpAnother) {
  auto db = createDatabase();
  auto table = db.add_table("t");
  table.add(span(bytesOf("first")));
  const auto index = table.index();
  auto bulk = table.appender();
  const Id added = bulk.add(span(bytesOf("second")));
  bulk.writer().discard();
  EXPECT_EQ(bulk.finish(), 1u);
  ASSERT_TRUE(table.find(added));
  EXPECT_EQ(bytes(table.get(added)), bytesOf("second"));
}

TEST_F(LayerIndex, SeesWhatTheCFunctionsChange) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id a = table.add(span(bytesOf("a")));
  const Id b = table.add(span(bytesOf("b")));
  const Id c = table.add(span(bytesOf("c")));
  const qvdb::RecordIndex index = table.index();
  const int16_t db = database.handle();
  const uint64_t id = table.id().value;

  uint64_t added = 0;
  ASSERT_EQ(AddRecordData(db, id, bytesOf("new").data(), 3, 0, &added), 1);
  EXPECT_EQ(bytes(table.get(Id{added})), bytesOf("new"));
  ASSERT_EQ(ModifyRecordData(db, id, bytesOf("longer").data(), 6, b.value, nullptr), 1);
  EXPECT_EQ(bytes(table.get(b)), bytesOf("longer"));
  ASSERT_EQ(DeleteOneRecord(db, id, a.value, nullptr), 1);
  EXPECT_EQ(table.find(a), std::nullopt);
  EXPECT_EQ(bytes(table.get(c)), bytesOf("c"));
}

TEST_F(LayerIndex, DoesNotBelieveABlockThatIsNoLongerInTheChain) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  table.add(span(bytesOf("a")));
  const Id b = table.add(span(bytesOf("b")));
  table.add(span(bytesOf("c")));
  const qvdb::RecordIndex index = table.index();
  ASSERT_EQ(DeleteOneRecord(database.handle(), table.id().value, b.value, nullptr), 1);
  EXPECT_EQ(table.find(b), std::nullopt);
  EXPECT_FALSE(table.remove(b));
  EXPECT_FALSE(table.modify(b, span(bytesOf("x"))));
  EXPECT_FALSE(table.touch(b));
}

// One random life of a table with and one without an index: the same results, the same bytes.
TEST_F(LayerIndex, ChangesNoResultAndNoByte) {
  const auto seed = static_cast<unsigned>(randomSeed());
  RecordedCalls host;
  host.setTime(1'000'000);
  createDatabase("start.qvd").add_table("t");
  writeFile(path("with.qvd"), contents("start.qvd"));
  writeFile(path("without.qvd"), contents("start.qvd"));
  auto withIndex = openDatabase(Mode::exclusive, "with.qvd");
  auto without = openDatabase(Mode::exclusive, "without.qvd");
  auto one = withIndex.table("t");
  auto two = without.table("t");
  qvdb::RecordIndex index = one.index();

  std::mt19937 random(seed);
  for (int step = 0; step < 600; ++step) {
    const Id id{random() % 60 + 1};
    const Bytes payload(random() % 200 + 1, static_cast<uint8_t>(step));
    switch (random() % 6) {
      case 0:
      case 1: {
        if (random() % 10 != 0 && one.find(id)) break;  // now and then the same identifier again
        one.add_with_id(id, span(payload));
        two.add_with_id(id, span(payload));
        break;
      }
      case 2:
        ASSERT_EQ(one.modify(id, span(payload)), two.modify(id, span(payload)));
        break;
      case 3:
        ASSERT_EQ(one.remove(id), two.remove(id));
        break;
      case 4:
        ASSERT_EQ(one.touch(id), two.touch(id));
        break;
      default:
        ASSERT_EQ(bytes(one.get(id)), bytes(two.get(id)));
    }
    ASSERT_EQ(idsOf(one), idsOf(two));
  }
  EXPECT_TRUE(sameBytes(contents("with.qvd"), contents("without.qvd")));
}

}  // namespace
}  // namespace qvdbase::test

// The cache: which system calls remain, that results and bytes are those without it, when there is
// none, and programs that ignore the lock.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kit/forked.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/sanitized.h"
#include "objects/layer_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

constexpr size_t kSize = 100;

bool hostHasCaches() {
  constexpr size_t kSome = 65536;
  void* memory = platform::systemCalls().reserve(kSome, false);
  if (memory == nullptr) return false;
  platform::systemCalls().unreserve(memory, kSome);
  return platform::gathersTransfers();
}

// The calls on files that the operation makes, in order; the question for the limit as "limit".
template <typename Operation>
std::string callsOf(Operation operation) {
  RecordedCalls host;
  host.setMicroseconds(1'000'000);  // no time passes
  operation();
  std::string calls;
  for (int i = 0; i < host.count(Call::sizeLimit); ++i) calls += "limit ";
  for (const Event& event : host.events()) {
    if (event.call == Call::allocate || event.call == Call::release) continue;
    if (event.call == Call::time) continue;
    calls += std::string(nameOf(event.call)) + " ";
  }
  if (!calls.empty()) calls.pop_back();
  return calls;
}

class CacheTest : public LayerTest {
 protected:
  void create(int records) {
    database_.emplace(createDatabase());
    table_.emplace(database_->add_table("t"));
    qvdb::BulkAppender bulk = table_->appender();
    for (int i = 0; i < records; ++i) ids_.push_back(bulk.add(qvdb::NewRecord(span(payload_))));
    bulk.finish();
  }

  const Bytes payload_ = Bytes(kSize, 'p');
  const Bytes larger_ = Bytes(kSize + kSize / 2, 'l');
  std::optional<qvdb::Database> database_;
  std::optional<qvdb::Table> table_;
  std::vector<qvdb::Id> ids_;
};

// With an index, and all of the file in memory.
class CachedCalls : public CacheTest {
 protected:
  void SetUp() override {
    CacheTest::SetUp();
    if (!hostHasCaches()) GTEST_SKIP() << "this host, or this build, has no caches";
    create(2000);
    cache_.emplace(database_->cache());
    index_.emplace(table_->index());
    for (const qvdb::Record& record : table_->records()) static_cast<void>(record.payload());
    // From here on the clock of callsOf() counts; this asks for readers.
    callsOf([&] { table_->touch(ids_[0]); });
  }
  qvdb::Id middle() const { return ids_[1000]; }

  std::optional<qvdb::Cache> cache_;
  std::optional<qvdb::RecordIndex> index_;
};

TEST_F(CachedCalls, ReadingMakesNone) {
  std::vector<std::byte> buffer(kSize);
  EXPECT_EQ(callsOf([&] { table_->get(middle(), buffer); }), "");
  EXPECT_EQ(callsOf([&] { table_->get(middle()); }), "");
  EXPECT_EQ(callsOf([&] { table_->find(middle())->payload(); }), "");
  EXPECT_EQ(callsOf([&] { table_->get(ids_.front(), buffer); }), "");
  EXPECT_EQ(callsOf([&] { table_->get(ids_.back(), buffer); }), "");
  EXPECT_EQ(callsOf([&] { table_->contains(qvdb::Id{1}); }), "");
  EXPECT_EQ(callsOf([&] { table_->count(); }), "");
  EXPECT_EQ(callsOf([&] { database_->tables(); }), "");
  EXPECT_EQ(callsOf([&] { database_->info(); }), "");
  EXPECT_EQ(callsOf([&] { table_->last()->payload(); }), "");
  EXPECT_EQ(callsOf([&] {
              size_t count = 0;
              for (const qvdb::Record& record : table_->records(qvdb::Load::payloads)) {
                count += record.loaded().size();
              }
              EXPECT_EQ(count, 2000 * kSize);
            }),
            "");
}

TEST_F(CachedCalls, ChangesMakeTheirWritesAndAskForTheLimit) {
  EXPECT_EQ(callsOf([&] { table_->add(span(payload_)); }), "limit write write write");
  EXPECT_EQ(callsOf([&] { table_->add(span(payload_)); }), "limit write write write");
  EXPECT_EQ(callsOf([&] { table_->modify(middle(), span(payload_)); }), "limit write");
  EXPECT_EQ(callsOf([&] { table_->touch(middle()); }), "limit write");
  EXPECT_EQ(callsOf([&] { table_->modify(middle(), span(larger_)); }), "limit write write write");
  EXPECT_EQ(callsOf([&] { table_->remove(middle()); }), "limit write write write");
  EXPECT_EQ(callsOf([&] { EXPECT_FALSE(table_->remove(middle())); }), "");
  EXPECT_EQ(callsOf([&] { EXPECT_FALSE(table_->contains(middle())); }), "");
}

// Inside a transaction, what it has not changed comes from the cache, and what it has changed from
// memory.
TEST_F(CachedCalls, ATransactionMakesNoneUntilItCommits) {
  static_cast<void>(table_->get(ids_[10]));
  qvdb::Transaction t = database_->begin();
  EXPECT_EQ(callsOf([&] { EXPECT_EQ(table_->get(ids_[20])->size(), kSize); }), "");
  EXPECT_EQ(callsOf([&] {
              EXPECT_TRUE(table_->modify(ids_[20], "changed"));
              EXPECT_TRUE(table_->remove(ids_[30]));
              table_->add("added");
            }),
            "");
  EXPECT_EQ(callsOf([&] {
              EXPECT_EQ(table_->get(ids_[20])->size(), 7u);
              EXPECT_FALSE(table_->get(ids_[30]));
              EXPECT_EQ(table_->get(ids_[29])->size(), kSize);
              size_t records = 0;
              for (const qvdb::Record& record : table_->records())
                records += record.id().value != 0;
              EXPECT_EQ(records, ids_.size());
            }),
            "");
  t.rollback();
  EXPECT_EQ(callsOf([&] {
              EXPECT_EQ(table_->get(ids_[20])->size(), kSize);
              EXPECT_EQ(table_->get(ids_[30])->size(), kSize);
            }),
            "");
}

TEST_F(CachedCalls, ReadersAreAskedForAgainAfterSomeTime) {
  RecordedCalls host;
  host.setMicroseconds(1'004'999);
  table_->touch(middle());
  EXPECT_EQ(host.count(Call::findLock), 0);
  host.setMicroseconds(1'005'000);
  table_->touch(middle());
  table_->touch(middle());
  EXPECT_EQ(host.count(Call::findLock), 1);
}

TEST_F(CachedCalls, TheCFunctionsMakeTheirOwn) {
  const int16_t db = database_->handle();
  uint32_t count = 0;
  EXPECT_EQ(callsOf([&] { GetNumberOfRecords(db, table_->id().value, &count); }), "read");
  uint64_t id = 0;
  EXPECT_EQ(callsOf([&] { AddRecordData(db, table_->id().value, payload_.data(), kSize, 0, &id); }),
            "limit read length write read write write");
  // What they write is seen, by the index too.
  EXPECT_EQ(bytes(table_->get(qvdb::Id{id})), payload_);
  EXPECT_EQ(table_->count(), 2001u);
  EXPECT_EQ(DeleteOneRecord(db, table_->id().value, middle().value, nullptr), 1);
  EXPECT_FALSE(table_->contains(middle()));
}

TEST_F(CachedCalls, EndWithTheLastObjectThatHoldsIt) {
  qvdb::Cache other = database_->cache();
  EXPECT_GT(other.bytes(), 0u);
  cache_.reset();
  EXPECT_EQ(callsOf([&] { table_->get(middle()); }), "");
  qvdb::Cache moved;
  moved = std::move(other);
  other = qvdb::Cache();
  EXPECT_EQ(callsOf([&] { table_->get(middle()); }), "");
  moved = qvdb::Cache();
  EXPECT_EQ(callsOf([&] { table_->get(middle()); }), "read");
}

// The calls of an operation that transfer or ask, with the number of bytes of each read.
template <typename Operation>
std::string callsWithSizes(Operation operation) {
  RecordedCalls host;
  host.setMicroseconds(1'000'000);
  operation();
  std::string calls;
  for (const Event& event : host.events()) {
    if (event.call == Call::allocate || event.call == Call::release) continue;
    if (event.call == Call::time) continue;
    calls += std::string(nameOf(event.call)) + " ";
    if (event.call == Call::read) calls += std::to_string(event.count) + " ";
  }
  return calls;
}

// What is beyond the budget is read as without a cache: by as many calls, of as many bytes.
TEST_F(CacheTest, BeyondItsBudgetALookupMakesTheReadThatItMakesWithoutOne) {
  if (!hostHasCaches()) GTEST_SKIP();
  create(4000);
  const qvdb::RecordIndex index = table_->index();
  const auto far = [&] { EXPECT_EQ(bytes(table_->get(ids_[3000])), payload_); };
  const auto change = [&] { EXPECT_TRUE(table_->touch(ids_[3000])); };
  const std::string without = callsWithSizes(far);
  EXPECT_NE(without.find("read"), std::string::npos);
  const qvdb::Cache cache = database_->cache(size_t{64} << 10);
  EXPECT_EQ(bytes(table_->get(ids_[10])), payload_);
  EXPECT_EQ(cache.bytes(), size_t{64} << 10);
  EXPECT_EQ(callsWithSizes([&] { table_->get(ids_[10]); }), "");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(callsWithSizes(far), without);
  callsOf(change);  // asks for readers, which is not done again for some time
  EXPECT_EQ(callsOf(change), "limit read write");
  EXPECT_EQ(cache.bytes(), size_t{64} << 10);
}

// All payloads, in the order of `ids`, by one call.
std::vector<Bytes> manyOf(const qvdb::Table& table, const std::vector<qvdb::Id>& ids) {
  std::vector<Bytes> result(ids.size(), bytesOf("(not called)"));
  table.get_many(ids, [&](size_t number, std::optional<std::span<const std::byte>> payload) {
    EXPECT_EQ(result[number], bytesOf("(not called)"));
    result[number] = payload ? bytes(*payload) : bytesOf("(nothing)");
  });
  return result;
}

TEST_F(CacheTest, ManyRecordsAreThoseThatAreReadOneByOne) {
  std::mt19937_64 random(randomSeed());
  create(300);
  for (int i = 0; i < 3000; ++i) {
    const Bytes payload = pattern(random() % 50 == 0 ? 90'000 : random() % 600, unsigned(i));
    ids_.push_back(table_->add(span(payload)));
  }
  for (int i = 0; i < 300; ++i) table_->modify(ids_[random() % ids_.size()], span(larger_));
  for (int i = 0; i < 300; ++i) table_->remove(ids_[random() % ids_.size()]);
  std::vector<qvdb::Id> wanted;
  for (int i = 0; i < 2000; ++i) wanted.push_back(ids_[random() % ids_.size()]);
  wanted.push_back(qvdb::Id{1});
  const qvdb::RecordIndex index = table_->index();
  std::vector<Bytes> expected;
  for (const qvdb::Id id : wanted) expected.push_back(bytes(table_->get(id)));
  EXPECT_EQ(manyOf(*table_, wanted), expected);
  const qvdb::Cache cache = database_->cache();
  EXPECT_EQ(manyOf(*table_, wanted), expected);
  EXPECT_EQ(manyOf(*table_, {}), std::vector<Bytes>());
}

TEST_F(CacheTest, ManyRecordsSideBySideAreReadTogether) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  create(2000);
  const qvdb::RecordIndex index = table_->index();
  std::vector<qvdb::Id> wanted;
  for (size_t i = 1990; i > 10; i -= 3) wanted.push_back(ids_[i]);
  RecordedCalls host;
  manyOf(*table_, wanted);
  // 300 KiB in pieces of 64 KiB and what is around them; one by one they would be 660.
  EXPECT_LE(host.count(Call::read), 8);
}

TEST_F(CacheTest, WhoGetsOneOfManyRecordsMayUseTheDatabase) {
  create(100);
  const qvdb::RecordIndex index = table_->index();
  table_->get_many(ids_, [&](size_t number, std::optional<std::span<const std::byte>> payload) {
    ASSERT_TRUE(payload);
    EXPECT_EQ(bytes(*payload), payload_);
    if (number % 2 == 0) table_->remove(ids_[number]);
  });
  EXPECT_EQ(table_->count(), 50u);
}

// What a walk has loaded stays what it was, whatever happens to the record, the cache and the file.
TEST_F(CacheTest, LoadedPayloadsStayAsTheyAre) {
  create(500);
  std::optional<qvdb::Cache> cache(database_->cache());
  int number = 0;
  qvdb::RecordRange records = table_->records(qvdb::Load::payloads);
  for (auto i = records.begin(); i != records.end(); ++i) {
    const std::span<const std::byte> loaded = i->loaded();
    ASSERT_EQ(bytes(loaded), payload_) << number;
    table_->modify(i->id(), span(Bytes(kSize, 'q')));
    ASSERT_EQ(bytes(loaded), payload_) << number;
    ASSERT_EQ(bytes(i->payload()), Bytes(kSize, 'q'));
    if (++number == 400) {
      cache.reset();
      database_->close();
      ASSERT_EQ(bytes(loaded), payload_);
      break;
    }
  }
}

TEST_F(CacheTest, NeedsADatabaseThatIsOpenExclusively) {
  create(1);
  database_->close();
  for (const qvdb::Mode mode : {qvdb::Mode::read_only, qvdb::Mode::shared, qvdb::Mode::any}) {
    qvdb::Database database = openDatabase(mode);
    expectError(qvdb::Reason::bad_argument, [&] { static_cast<void>(database.cache()); });
    database.close();
    expectError(qvdb::Reason::bad_argument,
                [&] { qvdb::Database::open(path(), qvdb::OpenOptions{.mode = mode, .cache = 1}); });
  }
  expectError(qvdb::Reason::not_open, [&] { static_cast<void>(database_->cache()); });
}

TEST_F(CacheTest, CanComeWithOpeningAndStaysAfterReopening) {
  if (!hostHasCaches()) GTEST_SKIP();
  create(100);
  database_->close();
  qvdb::Database database = qvdb::Database::open(
      path(), qvdb::OpenOptions{.mode = qvdb::Mode::exclusive, .cache = size_t{1} << 20});
  const qvdb::Table table = database.table("t");
  EXPECT_EQ(table.count(), 100u);
  EXPECT_EQ(callsOf([&] { table.count(); }), "");
  database.reopen();
  EXPECT_EQ(table.count(), 100u);
  EXPECT_EQ(callsOf([&] { table.count(); }), "");
}

TEST_F(CacheTest, IsNoneWhereTheHostHasNoAddresses) {
  create(10);
  RecordedCalls host;
  host.failFrom(Call::reserve);
  const qvdb::Cache cache = database_->cache();
  EXPECT_EQ(cache.bytes(), 0u);
  EXPECT_EQ(bytes(table_->get(ids_[5])), payload_);
  table_->add(span(payload_));
  EXPECT_EQ(table_->count(), 11u);
}

TEST_F(CacheTest, ServesNoLongerAfterAFork) {
  create(10);
  const qvdb::Cache cache = database_->cache();
  EXPECT_EQ(table_->count(), 10u);
  const int result = inForkedChild([&] {
    uint64_t id = 0;
    return AddRecordData(database_->handle(), table_->id().value, payload_.data(), kSize, 0, &id);
  });
  EXPECT_EQ(result, 1);
  EXPECT_EQ(table_->count(), 11u);
}

// Every operation of the layer in random order, with caches of all sizes, against payloads in
// memory; the file is checked by the fixture, and read again without a cache.
TEST_F(CacheTest, ResultsAreThoseWithoutIt) {
  std::mt19937_64 random(randomSeed());
  const auto below = [&](size_t limit) { return static_cast<size_t>(random() % limit); };
  create(0);
  std::optional<qvdb::Cache> cache(database_->cache(size_t{4} << 20));
  std::optional<qvdb::RecordIndex> index(table_->index());
  std::map<uint64_t, Bytes> expected;
  const auto any = [&] {
    auto found = expected.lower_bound(random());
    return found == expected.end() ? expected.begin() : found;
  };
  const auto anyPayload = [&] {
    return pattern(below(20) == 0 ? 70'000 : below(400), unsigned(random()));
  };
  // A host call for each field takes too long for as many, and so does a sanitizer.
  const int operations = platform::gathersTransfers() && !kIsSanitized ? 3000 : 1000;
  for (int i = 0; i < operations; ++i) {
    const size_t choice = expected.empty() ? 0 : below(14);
    if (choice <= 1) {
      const Bytes payload = anyPayload();
      const qvdb::Id id = table_->add(span(payload), static_cast<uint32_t>(below(100)));
      expected[id.value] = payload;
    } else if (choice == 2) {
      qvdb::BulkAppender bulk = table_->appender();
      for (size_t n = below(50); n > 0; --n) {
        const Bytes payload = anyPayload();
        expected[bulk.add(qvdb::NewRecord(span(payload))).value] = payload;
      }
      bulk.finish();
    } else if (choice <= 4) {
      const auto record = any();
      record->second = anyPayload();
      ASSERT_TRUE(table_->modify(qvdb::Id{record->first}, span(record->second)));
    } else if (choice == 5) {
      const auto record = any();
      ASSERT_TRUE(table_->remove(qvdb::Id{record->first}));
      expected.erase(record);
    } else if (choice == 6) {
      const auto record = any();
      if (record->second.size() < 2) continue;
      record->second = record->second.with(1, bytesOf("x"));
      ASSERT_TRUE(table_->write(qvdb::Id{record->first}, 1, span(bytesOf("x"))));
    } else if (choice == 7 && below(10) == 0) {
      index.reset();
      if (below(2) == 0) index.emplace(table_->index());
    } else if (choice == 8 && below(10) == 0) {
      cache.reset();
      if (below(4) != 0) cache.emplace(database_->cache(below(6) * (size_t{1} << 20)));
    } else if (choice == 9 && below(20) == 0) {
      size_t count = 0;
      const qvdb::Order order = qvdb::Order{int(below(2))};
      for (const qvdb::Record& record :
           table_->records({.order = order, .load = qvdb::Load::payloads})) {
        const auto found = expected.find(record.id().value);
        ASSERT_NE(found, expected.end());
        ASSERT_EQ(bytes(record.loaded()), found->second);
        ++count;
        if (below(50) == 0) {
          ASSERT_TRUE(table_->touch(record));
          const Bytes payload = anyPayload();
          expected[table_->add(span(payload)).value] = payload;
          if (order == qvdb::Order::newest_first) ++count;
        }
      }
      ASSERT_GE(expected.size(), count);
    } else {
      const auto record = any();
      ASSERT_EQ(bytes(table_->get(qvdb::Id{record->first})), record->second) << i;
      ASSERT_FALSE(table_->contains(qvdb::Id{record->first + 1}));
    }
  }
  cache.reset();
  index.reset();
  std::map<uint64_t, Bytes> found;
  for (const qvdb::Record& record : table_->records(qvdb::Load::payloads)) {
    found[record.id().value] = bytes(record.loaded());
  }
  EXPECT_EQ(found, expected);
}

// A program that ignores the lock: whatever it makes of the file, operations end with a result or
// an error, and only the process's own memory is used.
TEST_F(CacheTest, SurvivesFilesThatOthersOverwriteAndCut) {
  std::mt19937_64 random(randomSeed());
  const auto below = [&](size_t limit) { return static_cast<size_t>(random() % limit); };
  create(3000);
  database_->close();
  const Bytes sound = readFile(path());
  for (int round = 0; round < 20; ++round) {
    writeFile(path(), sound);
    qvdb::Database database = openDatabase();
    qvdb::Table table = database.table("t");
    const qvdb::Cache cache = database.cache(size_t{below(3)} << 18);
    const qvdb::RecordIndex index = table.index();
    for (int i = 0; i < 60; ++i) {
      if (below(4) == 0) {
        std::filesystem::resize_file(path(), below(sound.size() + 1000));
      } else if (below(3) == 0) {
        patchFile(path(), below(std::filesystem::file_size(path()) + 1),
                  pattern(below(5000), unsigned(random())));
      }
      const qvdb::Id id = ids_[below(ids_.size())];
      try {
        switch (below(6)) {
          case 0:
            table.get(id);
            break;
          case 1:
            table.modify(id, span(larger_));
            break;
          case 2:
            table.remove(id);
            break;
          case 3:
            table.add(span(payload_));
            break;
          case 4:
            table.contains(qvdb::Id{1});
            break;
          default:
            for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
              ASSERT_LE(record.loaded().size(), record.size());
            }
        }
      } catch (const qvdb::Error&) {
      }
    }
  }
  writeFile(path(), sound);
}

}  // namespace
}  // namespace qvdbase::test

// Indexes of keys: what they find is what a walk over the table would find, whatever happens beside
// them.
#include <qvdbase/QVFile.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kit/fake_host.h"
#include "kit/forked.h"
#include "kit/random_seed.h"
#include "kit/test_extent.h"
#include "objects/layer_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::KeyIndex;
using qvdb::Mode;
using qvdb::Reason;
using qvdb::Record;

using Names = KeyIndex<std::string>;

std::string textOf(const Record& record) {
  const auto* text = reinterpret_cast<const char*>(record.loaded().data());
  return record.loaded().empty() ? std::string() : std::string(text, record.loaded().size());
}

// A payload begins with its keys, each ended by a semicolon; the rest is padding.
std::vector<std::string> keysIn(std::string_view text) {
  std::vector<std::string> keys;
  for (size_t end = text.find(';'); end != text.npos; end = text.find(';')) {
    keys.emplace_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  return keys;
}

constexpr auto kKeys = [](std::string_view text) { return keysIn(text); };

template <typename Range>
std::vector<uint64_t> idsOfRange(Range range) {
  std::vector<uint64_t> ids;
  for (const auto& [key, record] : range) ids.push_back(record.id().value);
  return ids;
}

template <typename Range>
std::vector<std::pair<std::string, uint64_t>> pairsOf(Range range) {
  std::vector<std::pair<std::string, uint64_t>> pairs;
  for (const auto& [key, record] : range) pairs.emplace_back(key, record.id().value);
  return pairs;
}

// What a walk over the table says: the model.
std::multimap<std::string, uint64_t> keysOf(const qvdb::Table& table) {
  std::multimap<std::string, uint64_t> keys;
  for (const Record& record : table.records(qvdb::Load::payloads)) {
    const std::vector<std::string> made = keysIn(textOf(record));
    for (const std::string& key : std::set<std::string>(made.begin(), made.end())) {
      keys.emplace(key, record.id().value);
    }
  }
  return keys;
}

std::vector<uint64_t> sorted(std::vector<uint64_t> ids) {
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::vector<uint64_t> idsIn(const std::multimap<std::string, uint64_t>& model,
                            const std::string& key) {
  std::vector<uint64_t> ids;
  const auto [from, to] = model.equal_range(key);
  for (auto each = from; each != to; ++each) ids.push_back(each->second);
  return sorted(ids);
}

// Every answer for these keys is that of the model.
void expectAgrees(const Names& index, const std::multimap<std::string, uint64_t>& model,
                  const std::vector<std::string>& keys) {
  for (const std::string& key : keys) {
    const std::vector<uint64_t> expected = idsIn(model, key);
    EXPECT_EQ(sorted(idsOfRange(index.records(key))), expected) << key;
    const auto found = index.find(key);
    ASSERT_EQ(found.has_value(), !expected.empty()) << key;
    if (found) {
      EXPECT_TRUE(std::binary_search(expected.begin(), expected.end(), found->id().value)) << key;
    }
  }
}

void expectOrderAgrees(const Names& index, const std::multimap<std::string, uint64_t>& model,
                       const std::string& from, const std::string& to) {
  std::vector<std::pair<std::string, uint64_t>> expected(model.lower_bound(from),
                                                         model.lower_bound(std::max(from, to)));
  std::vector<std::pair<std::string, uint64_t>> found = pairsOf(index.range(from, to));
  EXPECT_TRUE(std::is_sorted(found.begin(), found.end(),
                             [](const auto& a, const auto& b) { return a.first < b.first; }));
  std::sort(expected.begin(), expected.end());
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, expected) << from << " to " << to;
}

class LayerKeys : public LayerTest {
 protected:
  LayerKeys() : database(createDatabase()), table(database.add_table("t")) {}

  qvdb::Database database;
  qvdb::Table table;
};

TEST_F(LayerKeys, FindARecordByWhatIsInItsPayload) {
  const Id ada = table.add("ada;1815");
  table.add("none");
  const Id both = table.add("grace;hopper;1906");
  const Names index(table, kKeys);
  EXPECT_EQ(index.size(), 3u);
  EXPECT_EQ(index.find("ada")->id(), ada);
  EXPECT_EQ(textOf(*index.find("ada")), "ada;1815");
  EXPECT_EQ(index.find("grace")->id(), both);
  EXPECT_EQ(index.find("hopper")->id(), both);
  EXPECT_FALSE(index.find("none").has_value());
  EXPECT_TRUE(index.contains("ada"));
  EXPECT_FALSE(index.contains(""));
  EXPECT_EQ(index.find("ada")->payload(), table.find(ada)->payload());
}

TEST_F(LayerKeys, FollowEveryChangeOfATable) {
  const Names index(table, kKeys, {.ordered = true});
  const Id first = table.add("a;", 100);
  EXPECT_EQ(index.find("a")->id(), first);
  EXPECT_TRUE(table.modify(first, "b;"));
  EXPECT_FALSE(index.contains("a"));
  EXPECT_TRUE(index.contains("b"));
  EXPECT_TRUE(table.modify(first, "b;" + std::string(500, 'x')));
  EXPECT_EQ(index.find("b")->size(), 502u);
  EXPECT_TRUE(table.write(first, 0, "c"));
  EXPECT_FALSE(index.contains("b"));
  EXPECT_EQ(index.find("c")->id(), first);
  EXPECT_TRUE(table.touch(first));
  EXPECT_TRUE(index.contains("c"));
  table.add_with_id(Id{77}, "d;c;");
  EXPECT_EQ(idsOfRange(index.records("c")), (std::vector<uint64_t>{first.value, 77}));
  EXPECT_TRUE(table.remove(first));
  EXPECT_EQ(idsOfRange(index.records("c")), std::vector<uint64_t>{77});
  EXPECT_EQ(pairsOf(index.records()),
            (std::vector<std::pair<std::string, uint64_t>>{{"c", 77}, {"d", 77}}));
  EXPECT_FALSE(table.write(Id{1}, 0, "c"));
  expectError(Reason::bad_argument, [&] { table.write(Id{77}, 3, "ccc"); });
}

TEST_F(LayerKeys, FollowBatchesAndWriters) {
  const Names index(table, kKeys);
  const std::vector<std::string> many = {"a;", "b;", "a;"};
  table.append_all(many);
  EXPECT_EQ(idsOfRange(index.records("a")).size(), 2u);
  qvdb::BulkAppender bulk = table.appender();
  bulk.add(qvdb::NewRecord("c;"));
  EXPECT_FALSE(index.contains("c"));
  qvdb::RecordWriter writer = bulk.writer();
  writer.write("d");
  writer.write(";" + std::string(600'000, 'x'));
  writer.finish();
  EXPECT_FALSE(index.contains("d"));
  bulk.add(qvdb::NewRecord("c;"));
  EXPECT_FALSE(index.contains("d"));
  bulk.finish();
  EXPECT_TRUE(index.contains("c"));
  EXPECT_EQ(index.find("d")->size(), 600'002u);
  {
    qvdb::BulkAppender discarded = table.appender();
    discarded.add(qvdb::NewRecord("e;"));
  }
  qvdb::RecordWriter alone = table.writer();
  alone.write("f;");
  const Id id = alone.finish();
  EXPECT_EQ(index.find("f")->id(), id);
  EXPECT_FALSE(index.contains("e"));
  table.add("g;");
  EXPECT_FALSE(index.contains("e"));
  EXPECT_TRUE(index.contains("g"));
}

// Nothing but the file's own changes are noticed without being looked for, so an answer costs no
// walk.
TEST_F(LayerKeys, AnswerWithoutWalkingOverTheTable) {
  if (!platform::gathersTransfers()) GTEST_SKIP() << "each transfer is a system call of its own";
  for (int i = 0; i < 2'000; ++i) {
    table.add("key " + std::to_string(i) + ";" + std::string(300, 'x'));
  }
  const Names index(table, kKeys);
  RecordedCalls host;
  const auto readsOf = [&](auto&& lookup) {
    const int before = host.count(Call::read);
    lookup();
    return host.count(Call::read) - before;
  };
  EXPECT_LE(readsOf([&] { EXPECT_TRUE(index.contains("key 1234")); }), 3);
  EXPECT_LE(readsOf([&] { EXPECT_FALSE(index.contains("another")); }), 3);
  const Id id = table.add("added;");
  EXPECT_LE(readsOf([&] { EXPECT_EQ(index.find("added")->id(), id); }), 3);
  EXPECT_LE(readsOf([&] { EXPECT_FALSE(index.contains("another")); }), 3);
  const std::vector<std::string> more = {"one;", "two;"};
  table.append_all(more);
  EXPECT_TRUE(table.modify(id, "changed;" + std::string(300, 'x')));
  EXPECT_TRUE(table.remove(id));
  EXPECT_LE(readsOf([&] { EXPECT_TRUE(index.contains("two")); }), 3);
  EXPECT_LE(readsOf([&] { EXPECT_FALSE(index.contains("changed")); }), 5);
  EXPECT_LE(readsOf([&] { EXPECT_FALSE(index.contains("changed")); }), 3);
}

// Only by the count of writes the index can notice this: slot and length stay as they are.
TEST_F(LayerKeys, NoticeWhatTheCFunctionsChange) {
  const Id id = table.add("before;");
  for (int i = 0; i < 50; ++i) table.add("other;");
  const Names index(table, kKeys, {.ordered = true});
  EXPECT_TRUE(index.contains("before"));
  const std::string after = "after;";
  ASSERT_EQ(
      ModifyRecordData(database.handle(), table.id().value,
                       reinterpret_cast<const unsigned char*>(after.data()), 6, id.value, nullptr),
      1);
  EXPECT_FALSE(index.contains("before"));
  EXPECT_EQ(index.find("after")->id(), id);
  EXPECT_EQ(idsOfRange(index.prefix("af")), std::vector<uint64_t>{id.value});
  ASSERT_EQ(DeleteOneRecord(database.handle(), table.id().value, id.value, nullptr), 1);
  EXPECT_FALSE(index.contains("after"));
}

TEST_F(LayerKeys, AreOfNumbersBytesAndEnumerationsInTheirOrder) {
  enum class Colour : int8_t { red = -2, green = 0, blue = 5 };
  const auto number = [](std::span<const std::byte> payload) {
    int64_t value = 0;
    std::copy_n(payload.begin(), sizeof value, reinterpret_cast<std::byte*>(&value));
    return value;
  };
  const int64_t values[] = {0, -1, 1, INT64_MIN, INT64_MAX, -300, 300, 5, -2};
  for (const int64_t value : values) table.add(std::as_bytes(std::span(&value, 1)));
  const KeyIndex<int64_t> wide(table, number, {.ordered = true});
  std::vector<int64_t> found;
  auto all = wide.records();
  for (const auto& [key, record] : all) {
    found.push_back(key);
    EXPECT_EQ(number(record.loaded()), key);
  }
  EXPECT_EQ(found, (std::vector<int64_t>{INT64_MIN, -300, -2, -1, 0, 1, 5, 300, INT64_MAX}));
  EXPECT_EQ(idsOfRange(wide.range(-2, 5)).size(), 4u);
  EXPECT_EQ(idsOfRange(wide.range(5, -2)).size(), 0u);
  const KeyIndex<uint16_t> narrow(
      table, [&](std::span<const std::byte> p) { return static_cast<uint16_t>(number(p)); },
      {.ordered = true});
  EXPECT_EQ(number(narrow.find(300)->loaded()), 300);
  const KeyIndex<Colour> colours(table,
                                 [&](std::span<const std::byte> p) -> std::optional<Colour> {
                                   const int64_t value = number(p);
                                   if (value == -2 || value == 0 || value == 5)
                                     return static_cast<Colour>(value);
                                   return std::nullopt;
                                 },
                                 {.ordered = true});
  EXPECT_EQ(colours.size(), 3u);
  EXPECT_EQ(idsOfRange(colours.range(Colour::red, Colour::blue)).size(), 2u);
  const KeyIndex<std::vector<std::byte>> bytesOfAll(
      table, [](std::span<const std::byte> p) { return p; }, {.ordered = true});
  const int64_t five = 5;
  EXPECT_EQ(number(bytesOfAll.find(std::as_bytes(std::span(&five, 1)))->loaded()), 5);
}

TEST_F(LayerKeys, TakeAnyBytesForAKey) {
  const std::string huge(3'000'000, 'h');
  const std::vector<std::string> keys = {"",
                                         std::string(1, '\0'),
                                         std::string("\0\0", 2),
                                         "\xFF\xFF",
                                         "\xFF",
                                         "a",
                                         std::string("a\0", 2),
                                         huge,
                                         huge + "1",
                                         "12345678",
                                         "123456789",
                                         std::string("12345678\0", 9)};
  for (const std::string& key : keys) table.add(key + ";");
  const Names index(table, kKeys, {.ordered = true});
  for (size_t i = 0; i < keys.size(); ++i) {
    ASSERT_TRUE(index.find(keys[i]).has_value()) << i;
    EXPECT_EQ(textOf(*index.find(keys[i])), keys[i] + ";") << i;
  }
  std::vector<std::string> inOrder = keys;
  std::sort(inOrder.begin(), inOrder.end());
  std::vector<std::string> found;
  auto all = index.records();
  for (const auto& [key, record] : all) found.push_back(key);
  EXPECT_EQ(found, inOrder);
  EXPECT_EQ(idsOfRange(index.prefix("")).size(), keys.size());
  EXPECT_EQ(idsOfRange(index.prefix("\xFF")).size(), 2u);
  EXPECT_EQ(idsOfRange(index.prefix("12345678")).size(), 3u);
  EXPECT_EQ(idsOfRange(index.prefix("a")).size(), 2u);
}

TEST_F(LayerKeys, OfOneRecordCountOnceEach) {
  std::string text;
  for (int i = 0; i < 20'000; ++i) text += std::to_string(i % 5'000) + ";";
  const Id id = table.add(text);
  const Names index(table, kKeys, {.unique = true, .ordered = true});
  EXPECT_EQ(index.size(), 5'000u);
  EXPECT_TRUE(table.modify(id, text + "more;"));
  EXPECT_EQ(idsOfRange(index.records()).size(), 5'001u);
}

TEST_F(LayerKeys, ThatManyRecordsHaveAreAllFound) {
  std::vector<std::string> records;
  for (int i = 0; i < 20'000; ++i) records.push_back(i % 2 == 0 ? "even;" : "odd;");
  table.append_all(records);
  const Names index(table, kKeys);
  EXPECT_EQ(idsOfRange(index.records("odd")).size(), 10'000u);
  EXPECT_LE(index.bytes(), 20'000u * (24 + 9) + 4096);
  const std::vector<uint64_t> ids = idsOf(table);
  const qvdb::RecordIndex byIdentifier = table.index();
  for (size_t i = 0; i < ids.size(); i += 4) EXPECT_TRUE(table.remove(Id{ids[i]}));
  EXPECT_EQ(idsOfRange(index.records("even")).size(), 5'000u);
}

TEST_F(LayerKeys, Take24BytesForARecordAndSixtyMoreInOrder) {
  std::vector<std::string> records;
  for (int i = 0; i < 10'000; ++i) records.push_back(std::to_string(i * 7919 % 100'000) + ";");
  table.append_all(records);
  const Names plain(table, kKeys);
  EXPECT_GE(plain.bytes(), 10'000u * 16);
  EXPECT_LE(plain.bytes(), 10'000u * 24);
  const Names ordered(table, kKeys, {.ordered = true});
  EXPECT_LE(ordered.bytes(), 10'000u * 84);
}

TEST_F(LayerKeys, UnlessOrderedAreOnlyFoundExactly) {
  const Names index(table, kKeys);
  expectError(Reason::bad_argument, [&] { static_cast<void>(index.records()); });
  expectError(Reason::bad_argument, [&] { static_cast<void>(index.prefix("a")); });
  expectError(Reason::bad_argument, [&] { static_cast<void>(index.range("a", "b")); });
}

// ---- Unique indexes

using UniqueKeys = LayerKeys;

TEST_F(UniqueKeys, RefuseASecondRecordWithAKeyAndWriteNothing) {
  const Names index(table, kKeys, {.unique = true});
  const Id ada = table.add("ada@home;", 100);
  const Id bob = table.add("bob@home;bob@work;", 100);
  const Bytes before = contents();
  const std::string message = expectError(Reason::key_exists, [&] { table.add("new;bob@work;"); });
  EXPECT_NE(message.find(to_string(bob)), message.npos) << message;
  expectError(Reason::key_exists, [&] { table.add_with_id(Id{5}, "ada@home;"); });
  expectError(Reason::key_exists, [&] { table.modify(ada, "bob@home;"); });
  expectError(Reason::key_exists, [&] { table.modify(ada, "bob@home;" + std::string(200, 'x')); });
  expectError(Reason::key_exists, [&] { table.write(bob, 0, "ada"); });
  EXPECT_EQ(contents(), before);
  EXPECT_TRUE(table.modify(ada, "ada@home;moved"));
  EXPECT_TRUE(table.modify(ada, "ada@home;" + std::string(200, 'x')));
  EXPECT_TRUE(table.modify(ada, "ada@work;ada@home;" + std::string(400, 'x')));
  EXPECT_TRUE(table.write(bob, 0, "cob"));
  table.add("bob@home;");
  EXPECT_TRUE(table.remove(ada));
  table.add("ada@work;");
  EXPECT_EQ(index.find("ada@work")->size(), 9u);
}

TEST_F(UniqueKeys, RefuseKeysThatABatchHasAlready) {
  const Names index(table, kKeys, {.unique = true});
  const Id old = table.add("old;", 50);
  qvdb::BulkAppender bulk = table.appender();
  bulk.add(qvdb::NewRecord("a;"));
  expectError(Reason::key_exists, [&] { bulk.add(qvdb::NewRecord("b;a;")); });
  expectError(Reason::key_exists, [&] { bulk.add(qvdb::NewRecord("old;")); });
  expectError(Reason::key_exists, [&] { table.modify(old, "a;"); });
  EXPECT_TRUE(table.modify(old, "older;"));
  bulk.add(qvdb::NewRecord("b;"));
  bulk.add(qvdb::NewRecord("old;"));
  qvdb::RecordWriter writer = bulk.writer();
  writer.write("b;");
  expectError(Reason::key_exists, [&] { writer.finish(); });
  writer.discard();
  EXPECT_EQ(bulk.finish(), 3u);
  expectError(Reason::key_exists, [&] { table.add("b;"); });
  const std::vector<std::string> twice = {"c;", "d;", "c;"};
  expectError(Reason::key_exists, [&] { table.append_all(twice); });
  EXPECT_EQ(table.count(), 4u);
  table.add("c;");
  EXPECT_EQ(idsOfRange(index.records("c")).size(), 1u);
}

TEST_F(UniqueKeys, AreNotMadeOfATableThatHasAKeyTwice) {
  table.add("a;");
  const Id second = table.add("b;a;");
  const std::string message =
      expectError(Reason::key_exists, [&] { Names(table, kKeys, {.unique = true}); });
  EXPECT_NE(message.find(to_string(second)), message.npos) << message;
  EXPECT_TRUE(table.remove(second));
  const Names index(table, kKeys, {.unique = true});
  table.add("b;");
}

TEST_F(UniqueKeys, AreRefusedBesideOtherWriters) {
  database.close();
  qvdb::Database shared = openDatabase(Mode::shared);
  expectError(Reason::bad_argument, [&] { Names(shared.table("t"), kKeys, {.unique = true}); });
  const qvdb::Database reader = openDatabase(Mode::read_only);
  EXPECT_EQ(Names(reader.table("t"), kKeys, {.unique = true}).size(), 0u);
}

TEST_F(UniqueKeys, SeeWhatTheCFunctionsHaveAdded) {
  const Names index(table, kKeys, {.unique = true});
  table.add("a;");
  uint64_t added = 0;
  ASSERT_EQ(AddRecordData(database.handle(), table.id().value,
                          reinterpret_cast<const unsigned char*>("b;"), 2, 0, &added),
            1);
  expectError(Reason::key_exists, [&] { table.add("b;"); });
  table.add("c;");
}

// ---- Functions that throw, or call the library

TEST_F(LayerKeys, WhoseFunctionThrowsAreAReasonToWriteNothing) {
  const Names index(table, [](std::string_view text) {
    if (text.starts_with("!")) throw std::runtime_error("no key");
    return keysIn(text);
  });
  const Id id = table.add("a;");
  const Bytes before = contents();
  EXPECT_THROW(table.add("!"), std::runtime_error);
  EXPECT_THROW(table.modify(id, "!"), std::runtime_error);
  EXPECT_THROW(table.write(id, 0, "!"), std::runtime_error);
  const std::vector<std::string> many = {"b;", "!"};
  EXPECT_THROW(table.append_all(many), std::runtime_error);
  {
    qvdb::RecordWriter writer = table.writer();
    writer.write("!");
    EXPECT_THROW(writer.finish(), std::runtime_error);
  }
  EXPECT_EQ(contents(), before);
  table.add("c;");
  EXPECT_TRUE(index.contains("c"));
  EXPECT_FALSE(index.contains("b"));
  EXPECT_THROW(Names(table, [](std::string_view) -> std::string { throw std::logic_error("x"); }),
               std::logic_error);
  table.add("d;");
}

TEST_F(LayerKeys, WhoseFunctionThrowsInALookupAreAskedAgain) {
  bool isThrowing = false;
  const auto make = [&isThrowing](std::string_view text) {
    if (isThrowing && text.starts_with("c;")) throw std::runtime_error("not now");
    return keysIn(text);
  };
  const Names index(table, make, {.ordered = true});
  std::vector<uint64_t> ids;
  for (const char* text : {"a;", "b;", "c;", "d;", "e;"}) ids.push_back(table.add(text).value);
  isThrowing = true;
  EXPECT_THROW(static_cast<void>(index.find("c")), std::runtime_error);
  EXPECT_THROW(static_cast<void>(index.contains("c")), std::runtime_error);
  EXPECT_TRUE(index.contains("b"));

  // No record is skipped by the walk that goes on.
  qvdb::KeyRange<std::string> range = index.records();
  std::vector<uint64_t> seen;
  int thrown = 0;
  qvdb::KeyRange<std::string>::iterator record;
  const auto step = [&](auto&& go) {
    try {
      go();
    } catch (const std::runtime_error&) {
      isThrowing = ++thrown < 3;
      return false;
    }
    if (record != range.end()) seen.push_back(record->record.id().value);
    return true;
  };
  while (!step([&] { record = range.begin(); })) {
    ASSERT_LT(thrown, 4);
  }
  while (record != range.end() || isThrowing) {
    ASSERT_LT(seen.size() + static_cast<size_t>(thrown), 9u);
    step([&] { ++record; });
  }
  EXPECT_EQ(seen, ids);
  EXPECT_EQ(thrown, 3);
}

// Nothing of it is left, nor does it answer for what it has not seen.
TEST_F(LayerKeys, WhoseFunctionThrowsWhileTheyAreBuiltAgainAreBuiltOnceMore) {
  bool isThrowing = false;
  const Names index(table, [&isThrowing](std::string_view text) {
    if (isThrowing && text.starts_with("b;")) throw std::runtime_error("not now");
    return keysIn(text);
  });
  table.add("a;");
  const Id b = table.add("b;");
  database.close();
  database.reopen();  // it is to be built again
  isThrowing = true;
  EXPECT_THROW(static_cast<void>(index.contains("none")), std::runtime_error);
  EXPECT_THROW(static_cast<void>(index.contains("b")), std::runtime_error);
  table.add("c;");
  EXPECT_TRUE(index.contains("c"));
  isThrowing = false;
  EXPECT_EQ(index.find("b")->id(), b);
  EXPECT_TRUE(index.contains("a"));
  EXPECT_FALSE(index.contains("none"));
}

TEST_F(LayerKeys, WhoseFunctionCallsTheDatabaseAreAnsweredInIt) {
  table.add("seed;");
  std::optional<Names> index;
  int depth = 0;
  const auto make = [&](std::string_view text) {
    if (depth == 0 && text.starts_with("call")) {
      depth = 1;
      EXPECT_TRUE(index->contains("seed"));
      table.add("nested " + std::to_string(table.count()) + ";");
      std::thread([&] { EXPECT_EQ(table.first()->size(), 5u); }).join();
      depth = 0;
    }
    return keysIn(text);
  };
  index.emplace(table, make, qvdb::KeyIndexOptions{.unique = true});
  const Id id = table.add("call;");
  EXPECT_EQ(index->find("call")->id(), id);
  EXPECT_TRUE(index->contains("nested 1"));
  EXPECT_TRUE(table.modify(id, "call;again;" + std::string(100, 'x')));
  EXPECT_TRUE(index->contains("again"));
  EXPECT_EQ(idsOfRange(index->records("call")), std::vector<uint64_t>{id.value});
  expectError(Reason::key_exists, [&] { table.add("call;"); });
}

// The function of one index makes another one.
TEST_F(LayerKeys, AreMadeWhileOthersAreAsked) {
  std::optional<Names> second;
  const Names first(table, [&](std::string_view text) {
    if (!second && text.starts_with("x")) second.emplace(table, kKeys);
    return keysIn(text);
  });
  table.add("a;");
  table.add("x;");
  EXPECT_TRUE(second->contains("x"));
  EXPECT_TRUE(second->contains("a"));
  second.reset();
  table.add("b;");
  EXPECT_TRUE(first.contains("b"));
}

// ---- Lives of objects

TEST_F(LayerKeys, OutliveTheirDatabaseAndAreThenClosed) {
  table.add("a;");
  Names index(table, kKeys, {.ordered = true});
  auto range = index.records("a");
  database.close();
  expectError(Reason::not_open, [&] { static_cast<void>(index.find("a")); });
  expectError(Reason::not_open, [&] { range.begin(); });
  EXPECT_EQ(index.size(), 0u);
  EXPECT_EQ(index.bytes(), 0u);
  expectError(Reason::not_open, [&] { Names(table, kKeys); });
  database.reopen();
  EXPECT_TRUE(index.contains("a"));
  database = {};
  table = {};
  expectError(Reason::not_open, [&] { static_cast<void>(index.contains("a")); });
}

TEST_F(LayerKeys, ThatWereMovedFromAreNone) {
  table.add("a;");
  Names index(table, kKeys);
  const Names copy = index;
  const Names taken = std::move(index);
  EXPECT_TRUE(taken.contains("a"));
  EXPECT_TRUE(copy.contains("a"));
  const Names none;
  for (const Names* empty : {&none, static_cast<const Names*>(&index)}) {
    EXPECT_EQ(empty->size(), 0u);
    EXPECT_EQ(empty->bytes(), 0u);
    expectError(Reason::not_open, [&] { static_cast<void>(empty->find("a")); });
    expectError(Reason::not_open, [&] { static_cast<void>(empty->records("a")); });
  }
  expectError(Reason::not_open, [&] { Names(qvdb::Table(), kKeys); });
}

TEST_F(LayerKeys, AreNoLongerKeptOnceTheirLastHolderIsGone) {
  int calls = 0;
  {
    const Names index(table, [&](std::string_view text) {
      ++calls;
      return keysIn(text);
    });
    table.add("a;");
  }
  EXPECT_EQ(calls, 1);
  table.add("b;");
  EXPECT_EQ(calls, 1);
}

// A copy and a range hold the function; the database does not.
TEST_F(LayerKeys, HoldTheirFunctionAsLongAsTheirLastHolderLives) {
  const auto captured = std::make_shared<int>(1);
  const auto isHeld = [&captured] { return captured.use_count() > 1; };
  table.add("a;");
  std::optional<Names> index(std::in_place, table,
                             [captured](std::string_view text) { return keysIn(text); });
  std::optional<Names> copy = index;
  index.reset();
  EXPECT_TRUE(isHeld());
  std::optional<qvdb::KeyRange<std::string>> range(copy->records("a"));
  copy.reset();
  EXPECT_TRUE(isHeld());
  EXPECT_EQ(range->begin()->key, "a");
  range.reset();
  EXPECT_FALSE(isHeld());
  index.emplace(table, [captured](std::string_view text) { return keysIn(text); });
  database.close();
  EXPECT_TRUE(isHeld());
  *index = {};
  EXPECT_FALSE(isHeld());
}

TEST_F(LayerKeys, AreFoundInTheFileThatIsOpenedAgain) {
  const Id kept = table.add("kept;");
  const Id moved = table.add("gone;");
  for (int i = 0; i < 20; ++i) table.add(std::to_string(i) + ";");
  const Names index(table, kKeys, {.ordered = true});
  EXPECT_TRUE(table.remove(moved));
  EXPECT_TRUE(table.modify(kept, "kept;" + std::string(300, 'x')));
  qvdb::compact(path(), path("new"));
  const auto old = index.find("kept");
  database.close();
  std::filesystem::rename(path("new"), path());
  database.reopen();
  expectAgrees(index, keysOf(table), {"kept", "gone", "3", "19", "20"});
  expectError(Reason::changed_meanwhile, [&] { static_cast<void>(old->payload()); });
  database.close();
  createDatabase("other");
  std::filesystem::rename(path("other"), path());
  database.reopen();
  expectError(Reason::table_missing, [&] { static_cast<void>(index.contains("kept")); });
}

TEST_F(LayerKeys, AreNotMadeWhileABatchOfTheTableIsOpen) {
  qvdb::Table other = database.add_table("other");
  qvdb::BulkAppender bulk = table.appender();
  expectError(Reason::appender_open, [&] { Names(table, kKeys); });
  const Names index(other, kKeys);
  bulk.add(qvdb::NewRecord("a;"));
  bulk.finish();
  EXPECT_EQ(Names(table, kKeys).size(), 1u);
}

// ---- Damage and failures

TEST_F(LayerKeys, OfADamagedChainAreThoseBeforeTheDamage) {
  table.add("a;");
  table.add("b;");
  table.add("c;");
  const Names index(table, kKeys, {.ordered = true});
  const qvdb::RecordInfo info = table.find(index.find("b")->id())->info();
  allowDamage();
  const unsigned char zeros[8] = {};
  uint32_t count = 8;
  ASSERT_EQ(QVFile().QVSeekFile(database.handle(), 1, info.position + 39), 1);
  ASSERT_EQ(QVFile().QVWriteFile(database.handle(), zeros, count, &count), 1);
  EXPECT_TRUE(index.contains("a"));
  expectError(Reason::chain_damaged, [&] { static_cast<void>(index.contains("c")); });
  expectError(Reason::chain_damaged, [&] { static_cast<void>(index.contains("nothing")); });
  std::vector<std::string> delivered;
  expectError(Reason::chain_damaged, [&] {
    auto all = index.records();
    for (const auto& [key, record] : all) delivered.push_back(key);
  });
  EXPECT_EQ(delivered, (std::vector<std::string>{"a", "b"}));
  expectError(Reason::chain_damaged, [&] { Names(table, kKeys); });
}

// Each call of the host that a change makes fails once. Whatever became of the change, the index
// says what the walk says.
TEST_F(LayerKeys, SayWhatTheWalkSaysAfterChangesThatFailed) {
  const std::vector<std::string> keys = {"a", "b", "c", "d", "e", "nothing"};
  int files = 0;
  const auto tryAt = [&](int failing, auto&& change) {
    const std::string name = std::to_string(++files);
    allowDamage(name);
    qvdb::Database own = createDatabase(name);
    qvdb::Table changed = own.add_table("t");
    for (const char* text : {"a;", "b;c;", "e;"}) changed.add(text, 20);
    const Id id = changed.add("a;b;", 20);
    const Names index(changed, kKeys, {.ordered = true});
    {
      FakeHost host;
      host.failFrom(FakeHost::Call::write, failing);
      try {
        change(changed, id);
      } catch (const qvdb::Error&) {
      }
    }
    try {
      const auto model = keysOf(changed);
      expectAgrees(index, model, keys);
      expectOrderAgrees(index, model, "a", "z");
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), Reason::chain_damaged) << error.what();
    }
  };
  using qvdb::Table;
  for (int failing = 0; failing < 6; ++failing) {
    tryAt(failing, [](Table& t, Id) { t.add("c;"); });
    tryAt(failing, [](Table& t, Id id) { t.modify(id, "d;"); });
    tryAt(failing, [](Table& t, Id id) { t.write(id, 0, "e"); });
    tryAt(failing, [](Table& t, Id id) { t.modify(id, "d;" + std::string(50, 'x')); });
    tryAt(failing, [](Table& t, Id id) { t.remove(id); });
    tryAt(failing, [](Table& t, Id) { t.append_all(std::vector<std::string>{"c;", "d;", "e;"}); });
  }
}

TEST_F(LayerKeys, AreNotMissedBecauseAReadHasFailed) {
  for (int i = 0; i < 200; ++i) table.add(std::to_string(i) + ";" + std::string(3'000, 'x'));
  const Names index(table, kKeys);
  for (int failing = 0; failing < 6; ++failing) {
    FakeHost host;
    host.failFrom(FakeHost::Call::read, failing);
    try {
      EXPECT_TRUE(index.contains("150")) << failing;
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), Reason::cannot_read) << failing;
    }
    host.heal();
    EXPECT_TRUE(index.contains("150")) << failing;
  }
}

// ---- Random sequences against a model

struct Sequence {
  explicit Sequence(uint64_t seed) : random(seed) {}

  std::string anyKey() {
    return std::string(1 + random() % 2, static_cast<char>('a' + random() % 6));
  }
  std::string anyPayload() {
    std::string text;
    for (uint64_t i = random() % 3; i > 0; --i) text += anyKey() + ";";
    return text + std::string(random() % 60, 'x');
  }

  void step(qvdb::Table& table) {
    const std::vector<uint64_t> ids = LayerIds::of(table);
    const Id any = ids.empty() ? Id{1} : Id{ids[random() % ids.size()]};
    switch (random() % 9) {
      case 0:
      case 1:
        table.add(anyPayload(), static_cast<uint32_t>(random() % 40));
        break;
      case 2:
      case 3:
        table.modify(any, anyPayload());
        break;
      case 4:
        if (const auto record = table.find(any); record && record->size() > 0) {
          table.write(any, 0, std::string(1, static_cast<char>('a' + random() % 6)));
        }
        break;
      case 5:
        table.remove(any);
        break;
      case 6:
        table.append_all(std::vector<std::string>{anyPayload(), anyPayload(), anyPayload()});
        break;
      case 7:
        if (ids.size() > 60) {
          qvdb::erase_if(table, [&](const Record&) { return random() % 2 == 0; });
        }
        break;
      default:
        table.touch(any);
    }
  }

  struct LayerIds {
    static std::vector<uint64_t> of(const qvdb::Table& table) {
      std::vector<uint64_t> ids;
      for (const Record& record : table.records()) ids.push_back(record.id().value);
      return ids;
    }
  };

  std::mt19937_64 random;
};

const std::vector<std::string> kAllKeys = {"a",  "b",  "c",  "d",  "e",  "f", "aa",
                                           "bb", "cc", "dd", "ee", "ff", "g"};

TEST_F(LayerKeys, AgreeWithAModelThroughRandomChanges) {
  Sequence sequence(randomSeed());
  const Names plain(table, kKeys);
  const Names ordered(table, kKeys, {.ordered = true});
  const int steps = testEverything() ? 20'000 : 1'500;
  for (int i = 0; i < steps; ++i) {
    sequence.step(table);
    if (sequence.random() % 200 == 0) database.reopen();
    if (i % 5 != 0) continue;
    const auto model = keysOf(table);
    expectAgrees(plain, model, kAllKeys);
    expectAgrees(ordered, model, {kAllKeys[sequence.random() % kAllKeys.size()]});
    expectOrderAgrees(ordered, model, sequence.anyKey(), sequence.anyKey());
    expectOrderAgrees(ordered, model, "", "zz");
    if (HasFailure()) return;
  }
}

// The unique index allows exactly the changes that leave every key to one record.
TEST_F(UniqueKeys, RefuseExactlyWhatAModelRefuses) {
  Sequence sequence(randomSeed());
  const Names index(table, kKeys, {.unique = true});
  int refused = 0;
  for (int i = 0; i < 2'000; ++i) {
    const auto model = keysOf(table);
    const std::string payload = sequence.anyPayload();
    const std::vector<uint64_t> ids = idsOf(table);
    const Id any = ids.empty() ? Id{0} : Id{ids[sequence.random() % ids.size()]};
    const bool isAdd = ids.empty() || sequence.random() % 3 == 0;
    bool isTaken = false;
    for (const std::string& key : keysIn(payload)) {
      for (const uint64_t id : idsIn(model, key)) isTaken = isTaken || isAdd || id != any.value;
    }
    try {
      if (isAdd) {
        table.add(payload, 10);
      } else {
        EXPECT_TRUE(table.modify(any, payload));
      }
      EXPECT_FALSE(isTaken) << payload;
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), Reason::key_exists) << error.what();
      EXPECT_TRUE(isTaken) << payload;
      ++refused;
    }
    if (sequence.random() % 4 == 0 && !ids.empty()) table.remove(any);
    if (HasFailure()) return;
  }
  EXPECT_GT(refused, 100);
}

TEST_F(LayerKeys, StayBoundedInMemoryThroughChangesThatNobodyAsksAbout) {
  const Id id = table.add("0;", 100);
  const Names index(table, kKeys, {.ordered = true});
  for (int i = 0; i < 5'000; ++i) {
    EXPECT_TRUE(table.modify(id, std::to_string(i) + ";"));
    EXPECT_LE(index.size(), 1'100u + 1'100u);
  }
  EXPECT_EQ(index.find("4999")->id(), id);
  EXPECT_FALSE(index.contains("4998"));
  std::string many;
  for (int i = 0; i < 200; ++i) many += "many " + std::to_string(i) + ";";
  for (int i = 0; i < 200; ++i) {
    EXPECT_TRUE(table.remove(table.add(std::to_string(i) + many)));
    EXPECT_LE(index.size(), 4'000u);
  }
  EXPECT_EQ(idsOfRange(index.records()).size(), 1u);
}

// ---- Walks over ranges while the table changes

TEST_F(LayerKeys, AreDeliveredOnceEachWhileRecordsMove) {
  std::vector<uint64_t> lasting;
  for (int i = 0; i < 500; ++i) lasting.push_back(table.add(i % 2 == 0 ? "k;" : "k;l;").value);
  const Names index(table, kKeys, {.ordered = true});
  for (const bool isExact : {true, false}) {
    std::vector<uint64_t> delivered;
    auto range = isExact ? index.records("k") : index.range("k", "l");
    int step = 0;
    for (const auto& [key, record] : range) {
      delivered.push_back(record.id().value);
      const auto any = static_cast<size_t>(++step * 37) % lasting.size();
      const std::string text = std::string("k;") + (any % 2 == 0 ? "" : "l;");
      EXPECT_TRUE(
          table.modify(Id{lasting[any]}, text + std::string(static_cast<size_t>(step), 'x')));
      if (step > 2'000) break;
    }
    EXPECT_EQ(sorted(delivered), sorted(lasting)) << isExact;
  }
}

// ---- Beside other processes

class KeysBesideWriters : public LayerTest {
 protected:
  KeysBesideWriters() : writer_(createDatabase()), written_(writer_.add_table("t")) {
    for (int i = 0; i < 300; ++i) ids_.push_back(written_.add(std::to_string(i) + ";", 40));
  }

  qvdb::Database writer_;
  qvdb::Table written_;
  std::vector<Id> ids_;
};

TEST_F(KeysBesideWriters, FollowWhatAnotherOpenerDoes) {
  const qvdb::Database reader = openDatabase(Mode::read_only);
  const Names index(reader.table("t"), kKeys, {.ordered = true});
  const auto expectEqual = [&] {
    const auto model = keysOf(written_);
    expectAgrees(index, model, {"0", "7", "new", "moved", "changed", "299", "nothing"});
    expectOrderAgrees(index, model, "2", "4");
  };
  expectEqual();
  written_.add("new;");
  expectEqual();
  EXPECT_TRUE(written_.modify(ids_[7], "changed;"));
  expectEqual();
  EXPECT_TRUE(written_.modify(ids_[7], "changed;moved;" + std::string(100, 'x')));
  expectEqual();
  EXPECT_TRUE(written_.remove(ids_[299]));
  expectEqual();
  written_.append_all(std::vector<std::string>{"nothing;", "7;"});
  expectEqual();
}

TEST_F(KeysBesideWriters, AreFoundAtTheTablesEndWithoutAWalk) {
  if (!platform::gathersTransfers()) GTEST_SKIP() << "each transfer is a system call of its own";
  for (int i = 0; i < 300; ++i) written_.add(std::to_string(i) + ";" + std::string(3'000, 'x'));
  const qvdb::Database reader = openDatabase(Mode::read_only);
  const Names index(reader.table("t"), kKeys);
  for (int i = 0; i < 5; ++i) {
    const std::string key = "added " + std::to_string(i);
    written_.add(key + ";");
    RecordedCalls host;
    EXPECT_TRUE(index.contains(key));
    EXPECT_LE(host.count(Call::read), 25) << "a walk takes hundreds";
  }
}

TEST_F(KeysBesideWriters, OfAReaderFollowItsDatabase) {
  const qvdb::Reader reader = writer_.reader();
  const Names index(reader.table("t"), kKeys, {.ordered = true});
  Sequence sequence(randomSeed());
  for (int i = 0; i < 200; ++i) {
    sequence.step(written_);
    const auto model = keysOf(written_);
    expectAgrees(index, model, {"5", "a", "b", "cc", "nothing"});
    expectOrderAgrees(index, model, "a", "d");
    if (HasFailure()) return;
  }
}

TEST_F(KeysBesideWriters, OfSharedWritersKnowWhatEachDoes) {
  writer_.close();
  qvdb::Database first = openDatabase(Mode::shared);
  qvdb::Database second = openDatabase(Mode::shared);
  qvdb::Table tables[] = {first.table("t"), second.table("t")};
  const Names one(tables[0], kKeys, {.ordered = true});
  const Names two(tables[1], kKeys);
  Sequence sequence(randomSeed());
  for (int i = 0; i < 150; ++i) {
    sequence.step(tables[i % 2]);
    const auto model = keysOf(tables[0]);
    expectAgrees(one, model, {"5", "a", "b", "cc", "nothing"});
    expectAgrees(two, model, {"5", "a", "b", "cc", "nothing"});
    expectOrderAgrees(one, model, "a", "d");
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace qvdbase::test

// What the layer's small types take, show and compare: bytes and text, identifiers, reasons, times,
// tables and records.
#include <array>
#include <chrono>
#include <sstream>
#include <type_traits>
#include <unordered_set>

#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::ByteView;
using qvdb::Id;
using qvdb::NewRecord;
using qvdb::Reason;

size_t sizeOf(ByteView bytes) {
  return bytes.size();
}

TEST(ByteView, TakesEveryContiguousRangeOfBytes) {
  EXPECT_EQ(sizeOf(std::string("hello")), 5u);
  EXPECT_EQ(sizeOf(std::string_view("hello").substr(1)), 4u);
  EXPECT_EQ(sizeOf(std::vector<std::byte>(7)), 7u);
  EXPECT_EQ(sizeOf(std::vector<uint8_t>(8)), 8u);
  EXPECT_EQ(sizeOf(std::array<char, 4>{}), 4u);
  EXPECT_EQ(sizeOf(std::array<signed char, 4>{}), 4u);
  unsigned char raw[5] = {};
  EXPECT_EQ(sizeOf(raw), 5u);
  EXPECT_EQ(sizeOf(std::span(raw).first(2)), 2u);
  EXPECT_EQ(sizeOf({}), 0u);
  const std::vector<std::byte> bytes(3, std::byte{9});
  const ByteView view(bytes);
  EXPECT_EQ(view.data(), bytes.data());
  EXPECT_EQ(sizeOf(view), 3u);
}

TEST(ByteView, TakesTextWithoutTheZeroAtItsEnd) {
  EXPECT_EQ(sizeOf("abc"), 3u);
  EXPECT_EQ(sizeOf(""), 0u);
  EXPECT_EQ(sizeOf("a\0b"), 3u);
  EXPECT_EQ(sizeOf(u8"abc"), 3u);
  static const char kSignature[4] = {'Q', 'V', 'd', 'b'};
  EXPECT_EQ(sizeOf(kSignature), 4u);
  const char* const text = "abc\0def";
  EXPECT_EQ(sizeOf(text), 3u);
}

template <typename T>
constexpr bool isTaken = std::is_convertible_v<T, ByteView>;

static_assert(isTaken<const char (&)[4]> && isTaken<unsigned char (&)[4]>);
static_assert(!isTaken<char (&)[4]>, "whether its text or all of it is meant is not said");
static_assert(!isTaken<std::vector<int>> && !isTaken<std::vector<bool>> && !isTaken<bool (&)[4]>);
static_assert(!isTaken<int> && !isTaken<std::nullptr_t>);
static_assert(std::is_convertible_v<const char (&)[4], NewRecord>);
static_assert(std::is_convertible_v<std::string, NewRecord>);

using LayerValues = LayerTest;

TEST_F(LayerValues, TextIsStoredWithoutItsZero) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id id = table.add("text");
  EXPECT_EQ(bytes(table.get(id)), bytesOf("text"));
  table.modify(id, std::string("longer text"));
  EXPECT_EQ(bytes(table.get(id)), bytesOf("longer text"));
  table.write(id, 7, "word");
  EXPECT_EQ(bytes(table.get(id)), bytesOf("longer word"));
  table.set_data("data");
  EXPECT_EQ(bytes(table.data()), bytesOf("data"));
  EXPECT_EQ(table.append_all(std::vector<std::string>{"a", "bc"}), 2u);
  auto bulk = table.appender();
  bulk.add("d");
  bulk.finish();
  EXPECT_EQ(table.count(), 4u);
}

template <typename T>
std::string shown(T value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

TEST(LayerWords, AreWrittenToStreams) {
  EXPECT_EQ(shown(Id{0x1f}), "0x000000000000001f");
  EXPECT_EQ(shown(Reason::appender_open), "an appender is open");
  EXPECT_EQ(shown(Reason::changed_meanwhile), "changed meanwhile");
  EXPECT_EQ(shown(Reason::opened_elsewhere), "opened by another process");
  EXPECT_EQ(shown(qvdb::Severity::warning), "warning");
}

// Identifiers that the multiplication of a well-known hash would all bring to one bucket.
TEST(LayerWords, IdentifiersSpreadOverBucketsThatWereChosenForThem) {
  const auto wellKnown = [](uint64_t value) {
    return static_cast<size_t>((value ^ (value >> 32)) * 0x9E3779B97F4A7C15u);
  };
  std::unordered_set<Id> set;
  set.reserve(4096);
  const size_t buckets = set.bucket_count();
  for (uint64_t value = 1; set.size() < 1000; ++value) {
    if (wellKnown(value) % buckets == 7) set.insert(Id{value});
  }
  size_t most = 0;
  for (size_t i = 0; i < buckets; ++i) most = std::max(most, set.bucket_size(i));
  EXPECT_LT(most, 20u);
}

TEST_F(LayerValues, TimesArePointsInTime) {
  RecordedCalls host;
  host.setTime(1'000'000'000);
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id id = table.add("x");
  host.setTime(4'000'000'000);
  table.touch(id);
  const qvdb::RecordInfo info = table.find(id)->info();
  using namespace std::chrono;
  EXPECT_EQ(info.created(), sys_days{year{2001} / 9 / 9} + 1h + 46min + 40s);
  EXPECT_EQ(info.modified(), sys_seconds{seconds{4'000'000'000}});
}

TEST_F(LayerValues, TablesAndRecordsAreEqualWhenTheyAreTheSame) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  auto other = database.add_table("other");
  EXPECT_EQ(table, database.table("t"));
  EXPECT_NE(table, other);
  const Id id = table.add("x");
  other.add_with_id(id, "x");
  EXPECT_EQ(table.find(id), table.find(id));
  EXPECT_NE(table.find(id), other.find(id));
  const auto before = table.find(id);
  table.modify(id, "longer");
  EXPECT_NE(table.find(id), before);
  EXPECT_EQ(qvdb::Record(), qvdb::Record());
}

TEST_F(LayerValues, ATableMadeWithoutADatabaseIsNotOpen) {
  qvdb::Table table;
  EXPECT_EQ(table, qvdb::Table());
  EXPECT_EQ(table.name(), "");
  EXPECT_EQ(table.id(), Id{});
  const auto refused = [](auto operation) { expectError(Reason::not_open, operation); };
  refused([&] { table.count(); });
  refused([&] { table.info(); });
  refused([&] { table.find(Id{1}); });
  refused([&] { table.get(Id{1}); });
  refused([&] { table.contains(Id{1}); });
  std::byte buffer[1];
  refused([&] { table.get(Id{1}, buffer); });
  refused([&] { table.add("x"); });
  refused([&] { table.modify(Id{1}, "x"); });
  refused([&] { table.write(Id{1}, 0, "x"); });
  refused([&] { table.touch(Id{1}); });
  refused([&] { table.remove(Id{1}); });
  refused([&] { table.remove(qvdb::Record()); });
  refused([&] { table.set_data("x"); });
  refused([&] { table.data(); });
  refused([&] { table.index(); });
  refused([&] { table.appender(); });
  refused([&] { table.writer(); });
  refused([&] { table.append_all(std::vector<std::string>{"x"}); });
  refused([&] { idsOf(table); });
  refused([&] { qvdb::Record().payload(); });
  auto database = createDatabase();
  table = database.add_table("t");
  table.add("x");
  EXPECT_EQ(table.count(), 1u);
}

TEST_F(LayerValues, TablesAreFoundOrAdded) {
  auto database = createDatabase();
  EXPECT_FALSE(database.contains("t"));
  const qvdb::Table added = database.find_or_add_table("t");
  EXPECT_TRUE(database.contains("t"));
  EXPECT_TRUE(database.contains(added.id()));
  EXPECT_FALSE(database.contains(Id{1}));
  expectUnchanged([&] { EXPECT_EQ(database.find_or_add_table("t"), added); });
  expectError(Reason::bad_name, [&] { database.find_or_add_table(""); });
  auto table = added;
  const Id id = table.add("x");
  EXPECT_TRUE(table.contains(id));
  EXPECT_FALSE(table.contains(Id{1}));
}

}  // namespace
}  // namespace qvdbase::test

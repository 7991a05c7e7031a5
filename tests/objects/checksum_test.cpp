// Payloads with a checksum: what the layer writes, and what it notices.
#include <qvdbase/qvdbase.h>

#include <fstream>
#include <functional>
#include <limits>

#include "kit/fake_host.h"
#include "objects/layer_fixture.h"
#include "support/xxh3.h"

namespace qvdbase::test {
namespace {

using qvdb::Checksum;
using qvdb::Database;
using qvdb::Id;
using qvdb::NewRecord;
using qvdb::PayloadState;
using qvdb::Reason;

constexpr uint64_t kRecord = 0xA1A2A3A4A5A6A7A8;

// The 28 bytes, from the format's description.
Bytes checksumOf(uint64_t table, uint64_t record, uint32_t time, const Bytes& payload) {
  Bytes hashed = payload;
  hashed.be(8, table);
  hashed.be(8, record);
  hashed.be(4, time);
  hashed.be(4, payload.size());
  const support::Hash128 hash = support::xxh3_128(hashed.data(), hashed.size());
  Bytes sum = hex("C5515663");
  sum.be(4, time);
  sum.be(4, payload.size());
  sum.be(8, hash.high);
  sum.be(8, hash.low);
  return sum;
}

class LayerChecksums : public LayerTest {
 protected:
  // The bytes of the capacity of a record.
  Bytes capacityOf(const qvdb::RecordInfo& info) const {
    std::ifstream file(path(), std::ios::binary);
    Bytes read(info.capacity);
    file.seekg(info.data_position);
    file.read(reinterpret_cast<char*>(read.data()), static_cast<std::streamsize>(read.size()));
    return read;
  }

  // What they are to be: the payload, zeros, and the checksum.
  static Bytes expectedCapacity(const qvdb::Table& table, const qvdb::RecordInfo& info,
                                const Bytes& payload) {
    Bytes expected = payload;
    expected.resize(info.capacity - 28, 0);
    expected.add(checksumOf(table.id().value, info.id.value, info.modify_time, payload));
    return expected;
  }

  void expectProtected(const qvdb::Table& table, Id id, const Bytes& payload) const {
    const auto record = table.find(id);
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(bytes(record->payload()), payload);
    EXPECT_EQ(record->verify(), PayloadState::verified);
    const Bytes sum = checksumOf(table.id().value, id.value, record->info().modify_time, payload);
    const Bytes end = capacityOf(record->info());
    EXPECT_TRUE(sameBytes(end.at(end.size() - 28, 28), sum));
  }

  // Flips a bit of the payload of a record, in the file of a database that is closed.
  void rot(int64_t at, uint8_t bit = 1) {
    Bytes byte = contents().at(static_cast<size_t>(at), 1);
    byte[0] = static_cast<uint8_t>(byte[0] ^ bit);
    patchFile(path(), static_cast<uint64_t>(at), byte);
  }

  // A database with one table and one record with a checksum, closed. Returns where its payload is.
  int64_t makeOne(const Bytes& payload, uint32_t reserve = 0) {
    auto database = createDatabase();
    auto table = database.add_table("t");
    table.add_with_id(Id{kRecord}, span(payload), reserve, Checksum::yes);
    return table.find(Id{kRecord})->info().data_position;
  }

  // The same with a payload that has rotted, open.
  Database openRotten(const Bytes& payload, uint32_t reserve = 0) {
    rot(makeOne(payload, reserve) + static_cast<int64_t>(payload.size() / 2));
    return openDatabase();
  }
};

TEST_F(LayerChecksums, AreTheLastBytesOfTheCapacity) {
  FakeHost host;
  host.setTime(5000);
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Bytes text = bytesOf("some text");
  const Id one = table.add("some text", Checksum::yes);
  const Id other = table.add("some text", 100, Checksum::yes);
  const auto first = table.find(one)->info();
  const auto second = table.find(other)->info();
  EXPECT_EQ(first.capacity, 9u + 32u);
  EXPECT_EQ(second.capacity, 100u + 32u);
  EXPECT_EQ(first.size, 9u);
  EXPECT_EQ(first.modify_time, 5000u);
  EXPECT_TRUE(sameBytes(capacityOf(first), expectedCapacity(table, first, text)));
  EXPECT_TRUE(sameBytes(capacityOf(second), expectedCapacity(table, second, text)));
}

TEST_F(LayerChecksums, AreNotThereUnlessTheyAreAskedFor) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const auto record = table.find(table.add("some text", 100));
  EXPECT_EQ(record->info().capacity, 100u);
  EXPECT_EQ(record->verify(), PayloadState::unprotected);
  EXPECT_EQ(capacityOf(record->info()).at(9, 91), Bytes().fill(91, 0));
  EXPECT_EQ(table.checksum(), Checksum::no);
}

TEST_F(LayerChecksums, FollowTheDefaultOfTheTableThenOfTheDatabase) {
  createDatabase().add_table("t");
  auto database = Database::open(path(), {.mode = qvdb::Mode::exclusive, .checksums = true});
  auto table = database.table("t");
  auto other = database.add_table("other");
  const auto stateOf = [](const qvdb::Table& in, Id id) { return in.find(id)->verify(); };
  EXPECT_EQ(table.checksum(), Checksum::yes);
  EXPECT_EQ(stateOf(table, table.add("a")), PayloadState::verified);
  EXPECT_EQ(stateOf(table, table.add("a", Checksum::no)), PayloadState::unprotected);
  database.table("t").set_checksum(Checksum::no);
  EXPECT_EQ(table.checksum(), Checksum::no);
  EXPECT_EQ(stateOf(table, table.add("a")), PayloadState::unprotected);
  EXPECT_EQ(stateOf(table, table.add("a", Checksum::yes)), PayloadState::verified);
  EXPECT_EQ(stateOf(other, other.add("a")), PayloadState::verified);
  database.reopen();
  EXPECT_EQ(table.checksum(), Checksum::no);
  table.set_checksum(Checksum::by_default);
  EXPECT_EQ(stateOf(table, table.add("a")), PayloadState::verified);
  expectError(Reason::not_open, [] { qvdb::Table().set_checksum(Checksum::yes); });
  expectError(Reason::not_open, [] { static_cast<void>(qvdb::Table().checksum()); });
}

TEST_F(LayerChecksums, AreAddedByBatchesAndWriters) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  // A block in a piece, one at its border, and ones that no piece holds.
  for (const size_t size : {size_t{0}, size_t{1}, size_t{1000}, size_t{262144 - 56 - 32},
                            size_t{262144 - 56 - 31}, size_t{262144 - 56}, size_t{700000}}) {
    SCOPED_TRACE(size);
    const Bytes payload = pattern(size);
    auto bulk = table.appender();
    const Id before = bulk.add("before");
    const Id added = bulk.add(NewRecord(span(payload), 0, std::nullopt, Checksum::yes));
    const Id reserved = bulk.add(NewRecord(span(payload), 300000, std::nullopt, Checksum::yes));
    auto writer = bulk.writer(0, std::nullopt, Checksum::yes);
    for (size_t done = 0; done < size; done += 5000) {
      writer.write(span(payload).subspan(done, std::min<size_t>(5000, size - done)));
    }
    const Id written = writer.finish();
    auto whole = bulk.writer(10, std::nullopt, Checksum::yes);
    whole.write(span(payload));
    const Id writtenAtOnce = whole.finish();
    bulk.finish();
    auto alone = table.writer(0, std::nullopt, Checksum::yes);
    alone.write(span(payload));
    const Id writtenAlone = alone.finish();
    EXPECT_EQ(table.find(before)->verify(), PayloadState::unprotected);
    for (const Id id : {added, reserved, written, writtenAtOnce, writtenAlone}) {
      expectProtected(table, id, payload);
    }
    EXPECT_EQ(table.find(added)->info().capacity, size + 32);
    EXPECT_EQ(table.find(written)->info().capacity, size + 32);
  }
  table.set_checksum(Checksum::yes);
  table.append_all(std::vector<std::string>{"a", "b"});
  EXPECT_EQ(table.last()->verify(), PayloadState::verified);
}

TEST_F(LayerChecksums, LeaveALittleLessForThePayload) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Bytes one(1, 'x');
  constexpr size_t kMost = std::numeric_limits<uint32_t>::max();
  const std::span<const std::byte> tooLong(span(one).data(), kMost - 31);
  EXPECT_NE(expectError(Reason::too_large, [&] { table.add(tooLong, Checksum::yes); })
                .find("4,294,967,263 are the most with a checksum"),
            std::string::npos);
  auto bulk = table.appender();
  expectError(Reason::too_large,
              [&] { bulk.add(NewRecord(tooLong, 0, std::nullopt, Checksum::yes)); });
  auto writer = bulk.writer(0, std::nullopt, Checksum::yes);
  writer.write("1");
  const std::span<const std::byte> rest(span(one).data(), kMost - 32);
  expectError(Reason::too_large, [&] { writer.write(rest); });
  writer.write("2");
  expectError(Reason::too_large,
              [&] { table.modify(Id{1}, std::span(span(one).data(), kMost + 1)); });
  const Id id = writer.finish();
  bulk.finish();
  expectProtected(table, id, bytesOf("12"));
}

// ---- Reading

// All ways to read a whole payload.
std::vector<std::pair<const char*, std::function<void(Database&)>>> waysToRead() {
  using qvdb::Load;
  using qvdb::Order;
  const auto table = [](Database& database) { return database.table("t"); };
  const auto walk = [](const qvdb::Table& in, const qvdb::WalkOptions& options) {
    for (const qvdb::Record& record : in.records(options)) static_cast<void>(record);
  };
  return {
      {"payload", [=](Database& d) { static_cast<void>(table(d).find(Id{kRecord})->payload()); }},
      {"require_sound", [=](Database& d) { table(d).find(Id{kRecord})->require_sound(); }},
      {"read",
       [=](Database& d) {
         std::vector<std::byte> buffer(1000);
         table(d).find(Id{kRecord})->read(0, buffer);
       }},
      {"get", [=](Database& d) { static_cast<void>(table(d).get(Id{kRecord})); }},
      {"get with an index",
       [=](Database& d) {
         const auto index = table(d).index();
         static_cast<void>(table(d).get(Id{kRecord}));
       }},
      {"get with a cache",
       [=](Database& d) {
         const auto index = table(d).index();
         const auto cache = d.cache();
         static_cast<void>(table(d).get(Id{1}));
         static_cast<void>(table(d).get(Id{kRecord}));
       }},
      {"get into a buffer with a cache",
       [=](Database& d) {
         const auto index = table(d).index();
         const auto cache = d.cache();
         std::vector<std::byte> buffer(9);
         static_cast<void>(table(d).get(Id{1}, buffer));
         static_cast<void>(table(d).get(Id{kRecord}, buffer));
       }},
      {"get into a buffer",
       [=](Database& d) {
         std::vector<std::byte> buffer(9);
         static_cast<void>(table(d).get(Id{kRecord}, buffer));
       }},
      {"get_many",
       [=](Database& d) {
         const std::vector<Id> ids = {Id{1}, Id{kRecord}};
         table(d).get_many(ids, [](size_t, auto) {});
       }},
      {"walk", [=](Database& d) { walk(table(d), {.load = Load::payloads}); }},
      {"walk back",
       [=](Database& d) {
         walk(table(d), {.order = Order::newest_first, .load = Load::payloads});
       }},
      {"walk with a cache",
       [=](Database& d) {
         const auto cache = d.cache();
         walk(table(d), {.load = Load::payloads});
       }},
      {"walk over first bytes that are all",
       [=](Database& d) { walk(table(d), {.load = qvdb::first_bytes(9)}); }},
      {"walk from it",
       [=](Database& d) {
         const auto record = table(d).find(Id{kRecord});
         walk(table(d), {.from = *record, .load = Load::payloads});
       }},
      {"key index",
       [=](Database& d) {
         const qvdb::KeyIndex<std::string> keys(
             table(d), [](std::string_view text) { return text.substr(0, 4); });
         static_cast<void>(keys.find("some"));
       }},
      {"reader", [=](Database& d) { static_cast<void>(d.reader().table("t").get(Id{kRecord})); }},
  };
}

// The record is in the middle of a few, or of many small ones, which a walk reads in large pieces.
void fillAround(qvdb::Table& table, const Bytes& payload, int beside) {
  for (int i = 1; i <= beside; ++i) {
    table.add_with_id(Id{static_cast<uint64_t>(i)}, "one beside", 0, Checksum::yes);
  }
  table.add_with_id(Id{kRecord}, span(payload), 0, Checksum::yes);
  for (int i = 1; i <= beside; ++i) {
    table.add_with_id(Id{static_cast<uint64_t>(1000 + i)}, "one beside");
  }
}

TEST_F(LayerChecksums, AreComparedByAllThatReadsAWholePayload) {
  const Bytes text = bytesOf("some text");
  for (const int beside : {2, 300}) {
    std::filesystem::remove(path());
    int64_t at = 0;
    {
      auto database = createDatabase();
      auto table = database.add_table("t");
      fillAround(table, text, beside);
      at = table.find(Id{kRecord})->info().data_position;
    }
    for (const auto& [name, read] : waysToRead()) {
      SCOPED_TRACE(name);
      auto database = openDatabase();
      EXPECT_NO_THROW(read(database));
    }
    rot(at + 4);
    for (const auto& [name, read] : waysToRead()) {
      SCOPED_TRACE(name);
      auto database = openDatabase();
      const auto error = errorOf([&, way = read] { way(database); });
      ASSERT_TRUE(error.has_value());
      EXPECT_EQ(error->reason(), Reason::payload_damaged) << error->what();
      EXPECT_EQ(error->remedy(), qvdb::Remedy::restore_payload);
      EXPECT_EQ(error->position(), at - 55);
      const std::string why = error->what();
      EXPECT_NE(why.find(qvdb::to_string(Id{kRecord})), std::string::npos) << why;
      EXPECT_NE(why.find("does not agree with its checksum"), std::string::npos) << why;
    }
  }
}

TEST_F(LayerChecksums, LetAWalkDeliverTheRecordsBefore) {
  int64_t at = 0;
  {
    auto database = createDatabase();
    auto table = database.add_table("t");
    fillAround(table, bytesOf("some text"), 300);
    at = table.find(Id{kRecord})->info().data_position;
  }
  rot(at);
  auto database = openDatabase();
  int delivered = 0;
  expectError(Reason::payload_damaged, [&] {
    for (const qvdb::Record& record : database.table("t").records(qvdb::Load::payloads)) {
      EXPECT_EQ(bytes(record.loaded()), bytesOf("one beside"));
      ++delivered;
    }
  });
  EXPECT_EQ(delivered, 300);
  delivered = 0;
  for (const qvdb::Record& record : database.table("t").records()) {
    static_cast<void>(record);
    ++delivered;
  }
  EXPECT_EQ(delivered, 601);
}

TEST_F(LayerChecksums, AreNotComparedByReadsOfAPart) {
  const auto database = openRotten(bytesOf("some text"));
  const auto record = database.table("t").find(Id{kRecord});
  std::vector<std::byte> part(8);
  EXPECT_EQ(record->read(0, part), 8u);
  EXPECT_EQ(record->read(1, part), 8u);
  EXPECT_EQ(database.table("t").get(Id{kRecord}, part), 9u);
  for (const qvdb::Record& each : database.table("t").records({.load = qvdb::first_bytes(8)})) {
    EXPECT_EQ(each.loaded().size(), 8u);
  }
  EXPECT_EQ(record->verify(), PayloadState::rotten);
}

TEST_F(LayerChecksums, AreVerifiedPieceByPiece) {
  const Bytes payload = pattern(300001);
  const int64_t at = makeOne(payload, 400000);
  EXPECT_EQ(openDatabase().table("t").find(Id{kRecord})->verify(), PayloadState::verified);
  rot(at + 300000, 0x80);
  EXPECT_EQ(openDatabase().table("t").find(Id{kRecord})->verify(), PayloadState::rotten);
}

// As payload() does: neither is damage.
TEST_F(LayerChecksums, AreRequiredToBeSoundOnlyWhereTheySayOtherwise) {
  makeOne(pattern(300001), 400000);
  auto database = openDatabase();
  auto table = database.table("t");
  const Id unprotected = table.add(span(pattern(1000)), 0, Checksum::no);
  table.find(unprotected)->require_sound();
  const Bytes shorter = pattern(2000, 3);
  ASSERT_EQ(ModifyRecordData(database.handle(), table.id().value, shorter.data(),
                             static_cast<uint32_t>(shorter.size()), kRecord, nullptr),
            1);
  const auto changed = table.find(Id{kRecord});
  EXPECT_EQ(changed->verify(), PayloadState::changed_elsewhere);
  changed->require_sound();
  table.remove(unprotected);
  table.add(std::string(2000, 'x'));
  EXPECT_NO_THROW(changed->require_sound());
}

// ---- Changes

TEST_F(LayerChecksums, StayRightThroughChangesInPlace) {
  FakeHost host;
  host.setTime(5000);
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id id = table.add("some text", 30, Checksum::yes);
  const int64_t position = table.find(id)->info().position;
  uint32_t now = 5000;
  // The times of the changes are those of the host.
  const auto expectNow = [&](const char* text) {
    EXPECT_EQ(table.find(id)->info().position, position);
    EXPECT_EQ(table.find(id)->info().modify_time, now);
    expectProtected(table, id, bytesOf(text));
  };
  for (const uint32_t later : {0u, 1u}) {
    host.setTime(now += later);
    ASSERT_TRUE(table.modify(id, "other"));
    expectNow("other");
    ASSERT_TRUE(table.modify(id, "some more of the text now"));
    expectNow("some more of the text now");
    ASSERT_TRUE(table.write(id, 5, "MORE"));
    expectNow("some MORE of the text now");
    ASSERT_TRUE(table.write(*table.find(id), 0, "all of it, all of it, all"));
    expectNow("all of it, all of it, all");
    ASSERT_TRUE(table.touch(id));
    expectNow("all of it, all of it, all");
    ASSERT_TRUE(table.modify(id, ""));
    expectNow("");
    ASSERT_TRUE(table.write(id, 0, ""));
    expectNow("");
  }
}

TEST_F(LayerChecksums, AreWrittenOverAPartOfALargePayload) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  Bytes payload = pattern(200000);
  const Id id = table.add(span(payload), Checksum::yes);
  // At the borders of the pieces of 64 KiB in which it is read again.
  for (const size_t at :
       {size_t{0}, size_t{65535}, size_t{65536}, size_t{131000}, size_t{199990}}) {
    const Bytes part = bytesOf("0123456789");
    std::copy(part.begin(), part.end(), payload.begin() + static_cast<ptrdiff_t>(at));
    ASSERT_TRUE(table.write(id, at, span(part)));
    expectProtected(table, id, payload);
  }
  ASSERT_TRUE(table.write(id, 10, span(pattern(150000, 7))));
  const Bytes other = pattern(150000, 7);
  std::copy(other.begin(), other.end(), payload.begin() + 10);
  expectProtected(table, id, payload);
}

TEST_F(LayerChecksums, GoAlongToANewBlock) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id id = table.add("some text", Checksum::yes);
  const int64_t position = table.find(id)->info().position;
  // 13 bytes leave 28 of the 41; with 14 there would be no space for the checksum.
  ASSERT_TRUE(table.modify(id, "thirteen byte"));
  EXPECT_EQ(table.find(id)->info().position, position);
  ASSERT_TRUE(table.modify(id, "fourteen bytes"));
  const auto moved = table.find(id)->info();
  EXPECT_NE(moved.position, position);
  EXPECT_EQ(moved.capacity, 14u + 32u);
  expectProtected(table, id, bytesOf("fourteen bytes"));
}

TEST_F(LayerChecksums, AreGivenToChangedRecordsWhereTheTableHasThem) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id spacious = table.add("one", 100);
  const Id tight = table.add("other", 10);
  table.set_checksum(Checksum::yes);
  table.modify(spacious, "two");
  expectProtected(table, spacious, bytesOf("two"));
  table.modify(tight, "in place");
  EXPECT_EQ(table.find(tight)->verify(), PayloadState::unprotected);
  table.modify(tight, "in a new block");
  expectProtected(table, tight, bytesOf("in a new block"));
  table.set_checksum(Checksum::no);
  table.modify(tight, "it keeps what it has");
  expectProtected(table, tight, bytesOf("it keeps what it has"));
}

// A new checksum would say of the bytes that have changed that they are right.
TEST_F(LayerChecksums, AreNotMadeAnewOverRottenBytes) {
  auto database = openRotten(bytesOf("some text"), 100);
  auto table = database.table("t");
  expectUnchanged([&] {
    expectError(Reason::payload_damaged, [&] { table.touch(Id{kRecord}); });
    expectError(Reason::payload_damaged, [&] { table.write(Id{kRecord}, 1, "x"); });
    expectError(Reason::payload_damaged, [&] { table.write(*table.first(), 1, "x"); });
  });
  EXPECT_TRUE(table.write(Id{kRecord}, 0, "SOME TEXT"));
  expectProtected(table, Id{kRecord}, bytesOf("SOME TEXT"));
}

TEST_F(LayerChecksums, AreRightAgainOnceAllOfThePayloadIsReplaced) {
  auto database = openRotten(bytesOf("some text"), 100);
  auto table = database.table("t");
  EXPECT_TRUE(table.modify(Id{kRecord}, "some text"));
  expectProtected(table, Id{kRecord}, bytesOf("some text"));
  EXPECT_TRUE(table.remove(Id{kRecord}));
}

// ---- Programs that do not know checksums

class OldPrograms : public LayerChecksums {
 protected:
  void SetUp() override {
    LayerChecksums::SetUp();
    host.setTime(5000);
    makeOne(bytesOf("some text"), 20);
    host.setTime(6000);
  }

  // One call of a C function in a program of its own.
  template <typename Change>
  PayloadState after(Change change) {
    const int16_t db = open();
    const uint64_t table = FindTableByName(db, "t");
    EXPECT_EQ(change(db, table), 1);
    close(db);
    return openDatabase(qvdb::Mode::read_only).table("t").find(Id{kRecord})->verify();
  }

  static int modify(int16_t db, uint64_t table, const Bytes& payload) {
    return ModifyRecordData(db, table, payload.data(), static_cast<uint32_t>(payload.size()),
                            kRecord, nullptr);
  }

  Bytes read() { return bytes(openDatabase(qvdb::Mode::read_only).table("t").get(Id{kRecord})); }

  FakeHost host;
};

TEST_F(OldPrograms, LeaveOneThatIsNoLongerOfTheRecord) {
  EXPECT_EQ(after([](int16_t db, uint64_t t) { return modify(db, t, bytesOf("SOME TEXT")); }),
            PayloadState::changed_elsewhere);
  EXPECT_EQ(read(), bytesOf("SOME TEXT"));
  EXPECT_EQ(after([](int16_t db, uint64_t t) { return modify(db, t, bytesOf("other")); }),
            PayloadState::changed_elsewhere);
  EXPECT_EQ(read(), bytesOf("other"));
  // The layer changes it as a whole, and it has a checksum again; a part or the time alone do not.
  auto database = openDatabase();
  auto table = database.table("t");
  host.setTime(7000);
  table.touch(Id{kRecord});
  table.write(Id{kRecord}, 1, "TH");
  EXPECT_EQ(table.first()->verify(), PayloadState::changed_elsewhere);
  EXPECT_EQ(bytes(table.get(Id{kRecord})), bytesOf("oTHer"));
  table.modify(Id{kRecord}, "right");
  expectProtected(table, Id{kRecord}, bytesOf("right"));
}

TEST_F(OldPrograms, LeaveNoneWhereTheyWriteOverIt) {
  EXPECT_EQ(after([](int16_t db, uint64_t t) { return modify(db, t, Bytes(52, 'x')); }),
            PayloadState::unprotected);
  EXPECT_EQ(read(), Bytes(52, 'x'));
}

TEST_F(OldPrograms, LeaveNoneInANewBlock) {
  EXPECT_EQ(after([](int16_t db, uint64_t t) { return modify(db, t, Bytes(53, 'x')); }),
            PayloadState::unprotected);
  EXPECT_EQ(read(), Bytes(53, 'x'));
}

TEST_F(OldPrograms, AddRecordsWithout) {
  after([&](int16_t db, uint64_t t) {
    addRecord(db, t, bytesOf("new"), 100);
    return 1;
  });
  EXPECT_EQ(openDatabase(qvdb::Mode::read_only).table("t").last()->verify(),
            PayloadState::unprotected);
}

TEST_F(OldPrograms, LoseItWhenTheyPack) {
  ASSERT_EQ(PackOneDB2NewW(wide(), wide("packed.qvd"), 0, nullptr), 1);
  const auto packed = Database::open(path("packed.qvd"));
  EXPECT_EQ(packed.table("t").first()->verify(), PayloadState::unprotected);
  EXPECT_EQ(packed.table("t").first()->info().capacity, 52u);
  EXPECT_EQ(bytes(packed.table("t").get(Id{kRecord})), bytesOf("some text"));
}

// As long as they only read, delete, or add around it, it stays.
TEST_F(OldPrograms, KeepItOtherwise) {
  const auto state = after([&](int16_t db, uint64_t t) {
    EXPECT_EQ(payload(db, t, kRecord), bytesOf("some text"));
    const uint64_t other = addRecord(db, t, bytesOf("other"));
    return DeleteOneRecord(db, t, other, nullptr);
  });
  EXPECT_EQ(state, PayloadState::verified);
}

// The false alarm that remains, and that the message names: as many bytes within the same second.
TEST_F(OldPrograms, LookLikeRotWithinTheSameSecond) {
  host.setTime(5000);
  EXPECT_EQ(after([](int16_t db, uint64_t t) { return modify(db, t, bytesOf("SOME TEXT")); }),
            PayloadState::rotten);
  const std::string why = expectError(Reason::payload_damaged, [&] { read(); });
  EXPECT_NE(
      why.find("a program that does not know checksums wrote as many bytes within the second"),
      std::string::npos)
      << why;
}

// ---- Hostile files

TEST_F(LayerChecksums, AreNotLookedForBeyondTheFile) {
  FileImage image;
  image.addTable("t", 0x1101);
  const int64_t last = image.addRecord(0, 0xA1, bytesOf("text"));
  expectDamage();
  for (const uint32_t capacity : {33u, 100u, 70000u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    image.record(last).dataCapacity = capacity;
    auto database = openImage(image);
    auto table = database.table("t");
    EXPECT_EQ(bytes(table.get(Id{0xA1})), bytesOf("text")) << capacity;
    EXPECT_EQ(table.first()->verify(), PayloadState::unprotected);
    for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
      EXPECT_EQ(bytes(record.loaded()), bytesOf("text"));
    }
    const auto cache = database.cache();
    const auto index = table.index();
    EXPECT_EQ(bytes(table.get(Id{0xA1})), bytesOf("text"));
    EXPECT_TRUE(table.touch(Id{0xA1}));
  }
}

TEST_F(LayerChecksums, AreNoReasonToBelieveALength) {
  FileImage image;
  image.addTable("t", 0x1101);
  Bytes capacity = bytesOf("text");
  capacity.resize(72, 0);
  capacity.add(checksumOf(0x1101, 0xA1, 7, Bytes(72, 'x')));
  const int64_t at = image.addRecord(0, 0xA1, capacity);
  expectDamage();
  for (const uint32_t length : {4u, 72u, 73u, 100u, 101u, 0xFFFFFFFFu}) {
    image.record(at).dataLength = length;
    auto database = openImage(image);
    auto table = database.table("t");
    try {
      static_cast<void>(table.first()->verify());
      static_cast<void>(table.get(Id{0xA1}));
      static_cast<void>(table.touch(Id{0xA1}));
    } catch (const qvdb::Error& error) {
      EXPECT_TRUE(error.reason() == Reason::data_damaged ||
                  error.reason() == Reason::payload_damaged)
          << error.what();
    }
  }
}

}  // namespace
}  // namespace qvdbase::test

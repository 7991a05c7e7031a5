// Payloads in pieces: a record that is written bit by bit, alone or in a batch, and a part of one
// that is written over.
#include <cstdlib>
#include <functional>
#include <system_error>

#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Reason;
using qvdb::RecordWriter;

// A payload that differs everywhere.
Bytes pattern(size_t size) {
  Bytes bytes;
  for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(i * 131 >> 3));
  return bytes;
}

// The sizes on both sides of what a batch holds in memory, 256 KiB with 56 bytes of block.
constexpr size_t kPiece = 262'144;
constexpr size_t kSizes[] = {
    0, 1, 1000, kPiece - 57, kPiece - 56, kPiece - 55, kPiece, 3 * kPiece - 55, 3 * kPiece + 17};

class PayloadsInPieces : public LayerTest {
 protected:
  void SetUp() override {
    LayerTest::SetUp();
    host_.setTime(5000);
    database = createDatabase();
    table = database.add_table("t");
    table->add_with_id(Id{1}, span(bytesOf("before")));
  }

  static void writeInPieces(RecordWriter& writer, const Bytes& payload, size_t size) {
    for (size_t at = 0; at < payload.size(); at += size) {
      writer.write(span(payload).subspan(at, std::min(size, payload.size() - at)));
    }
  }

  // The file after the record of this payload was added whole, and cut off again.
  Bytes addedWhole(const Bytes& payload, uint32_t reserve) {
    const Bytes before = contents();
    table->add_with_id(Id{2}, span(payload), reserve);
    database.close();
    const Bytes whole = contents();
    writeFile(path(), before);
    database = openDatabase();
    table = database.table("t");
    return whole;
  }

  RecordedCalls host_;
  qvdb::Database database;
  std::optional<qvdb::Table> table;
};

TEST_F(PayloadsInPieces, AreTheFileThatWholeOnesAre) {
  for (const size_t size : kSizes) {
    const Bytes payload = pattern(size);
    for (const uint32_t reserve : {0u, 300'000u}) {
      for (const size_t piece : {size_t{777}, size_t{65'536}, 2 * kPiece + 1}) {
        SCOPED_TRACE(std::to_string(size) + " in pieces of " + std::to_string(piece));
        const Bytes before = contents();
        const Bytes whole = addedWhole(payload, reserve);
        RecordWriter writer = table->writer(reserve, Id{2});
        writeInPieces(writer, payload, piece);
        EXPECT_EQ(writer.size(), size);
        EXPECT_EQ(writer.finish(), Id{2});
        EXPECT_TRUE(sameBytes(contents(), whole));
        database.close();
        writeFile(path(), before);
        database = openDatabase();
        table = database.table("t");
      }
    }
  }
}

TEST_F(PayloadsInPieces, AreInTheirPlacesInABatch) {
  std::vector<Bytes> payloads;
  auto bulk = table->appender();
  for (const size_t size : kSizes) {
    payloads.push_back(pattern(size));
    bulk.add(span(payloads.back()));
    RecordWriter writer = bulk.writer();
    writeInPieces(writer, payloads.back(), 10'000);
    writer.finish();
    RecordWriter dropped = bulk.writer();
    writeInPieces(dropped, payloads.back(), 50'000);
  }
  EXPECT_EQ(bulk.finish(), 2 * std::size(kSizes));
  std::vector<Bytes> expected{bytesOf("before")};
  for (const Bytes& payload : payloads) expected.insert(expected.end(), {payload, payload});
  std::vector<Bytes> stored;
  for (const qvdb::Record& record : table->records()) stored.push_back(bytes(record.payload()));
  EXPECT_EQ(stored, expected);
}

TEST_F(PayloadsInPieces, AreUnseenBeforeTheyAreFinished) {
  RecordWriter writer = table->writer();
  writeInPieces(writer, pattern(3 * kPiece), 50'000);
  EXPECT_EQ(table->count(), 1u);
  EXPECT_EQ(table->find(writer.id()), std::nullopt);
  const Id id = writer.finish();
  EXPECT_EQ(id, writer.id());
  EXPECT_EQ(bytes(table->get(id)), pattern(3 * kPiece));
  expectError(Reason::bad_argument, [&] { writer.write(span(bytesOf("x"))); });
  expectError(Reason::bad_argument, [&] { writer.finish(); });
}

TEST_F(PayloadsInPieces, LeaveTheFileAsItWasWhenTheyAreGivenUp) {
  for (const size_t size : kSizes) {
    expectUnchanged([&] {
      RecordWriter writer = table->writer();
      writeInPieces(writer, pattern(size), 100'000);
    });
    expectUnchanged([&] {
      auto bulk = table->appender();
      RecordWriter writer = bulk.writer();
      writeInPieces(writer, pattern(size), 100'000);
      writer.discard();
      EXPECT_EQ(bulk.finish(), 0u);
    });
  }
  table->add(span(bytesOf("after")));
}

// Killed at any moment, the record is torn and nothing leads to it.
TEST_F(PayloadsInPieces, CountAsCutOffWhileTheyAreWritten) {
  const size_t end = fileSize();
  RecordWriter writer = table->writer();
  writeInPieces(writer, pattern(2 * kPiece), 50'000);
  EXPECT_EQ(contents().beAt(end + 47, 4), 0xFFFFFFFFu);
  writeFile(path("killed.qvd"), contents());
  writer.discard();
  expectDamage("killed.qvd", {"S4"});
  EXPECT_EQ(qvdb::check(path("killed.qvd")).errors, 0u);
  EXPECT_EQ(qvdb::salvage(path("killed.qvd"), path("saved.qvd")).records_written, 1u);
}

TEST_F(PayloadsInPieces, TakeNoMoreMemoryForMoreBytes) {
  const auto blocksFor = [&](size_t size) {
    const Bytes piece(100'000, 'p');
    host_.forget();
    RecordWriter writer = table->writer();
    for (size_t at = 0; at < size; at += piece.size()) writer.write(span(piece));
    size_t largest = 0;
    for (const Event& event : host_.events()) {
      if (event.call == Call::allocate) largest = std::max(largest, event.count);
    }
    return largest;
  };
  EXPECT_EQ(blocksFor(1000), blocksFor(20'000'000));
}

TEST_F(PayloadsInPieces, ThatCannotBeWrittenLeaveNothing) {
  const Bytes payload = pattern(2 * kPiece);
  for (const size_t space : {size_t{10}, kPiece, kPiece + 100, 2 * kPiece + 50}) {
    expectUnchanged([&] {
      host_.fullAfter(space);
      expectError(Reason::disk_full, [&] {
        RecordWriter writer = table->writer();
        writeInPieces(writer, payload, 10'000);
        writer.finish();
      });
      host_.heal();
    });
  }
  table->add(span(payload));
}

TEST_F(PayloadsInPieces, RefuseToPassTheSizeOfARecord) {
  // Sparse: the view is never read, because its length alone is too much.
  const std::byte one{};
  RecordWriter writer = table->writer();
  writer.write(qvdb::ByteView(&one, 1));
  expectError(Reason::too_large, [&] { writer.write(qvdb::ByteView(&one, 0xFFFFFFFF)); });
  EXPECT_EQ(writer.finish(), writer.id());
  EXPECT_EQ(table->find(writer.id())->size(), 1u);
}

TEST_F(PayloadsInPieces, KeepTheirBatchFromTakingAnythingElse) {
  auto bulk = table->appender();
  RecordWriter writer = bulk.writer();
  expectError(Reason::appender_open, [&] { bulk.add(span(bytesOf("x"))); });
  expectError(Reason::appender_open, [&] { bulk.writer(); });
  expectError(Reason::appender_open, [&] { bulk.finish(); });
  expectError(Reason::appender_open, [&] { table->add(span(bytesOf("x"))); });
  writer.write(span(bytesOf("pieces")));
  writer.finish();
  EXPECT_EQ(bulk.finish(), 1u);
}

TEST_F(PayloadsInPieces, AreKnownToAnIndex) {
  const qvdb::RecordIndex index = table->index();
  RecordWriter writer = table->writer();
  writer.write(span(bytesOf("abc")));
  const Id id = writer.finish();
  EXPECT_EQ(index.size(), 2u);  // it is not built again
  EXPECT_EQ(bytes(table->get(id)), bytesOf("abc"));
}

TEST_F(PayloadsInPieces, OutliveNeitherTheirAppenderNorTheirDatabase) {
  const Bytes before = contents();
  std::optional<RecordWriter> writer;
  {
    auto bulk = table->appender();
    writer = bulk.writer();
    writeInPieces(*writer, pattern(2 * kPiece), 50'000);
  }
  EXPECT_TRUE(sameBytes(contents(), before));
  expectError(Reason::bad_argument, [&] { writer->write(span(bytesOf("x"))); });
  expectError(Reason::bad_argument, [&] { writer->finish(); });
  writer = table->writer();
  database.close();
  expectError(Reason::not_open, [&] { writer->write(span(bytesOf("x"))); });
}

using PartsOfPayloads = LayerTest;

TEST_F(PartsOfPayloads, AreWrittenOverInPlace) {
  RecordedCalls host;
  host.setTime(1000);
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id id = table.add(span(bytesOf("0123456789")), 20);
  const size_t block = static_cast<size_t>(table.find(id)->info().position);
  host.setTime(2000);
  Bytes expected = contents();
  expected.putBe(block + 27, 4, 2000);
  const auto writeAndExpect = [&](size_t offset, const std::string& text) {
    for (size_t i = 0; i < text.size(); ++i) {
      expected[block + 55 + offset + i] = static_cast<uint8_t>(text[i]);
    }
    EXPECT_TRUE(sameBytes(contents(), expected));
  };
  EXPECT_TRUE(table.write(id, 3, span(bytesOf("abc"))));
  writeAndExpect(3, "abc");
  EXPECT_TRUE(table.write(*table.find(id), 9, span(bytesOf("z"))));
  writeAndExpect(9, "z");
  EXPECT_TRUE(table.write(id, 10, {}));
  writeAndExpect(10, "");
  const qvdb::RecordIndex index = table.index();
  EXPECT_TRUE(table.write(id, 0, span(bytesOf("xy"))));
  writeAndExpect(0, "xy");
  EXPECT_FALSE(table.write(Id{1}, 0, span(bytesOf("x"))));
}

TEST_F(PartsOfPayloads, StayInsideThePresentSize) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id id = table.add(span(bytesOf("0123456789")), 20);
  expectUnchanged([&] {
    for (const uint64_t offset : {uint64_t{8}, uint64_t{11}, ~uint64_t{0}}) {
      expectError(Reason::bad_argument, [&] { table.write(id, offset, span(bytesOf("abc"))); });
      expectError(Reason::bad_argument,
                  [&] { table.write(*table.find(id), offset, span(bytesOf("abc"))); });
    }
  });
}

TEST_F(PartsOfPayloads, ThatCannotBeWrittenSaySo) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id id = table.add(span(bytesOf("0123456789")));
  RecordedCalls host;
  host.failFrom(Call::write);
  expectError(Reason::cannot_write, [&] { table.write(id, 3, span(bytesOf("abc"))); });
}

// A device that is full: attempts that fail do not make it fuller.
using FullDevices = LayerTest;

TEST_F(FullDevices, GetNoFullerByAttemptsThatFail) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id first = table.add(span(bytesOf("first")));
  const Id middle = table.add(span(bytesOf("middle")));
  const Id last = table.add(span(bytesOf("last")));
  table.set_data(span(bytesOf("data")));
  const Bytes large(100'000, 'l');
  RecordedCalls host;
  const auto expectRefused = [&](auto operation) {
    for (const size_t space : {0u, 1u, 60u, 50'000u, 100'050u}) {
      SCOPED_TRACE(space);
      expectUnchanged([&] {
        host.fullAfter(space);
        expectError(Reason::disk_full, operation);
        host.heal();
      });
    }
  };
  expectRefused([&] { table.add(span(large)); });
  expectRefused([&] { table.add(span(bytesOf("x")), 100'000); });
  host.excuseBlocks();  // the chunk of fill bytes stays when writing it fails
  expectRefused([&] { table.set_data(span(large)); });
  for (const Id id : {first, middle, last}) {
    expectRefused([&] { table.modify(id, span(large)); });
    expectRefused([&] { table.modify(*table.find(id), span(large)); });
  }
  host.fullAfter(57 + 8 + 144);
  table.add(span(bytesOf("x")));
}

// Once the link or the slot has been written, the new block stays.
TEST_F(FullDevices, KeepABlockToWhichSomethingLeads) {
  allowDamage();
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Id first = table.add(span(bytesOf("first")));
  table.add(span(bytesOf("last")));
  const size_t before = fileSize();
  RecordedCalls host;
  host.fullAfter(57 + 8);  // the block and the link
  EXPECT_THROW(table.add(span(bytesOf("x"))), qvdb::Error);
  host.heal();
  EXPECT_EQ(fileSize(), before + 57);
  host.fullAfter(156 + 144);  // the block and the slot, which is the predecessor's link
  EXPECT_THROW(table.modify(first, span(Bytes(100, 'l'))), qvdb::Error);
  EXPECT_EQ(fileSize(), before + 57 + 156);
}

TEST_F(FullDevices, AreNoReasonToCutWhatOtherProcessesMayHaveAppended) {
  allowDamage();
  createDatabase().add_table("t");
  auto shared = openDatabase(qvdb::Mode::shared);
  auto table = shared.table("t");
  const size_t before = fileSize();
  RecordedCalls host;
  host.fullAfter(50'000);
  expectError(Reason::disk_full, [&] { table.add(span(Bytes(100'000, 'l'))); });
  EXPECT_EQ(host.count(Call::truncate), 0);
  EXPECT_EQ(fileSize(), before + 50'000);
}

// Wherever in the change the space ends, that is the reason: what is in the file then is a part of
// the change, and no damage that was in its way.
TEST_F(FullDevices, AreTheReasonWhereverAChangeStops) {
  allowDamage();
  struct Change {
    const char* name;
    std::function<void(qvdb::Database&, qvdb::Table&)> run;
  };
  const Bytes large(300, 'l');
  const Change changes[] = {
      {"add", [&](auto&, auto& t) { t.add(span(large)); }},
      {"append_all", [&](auto&, auto& t) { t.append_all(std::vector{span(large)}); }},
      {"move the first", [&](auto&, auto& t) { t.modify(Id{1}, span(large)); }},
      {"move one between", [&](auto&, auto& t) { t.modify(Id{2}, span(large)); }},
      {"move the last", [&](auto&, auto& t) { t.modify(*t.find(Id{3}), span(large)); }},
      {"change in place", [&](auto&, auto& t) { t.modify(Id{1}, span(bytesOf("FIRST"))); }},
      {"write a part", [&](auto&, auto& t) { t.write(Id{1}, 2, span(bytesOf("RST"))); }},
      {"touch", [&](auto&, auto& t) { t.touch(Id{1}); }},
      {"remove the first", [&](auto&, auto& t) { t.remove(Id{1}); }},
      {"remove one between", [&](auto&, auto& t) { t.remove(Id{2}); }},
      {"remove by record", [&](auto&, auto& t) { t.remove(*t.find(Id{2})); }},
      {"remove the last", [&](auto&, auto& t) { t.remove(Id{3}); }},
      {"erase_if", [&](auto&, auto& t) { qvdb::erase_if(t, [](auto&) { return true; }); }},
      {"set_data", [&](auto&, auto& t) { t.set_data(span(large)); }},
      {"add_table", [&](auto& d, auto&) { d.add_table("more"); }},
      {"find_or_add_table", [&](auto& d, auto&) { d.find_or_add_table("more"); }},
      {"set_version", [&](auto& d, auto&) { d.set_version(120); }},
  };
  {
    auto database = createDatabase();
    auto table = database.add_table("t");
    uint64_t id = 0;
    for (const char* text : {"first", "middle", "last"}) {
      table.add_with_id(Id{++id}, span(bytesOf(text)));
    }
    table.set_data(span(bytesOf("data")));
  }
  const Bytes before = contents();
  for (const Change& change : changes) {
    for (const auto& [error, reason] :
         {std::pair(ENOSPC, Reason::disk_full), std::pair(EIO, Reason::cannot_write)}) {
      size_t space = 0;
      for (bool isDone = false; !isDone && !HasFailure(); space += 9) {
        SCOPED_TRACE(std::string(change.name) + ", space for " + std::to_string(space));
        writeFile(path(), before);
        auto database = openDatabase();
        auto table = database.table("t");
        RecordedCalls host;
        host.fullAfter(space, error);
        try {
          change.run(database, table);
          EXPECT_FALSE(host.failed());
          isDone = true;
        } catch (const qvdb::Error& failure) {
          EXPECT_EQ(failure.reason(), reason) << failure.what();
          EXPECT_EQ(failure.system_code(), std::error_code(error, std::system_category()));
        }
        host.heal();
      }
      EXPECT_GT(space, 9u) << change.name;
    }
  }
}

// After the link a read can fail, too.
TEST_F(FullDevices, AreNotTheOnlyOnesToStopAChangeHalfWay) {
  // With a read for each field, the search for the reason is refused in the same way.
  if (!platform::gathersTransfers()) GTEST_SKIP();
  allowDamage();
  {
    auto database = createDatabase();
    auto table = database.add_table("t");
    for (uint64_t id : {1u, 2u, 3u}) table.add_with_id(Id{id}, span(Bytes(100'000, 'p')));
  }
  const Bytes before = contents();
  const auto expectReason = [&](auto change) {
    int partly = 0;
    for (int step = 0;; ++step) {
      SCOPED_TRACE(step);
      writeFile(path(), before);
      auto database = openDatabase();
      auto table = database.table("t");
      RecordedCalls host;
      host.failFrom(Call::read, step);
      int reads = 0;
      host.observe([&](Call call) {
        if (call == Call::read && ++reads == step + 3) host.heal();
      });
      try {
        change(table);
      } catch (const qvdb::Error& failure) {
        if (contents().cut(before.size()) != before) {
          ++partly;
          EXPECT_EQ(failure.reason(), Reason::cannot_write) << failure.what();
        }
      }
      host.observe(nullptr);
      host.heal();
      if (reads <= step) break;
    }
    return partly;
  };
  static_cast<void>(expectReason([&](auto& t) { t.add(span(bytesOf("x"))); }));
  EXPECT_GT(expectReason([&](auto& t) { t.modify(Id{2}, span(Bytes(200'000, 'l'))); }), 0);
}

// The new file has the space that it needs, and not a byte more.
TEST_F(FullDevices, CanBeCompactedAfterwards) {
  for (const qvdb::Mode mode : {qvdb::Mode::exclusive, qvdb::Mode::shared}) {
    SCOPED_TRACE(static_cast<int>(mode));
    {
      auto database = qvdb::Database::create(path(), {.overwrite = true});
      auto table = database.add_table("t");
      table.add_with_id(Id{1}, span(Bytes(100'000, 'd')));
      table.add_with_id(Id{2}, span(bytesOf("kept")));
      table.remove(Id{1});
    }
    qvdb::compact(path(), path("expected.qvd"));
    const Bytes expected = contents("expected.qvd");
    RecordedCalls host;
    {
      auto database = openDatabase(mode);
      auto table = database.table("t");
      for (const size_t space : {50'000u, 60u, 0u}) {
        host.fullAfter(space);
        expectError(Reason::disk_full, [&] { table.add(span(Bytes(100'000, 'l'))); });
        expectError(Reason::disk_full, [&] { table.set_data(span(Bytes(100'000, 'l'))); });
        expectError(Reason::disk_full, [&] {
          RecordWriter writer = table.writer();
          for (int i = 0; i < 4; ++i) writer.write(span(Bytes(100'000, 'l')));
          writer.finish();
        });
      }
    }
    host.fullAfter(expected.size() + 22);  // the header is written twice
    qvdb::compact(path());
    EXPECT_TRUE(sameBytes(contents(), expected));
    std::filesystem::remove(path("expected.qvd"));
  }
}

}  // namespace
}  // namespace qvdbase::test

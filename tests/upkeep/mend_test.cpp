// qvdb::mend works on the file that it has opened and locked, and on no other, says what the host
// answered, and can be begun again.
#include <filesystem>

#include "kit/file_image.h"
#include "kit/file_reader.h"
#include "kit/recorded_calls.h"
#include "kit/replaced_calls.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using qvdb::CutOffWrites;
using qvdb::Reason;

// A record that was written and never linked, at the end of the file.
Bytes cutOffAppend() {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t first = image.addRecord(table, 0xA1, bytesOf("first"));
  image.addRecord(table, 0xA2, bytesOf("second"));
  SlotFields& slot = image.slot(table);
  slot.recordCount = slot.recordWriteCount = 1;
  slot.lastRecordPos = slot.lastWrittenRecordPos = first;
  image.record(first).nextRecordPos = 0;
  return image.build();
}

constexpr size_t kSecondSize = 56 + 6;

class Mend : public LayerTest {
 protected:
  Mend() {
    allowDamage();
    allowDamage("opened.qvd");
  }
};

TEST_F(Mend, ChangesTheFileThatItHasLockedWhateverTheNameLeadsToMeanwhile) {
  static fs::path name;
  static fs::path opened;
  static fs::path other;
  name = path();
  opened = path("opened.qvd");
  other = path("other.qvd");
  const Bytes damaged = cutOffAppend();
  writeFile(path(), damaged);
  writeFile(other, damaged);
  {
    ReplacedCalls calls;
    // The first read follows the opening and the lock.
    calls->readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
      if (!fs::exists(opened)) {
        fs::rename(name, opened);
        fs::rename(other, name);
      }
      return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
    };
    const qvdb::MendReport report = qvdb::mend(path(), {.cut_off = qvdb::CutOffWrites::discard});
    EXPECT_FALSE(report.steps.empty());
  }
  ASSERT_TRUE(fs::exists(opened));
  EXPECT_EQ(readFile(opened).size(), damaged.size() - kSecondSize);
  EXPECT_EQ(readFile(path()), damaged);
}

TEST_F(Mend, SaysThatTheHostDoesNotShortenTheFile) {
  writeFile(path(), cutOffAppend());
  ReplacedCalls calls;
  calls->truncate = [](int, off_t) {
    errno = EIO;
    return -1;
  };
  const std::string message = expectError(
      Reason::cannot_write, [&] { qvdb::mend(path(), {.cut_off = qvdb::CutOffWrites::discard}); });
  EXPECT_NE(message.find("cannot mend the database"), std::string::npos) << message;
  EXPECT_EQ(readFile(path()).size(), cutOffAppend().size());
}

TEST_F(Mend, SaysWhatTheHostAnsweredWhenALinkCannotBeWritten) {
  writeFile(path(), cutOffAppend());
  ReplacedCalls calls;
  calls->writeAt = [](int, const void*, size_t, off_t) -> ssize_t {
    errno = EROFS;
    return -1;
  };
  const auto error = errorOf([&] { qvdb::mend(path(), {.cut_off = qvdb::CutOffWrites::link}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->reason(), Reason::read_only_file_system) << error->what();
  EXPECT_EQ(error->system_code().value(), EROFS);
}

TEST_F(Mend, NamesTheDamageThatItDoesNotMend) {
  FileImage image;
  image.addRecord(image.addTable("notes", 0x11), 0xA1, bytesOf("first"));
  const Bytes damaged = image.build().with(14, hex("FFFF"));
  writeFile(path(), damaged);
  const std::string message = expectError(Reason::damaged, [&] { qvdb::mend(path()); });
  EXPECT_NE(message.find("it has damage that no interrupted operation leaves (H4: The sum of the "
                         "database identifier is wrong); nothing was changed"),
            std::string::npos)
      << message;
  EXPECT_EQ(contents(), damaged);
}

// A record that is linked but not counted, a batch that was never linked, a deletion of which one
// link is written.
Bytes interrupted() {
  FileImage image;
  const size_t uncounted = image.addTable("uncounted", 0x11);
  const size_t batch = image.addTable("batch", 0x22);
  const size_t deletion = image.addTable("deletion", 0x33);
  const int64_t first = image.addRecord(uncounted, 0xA1, bytesOf("counted"));
  image.addRecord(uncounted, 0xA2, bytesOf("not counted"));
  const int64_t kept = image.addRecord(deletion, 0xD1, bytesOf("kept"));
  image.addRecord(deletion, 0xD2, bytesOf("going"));
  const int64_t last = image.addRecord(batch, 0xB1, bytesOf("counted"));
  for (uint64_t i = 2; i < 6; ++i) image.addRecord(batch, 0xB0 + i, bytesOf("of the batch"));
  for (const auto& [table, position] : {std::pair{uncounted, first}, std::pair{batch, last}}) {
    SlotFields& slot = image.slot(table);
    slot.recordCount = slot.recordWriteCount = 1;
    slot.lastRecordPos = slot.lastWrittenRecordPos = position;
  }
  image.record(last).nextRecordPos = 0;
  image.record(kept).nextRecordPos = 0;
  return image.build();
}

TEST_F(Mend, StoppedBeforeAnyOfItsWritesCanBeBegunAgain) {
  for (const auto& [cutOff, ofBatch] :
       {std::pair{CutOffWrites::keep, 1u}, std::pair{CutOffWrites::link, 5u},
        std::pair{CutOffWrites::discard, 1u}}) {
    bool isStopped = true;
    int step = 0;
    for (; isStopped; ++step) {
      SCOPED_TRACE(step);
      writeFile(path(), interrupted());
      RecordedCalls host;
      host.failFrom(Call::write, step);
      try {
        qvdb::mend(path(), {.cut_off = cutOff});
        isStopped = false;
      } catch (const qvdb::Error& error) {
        EXPECT_EQ(error.reason(), qvdb::Reason::cannot_write) << error.what();
      }
      host.heal();
      qvdb::mend(path(), {.cut_off = cutOff});
      EXPECT_EQ(qvdb::check(path()).errors, 0u);
      const ReadDatabase mended = readDatabase(contents());
      EXPECT_EQ(mended.tables.at(0).records.size(), 2u);
      EXPECT_EQ(mended.tables.at(1).records.size(), ofBatch);
      EXPECT_EQ(mended.tables.at(2).records.size(), 1u);
    }
    EXPECT_GT(step, 2);
  }
}

// A batch whose process was killed, in a table whose older records were deleted and compacted away.
class BatchAfterACompaction : public Mend {
 protected:
  static constexpr size_t kRecords = 3;

  // `kept` of five records are left, and the batch has reached the file but for `missing` of its
  // last writes: the slot, the link.
  void putBatch(size_t kept, size_t missing) {
    std::filesystem::remove(path());
    qvdb::Database database = createDatabase();
    qvdb::Table table = database.add_table("notes");
    std::vector<qvdb::Id> ids;
    for (const char* text : {"a", "b", "c", "d", "e"}) ids.push_back(table.add(text));
    for (size_t i = 0; i < ids.size() - kept; ++i) table.remove(ids[i]);
    database.close();
    qvdb::compact(path());
    const Bytes before = contents();
    std::vector<Write> writes;
    {
      RecordedCalls host;
      database = openDatabase();
      database.table("notes").append_all(payloads_);
      writes = ranges(host.writes());
      database.close();
    }
    ASSERT_GT(writes.size(), missing);
    writes.resize(writes.size() - missing);
    writeFile(path(), applied(before, writes));
    damaged_ = contents();
  }

  std::vector<std::string> payloadsNow() {
    std::vector<std::string> result;
    const ReadDatabase database = readDatabase(contents());
    for (const ReadRecord& record : database.tables.at(0).records) {
      const Bytes data = record.fields.data();
      result.emplace_back(data.begin(), data.end());
    }
    return result;
  }

  const std::vector<std::string> payloads_ = {"first", "second", "third"};
  Bytes damaged_;
};

TEST_F(BatchAfterACompaction, IsLinkedOnRequest) {
  for (const size_t kept : {0u, 1u, 2u, 5u}) {
    SCOPED_TRACE(kept);
    putBatch(kept, kept == 0 ? 1 : 2);
    if (HasFatalFailure()) return;
    const std::string message = expectError(Reason::damaged, [&] { qvdb::compact(path()); });
    EXPECT_NE(message.find("3 records would be lost"), std::string::npos) << message;
    EXPECT_NE(message.find("cut off"), std::string::npos) << message;
    const qvdb::MendReport asItIs = qvdb::mend(path());
    EXPECT_TRUE(asItIs.steps.empty());
    EXPECT_EQ(asItIs.left_over, kRecords);
    EXPECT_TRUE(sameBytes(contents(), damaged_));
    const qvdb::MendReport linked = qvdb::mend(path(), {.cut_off = CutOffWrites::link});
    EXPECT_EQ(linked.steps.size(), kRecords);
    EXPECT_EQ(linked.left_over, 0u);
    std::vector<std::string> expected = {"a", "b", "c", "d", "e"};
    expected.erase(expected.begin(), expected.end() - static_cast<std::ptrdiff_t>(kept));
    expected.insert(expected.end(), payloads_.begin(), payloads_.end());
    EXPECT_EQ(payloadsNow(), expected);
    EXPECT_EQ(qvdb::compact(path()).records, kept + kRecords);
  }
}

TEST_F(BatchAfterACompaction, IsDiscardedOnRequest) {
  for (const size_t kept : {0u, 1u, 5u}) {
    SCOPED_TRACE(kept);
    putBatch(kept, kept == 0 ? 1 : 2);
    if (HasFatalFailure()) return;
    EXPECT_EQ(qvdb::mend(path(), {.cut_off = CutOffWrites::discard}).left_over, 0u);
    EXPECT_EQ(payloadsNow().size(), kept);
    EXPECT_EQ(qvdb::compact(path()).records, kept);
  }
}

// A record was deleted as the last one of the table before the batch began.
TEST_F(BatchAfterACompaction, DoesNotBringBackWhatWasDeletedBefore) {
  std::filesystem::remove(path());
  qvdb::Database database = createDatabase();
  qvdb::Table table = database.add_table("notes");
  table.add("a");
  const qvdb::Id deleted = table.add("deleted");
  table.remove(deleted);
  database.close();
  Bytes before = contents();
  std::vector<Write> writes;
  {
    RecordedCalls host;
    database = openDatabase();
    database.table("notes").append_all(payloads_);
    writes = ranges(host.writes());
    database.close();
  }
  writes.resize(writes.size() - 2);
  const Bytes damaged = applied(before, writes);
  writeFile(path(), damaged);
  std::vector<std::string> labels;
  const auto visit = [&](const qvdb::FoundBlock& block) {
    labels.emplace_back(qvdb::to_string(block.label));
  };
  EXPECT_EQ(qvdb::salvage(path(), path("saved.qvd"), visit).records_written, 4u);
  EXPECT_EQ(labels,
            (std::vector<std::string>{"live", "deleted", "unlinked", "unlinked", "unlinked"}));
  EXPECT_EQ(qvdb::mend(path()).left_over, kRecords);
  qvdb::mend(path(), {.cut_off = CutOffWrites::link});
  EXPECT_EQ(payloadsNow(), (std::vector<std::string>{"a", "first", "second", "third"}));
  EXPECT_EQ(qvdb::compact(path()).records, 4u);
  writeFile(path(), damaged);
  qvdb::mend(path(), {.cut_off = CutOffWrites::discard});
  EXPECT_TRUE(sameBytes(contents(), before));
  EXPECT_EQ(qvdb::compact(path()).records, 1u);
}

// The counts of a table whose records were replaced or compacted away leave open whether a batch
// was ever linked. What was written last says that it was not.
FileImage batchBesideLargeCount(bool isFollowed) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const size_t other = image.addTable("others", 0x22);
  const int64_t first = image.addRecord(table, 0xA1, bytesOf("first"));
  for (uint64_t i = 1; i < 4; ++i) image.addRecord(table, 0xA1 + i, bytesOf("more"));
  if (isFollowed) image.addRecord(other, 0xB1, bytesOf("later"));
  SlotFields& slot = image.slot(table);
  slot.recordCount = 1;
  slot.recordWriteCount = 9;
  slot.lastRecordPos = slot.lastWrittenRecordPos = first;
  image.record(first).nextRecordPos = 0;
  return image;
}

TEST_F(Mend, DiscardsABatchThatWasNeverTheLastWritten) {
  for (const bool isFollowed : {false, true}) {
    writeFile(path(), batchBesideLargeCount(isFollowed).build());
    EXPECT_EQ(qvdb::mend(path()).left_over, 3u);
    expectError(Reason::damaged, [&] { qvdb::compact(path()); });
    const qvdb::MendReport report = qvdb::mend(path(), {.cut_off = CutOffWrites::discard});
    EXPECT_EQ(report.left_over, 0u);
    EXPECT_EQ(report.steps.size(), isFollowed ? 3u : 1u);
    EXPECT_EQ(qvdb::mend(path(), {.cut_off = CutOffWrites::discard}).steps.size(), 0u);
    EXPECT_EQ(qvdb::compact(path()).records, isFollowed ? 2u : 1u);
  }
}

TEST_F(Mend, DoesNotDiscardWhatALinkRepairHasCutOff) {
  FileImage image = batchBesideLargeCount(false);
  image.slot(0).lastWrittenRecordPos = image.end() - 56 - 4;
  const Bytes before = image.build();
  writeFile(path(), before);
  const qvdb::MendReport report = qvdb::mend(path(), {.cut_off = CutOffWrites::discard});
  EXPECT_EQ(report.left_over, 3u);
  EXPECT_TRUE(sameBytes(contents(), before));
}

// Data of a table whose slot has none: at the end of the file, or with other blocks after it.
FileImage cutOffData(bool isFollowed) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  image.setTableData(table, bytesOf("data"));
  if (isFollowed) image.addRecord(table, 0xA1, bytesOf("first"));
  SlotFields& slot = image.slot(table);
  slot.firstDataPos = slot.lastWrittenDataPos = slot.lastDataPos = 0;
  slot.dataBlockCount = slot.dataWriteCount = 0;
  return image;
}

TEST_F(Mend, LinksOrDiscardsTheFirstTableDataThatWasNeverLinked) {
  for (const bool isFollowed : {false, true}) {
    const Bytes damaged = cutOffData(isFollowed).build();
    writeFile(path(), damaged);
    expectError(Reason::damaged, [&] { qvdb::compact(path()); });
    const qvdb::MendReport kept = qvdb::mend(path());
    EXPECT_EQ(kept.left_over, 1u);
    EXPECT_EQ(kept.left_over_data, 1u);
    EXPECT_TRUE(sameBytes(contents(), damaged));

    EXPECT_EQ(qvdb::mend(path(), {.cut_off = CutOffWrites::link}).left_over, 0u);
    EXPECT_EQ(readDatabase(contents()).tables.at(0).data.value().data(), bytesOf("data"));
    EXPECT_EQ(qvdb::check(path()).warnings, 0u);
    qvdb::compact(path());

    writeFile(path(), damaged);
    EXPECT_EQ(qvdb::mend(path(), {.cut_off = CutOffWrites::discard}).left_over, 0u);
    Bytes expected = damaged;
    constexpr size_t kBlock = 22 + 4;
    const Bytes zeros = Bytes().fill(kBlock, 0);
    expected = isFollowed ? damaged.with(4630, zeros) : damaged.cut(damaged.size() - kBlock);
    EXPECT_TRUE(sameBytes(contents(), expected));
    qvdb::compact(path());
  }
}

TEST_F(Mend, LinksAgainWhatALinkRepairHasCutOff) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  std::vector<int64_t> records;
  for (uint64_t i = 0; i < 5; ++i) {
    records.push_back(image.addRecord(table, 0xA1 + i, bytesOf("text")));
  }
  SlotFields& slot = image.slot(table);
  slot.recordCount = 2;
  slot.lastRecordPos = records[1];
  image.record(records[1]).nextRecordPos = 0;
  writeFile(path(), image.build());
  EXPECT_EQ(qvdb::mend(path()).left_over, 3u);
  qvdb::mend(path(), {.cut_off = CutOffWrites::link});
  EXPECT_EQ(readDatabase(contents()).tables.at(0).records.size(), 5u);
  EXPECT_EQ(qvdb::check(path()).errors, 0u);
}

// Nothing says which of the two followed the last record, and whether the other one did.
TEST_F(Mend, LeavesTwoPiecesOfAChainApart) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  std::vector<int64_t> records;
  for (uint64_t i = 0; i < 5; ++i) {
    records.push_back(image.addRecord(table, 0xA1 + i, bytesOf("text")));
  }
  SlotFields& slot = image.slot(table);
  slot.recordCount = 1;
  slot.lastRecordPos = records[0];
  image.record(records[0]).nextRecordPos = 0;
  image.record(records[3]).prevRecordPos = records[0];
  image.record(records[2]).nextRecordPos = 0;
  const Bytes before = image.build();
  writeFile(path(), before);
  EXPECT_EQ(qvdb::mend(path(), {.cut_off = CutOffWrites::link}).left_over, 0u);
  EXPECT_TRUE(sameBytes(contents(), before));
}

}  // namespace
}  // namespace qvdbase::test

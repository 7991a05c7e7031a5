// A writer that is killed: a child process appends, modifies and deletes records, and acknowledges
// each call that has returned through a pipe. It is killed (SIGKILL) at random moments. Then
//
//   - everything acknowledged is in the file, found by walking or by salvage;
//   - the one call that was under way has had its effect, or none, or is named by the check;
//   - the file can be opened, and appended to unless the check says otherwise.
//
// The next writer continues with the same file, so that damage would add up.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <random>

#include "kit/random_seed.h"
#include "kit/test_extent.h"
#include "recovery/check/base_files.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

constexpr uint64_t kTable = 0x1101;

enum class Kind : uint8_t { append, overwrite, relocate, remove };

// What the child reports: before a call what it is about to do, after it that it has returned.
struct Message {
  Kind kind = Kind::append;
  bool isDone = false;
  uint64_t id = 0;
  uint32_t size = 0;  // of the payload, which is made of size and seed
  uint32_t seed = 0;

  Bytes payload() const { return pattern(size, seed); }
};

// The records as they have to be.
using Expected = std::map<uint64_t, Bytes>;

void enter(const Message& message, Expected* records) {
  if (message.kind == Kind::remove) {
    records->erase(message.id);
  } else {
    (*records)[message.id] = message.payload();
  }
}

class Writer {
 public:
  Writer(int16_t db, int pipe, uint64_t seed, Expected records, uint64_t nextID)
      : db_(db), pipe_(pipe), random_(seed), records_(std::move(records)), nextID_(nextID) {}

  void step() {
    Message message = choose();
    report(message);
    if (!carryOut(message)) _exit(3);
    message.isDone = true;
    report(message);
    enter(message, &records_);
  }

 private:
  uint32_t below(uint32_t end) { return static_cast<uint32_t>(random_() % end); }

  Message choose() {
    Message message;
    message.seed = below(1'000'000);
    message.size = 1 + below(900);
    message.kind = records_.size() < 5 ? Kind::append : Kind(below(4));
    if (message.kind == Kind::append) {
      message.id = nextID_++;
      return message;
    }
    auto chosen = records_.begin();
    std::advance(chosen, below(static_cast<uint32_t>(records_.size())));
    message.id = chosen->first;
    const auto present = static_cast<uint32_t>(chosen->second.size());
    if (message.kind == Kind::overwrite) message.size = 1 + below(present);
    if (message.kind == Kind::relocate) message.size = 2000 + below(900);
    return message;
  }

  bool carryOut(const Message& message) const {
    const Bytes payload = message.payload();
    switch (message.kind) {
      case Kind::append:
        return AddRecordData_AssignRecordID(db_, kTable, payload.data(), message.size, 0,
                                            &message.id) == 1;
      case Kind::overwrite:
      case Kind::relocate:
        return ModifyRecordData(db_, kTable, payload.data(), message.size, message.id, nullptr) ==
               1;
      case Kind::remove:
        return DeleteOneRecord(db_, kTable, message.id, nullptr) == 1;
    }
    return false;
  }

  void report(const Message& message) const {
    if (::write(pipe_, &message, sizeof message) != sizeof message) _exit(4);
  }

  int16_t db_;
  int pipe_;
  std::mt19937_64 random_;
  Expected records_;
  uint64_t nextID_;
};

class KilledWriter : public testing::Test {
 protected:
  void SetUp() override {
    FileImage image;
    image.addTable("notes", kTable);
    image.addTable("other", 0x2202);
    writeFile(path, image.build());
  }

  // Runs a writer, lets it acknowledge `calls` calls and spins for a while, and kills it. Returns
  // what it was about to do, if it was.
  std::optional<Message> runAndKill(uint64_t seed, uint64_t calls, unsigned spins) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      ::close(ends[0]);
      const int16_t db = OpenDBaseW(folder.wide("a.qvd"), 3);
      if (db == 0) _exit(2);
      Writer writer(db, ends[1], seed, expected, nextID);
      for (;;) writer.step();
    }
    ::close(ends[1]);
    std::optional<Message> underWay;
    for (uint64_t done = 0; done < calls && receive(ends[0], &underWay);) {
      if (!underWay) ++done;
    }
    for (volatile unsigned i = 0; i < spins;) i = i + 1;
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself: " << WEXITSTATUS(status);
    while (receive(ends[0], &underWay)) continue;
    ::close(ends[0]);
    return underWay;
  }

  bool receive(int pipe, std::optional<Message>* underWay) {
    Message message;
    if (::read(pipe, &message, sizeof message) != sizeof message) return false;
    nextID = std::max(nextID, message.id + 1);
    if (message.isDone) {
      enter(message, &expected);
      capacity_[message.id] = std::max(capacity_[message.id], message.size);
      underWay->reset();
    } else {
      *underWay = message;
    }
    return true;
  }

  void expectNothingMissing(const std::optional<Message>& underWay) {
    const Bytes bytes = readFile(path);
    const auto found = takenRecords(bytes);
    for (const auto& [id, payload] : expected) {
      const auto place = found.find({kTable, id});
      const bool isUnderWay = underWay && underWay->id == id;
      if (place == found.end()) {
        EXPECT_TRUE(isUnderWay && underWay->kind == Kind::remove) << "lost record " << id;
      } else if (!isUnderWay) {
        EXPECT_TRUE(sameBytes(place->second, payload)) << "record " << id;
      } else if (underWay->kind != Kind::remove && underWay->size > capacity_[id]) {
        // It goes to a new block, so that it is the one or the other.
        EXPECT_TRUE(place->second == payload || place->second == underWay->payload());
      }
    }
  }

  // What the next writer starts from: the call under way counts as it turned out.
  void settle(const std::optional<Message>& underWay) {
    const int16_t db = OpenDBaseW(folder.wide("a.qvd"), 3);
    ASSERT_NE(db, 0) << "the lock of a killed process is still held";
    const Checked checked = checkBytes(readFile(path), {});
    if (checked.report.tables.at(0).append) {
      uint64_t id = nextID++;
      const Bytes payload = bytesOf("behind");
      EXPECT_EQ(AddRecordData_AssignRecordID(db, kTable, payload.data(), 6, 0, &id), 1);
      expected[id] = payload;
    }
    CloseDBase(db);
    if (underWay) capacity_[underWay->id] = std::max(capacity_[underWay->id], underWay->size);
    if (checked.report.state == qvdb::CheckState::damaged || underWay) restart();
  }

  // A file that was caught in the middle of a call is saved, as its owner would do it.
  void restart() {
    qvdb::salvage(path, folder / "saved.qvd");
    std::filesystem::rename(folder / "saved.qvd", path);
    EXPECT_TRUE(checkFile(path).empty()) << describe(checkFile(path));
    expected.clear();
    for (const auto& [key, payload] : recordsOf(readDatabase(path))) {
      if (key.first == kTable) expected[key.second] = payload;
    }
  }

  TempFolder folder;
  const std::filesystem::path path = folder / "a.qvd";
  Expected expected;
  uint64_t nextID = 1;

 private:
  // No block of a record has less capacity than this. A payload that fits is written over the old,
  // and can be found half written.
  std::map<uint64_t, uint32_t> capacity_;
};

TEST_F(KilledWriter, LosesNothingThatItHasAcknowledged) {
  const uint64_t seed = randomSeed();
  std::mt19937_64 random(seed);
  const int kills = testEverything() ? 600 : 40;
  int inTheMiddle = 0;
  for (int i = 0; i < kills; ++i) {
    SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed) + ", kill " + std::to_string(i));
    const std::optional<Message> underWay =
        runAndKill(random(), random() % 30, static_cast<unsigned>(random() % 200'000));
    if (underWay) ++inTheMiddle;
    expectNothingMissing(underWay);
    settle(underWay);
    if (HasFailure()) return;
  }
  EXPECT_GT(inTheMiddle, 0) << "no writer was killed in the middle of a call";
  reportCount("killed writers", static_cast<uint64_t>(kills));
}

}  // namespace
}  // namespace qvdbase::test

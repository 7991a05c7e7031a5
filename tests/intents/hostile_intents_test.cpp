// Files with open intents that no crash has left like that: patches torn inside a sector, intents
// and words of other files, other runs and older copies, and intents forged with right checksums.
// Nothing is applied that does not belong there, what is torn is reported, and a forged one can
// change no byte that a transaction cannot change.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "format/intent.h"
#include "intents/commit.h"
#include "intents/recovery.h"
#include "intents/shown_contents.h"
#include "intents/staged_transactions.h"
#include "kit/database_fixture.h"
#include "kit/random_seed.h"
#include "kit/test_extent.h"

namespace qvdbase::test {
namespace {

using format::EntryKind;
using format::IntentEntry;
using intents::Judging;
using intents::Pending;
using intents::RecoveryPlan;

RecoveryPlan planOf(const Bytes& file, Judging judging = Judging::bySectors) {
  return intents::plan(BytesReader(file), judging);
}

Bytes carriedOut(Bytes file, const RecoveryPlan& plan) {
  for (const intents::PlannedWrite& write : plan.writes) {
    file = file.with(static_cast<size_t>(write.position),
                     Bytes(write.bytes.begin(), write.bytes.end()));
  }
  return file.with(4558, Bytes().zeros(24));
}

// The places that a transaction can change: the number of tables, the slots, and links.
std::set<size_t> changeable(const Bytes& file) {
  std::set<size_t> places = {16, 17};
  for (size_t at = 22; at < 22 + 31 * 144; ++at) places.insert(at);
  for (size_t at = 0; at + 56 <= file.size(); ++at) {
    if (file[at] != 135) continue;
    for (size_t link = at + 31; link < at + 47; ++link) places.insert(link);
  }
  return places;
}

// What those see who only read, or what they are told.
std::string shownOf(const std::filesystem::path& file) {
  std::ostringstream text;
  try {
    const qvdb::Database database = qvdb::Database::open(file, qvdb::Mode::read_only);
    for (const auto& [name, content] : shownBy(database)) {
      text << name << ": " << content.data << '\n';
      for (const auto& [id, payload] : content.records) text << id << ' ' << payload << '\n';
    }
  } catch (const std::exception& error) {
    text << error.what();
  }
  return text.str();
}

class HostileIntents : public DatabaseTest {
 protected:
  // A file in which two commits are not in their places.
  void SetUp() override {
    allowDamage("test.qvd");
    crashed_ = crashedFile("test.qvd");
    sound_ = contents("before.qvd");
  }

  Bytes crashedFile(const std::string& name) {
    const int16_t db = create(name);
    const uint64_t notes = addTable(db, "notes");
    const uint64_t other = addTable(db, "other");
    std::vector<uint64_t> ids;
    for (int i = 0; i < 4; ++i) ids.push_back(addRecord(db, notes, Bytes().text("as it was")));
    addRecord(db, other, Bytes().text("alone"));
    close(db);
    writeFile(path("before.qvd"), contents(name));
    const int16_t again = open(name);
    intents::CommitLog log(again, intents::Durability::power);
    log.holdBack(64);
    patches_.clear();
    for (const bool isFirst : {true, false}) {
      Bytes before = contents(name);
      log.held().layOver(0, before.data(), before.size());
      writeFile(path("work.qvd"), before.with(4558, Bytes().zeros(24)));
      const int16_t work = open("work.qvd");
      const uint32_t size = isFirst ? 90 : 190;
      EXPECT_EQ(ModifyRecordData(work, notes, Bytes(size, 'x').data(), size, ids[1], nullptr), 1);
      if (isFirst) {
        addRecord(work, other, Bytes().text("added"));
        EXPECT_NE(AddTable(work, "third"), 0u);
      } else {
        EXPECT_EQ(DeleteOneRecord(work, notes, ids[3], nullptr), 1);
      }
      close(work);
      const Bytes after = contents("work.qvd").with(4558, before.at(4558, 24));
      EXPECT_EQ(log.commit(changesBetween(before, after)).outcome, intents::Outcome::committed);
    }
    for (const intents::HeldPatch* patch : log.held().inOrder()) {
      patches_.emplace_back(static_cast<size_t>(patch->position),
                            Bytes(patch->bytes.begin(), patch->bytes.end()));
    }
    close(again);
    const Bytes crashed = contents(name);
    after_ = contentsOf(carriedOut(crashed, planOf(crashed)));
    EXPECT_NE(after_, contentsOf(crashed));
    return crashed;
  }

  void expectNothing(const Bytes& file, const std::string& what) {
    const RecoveryPlan plan = planOf(file);
    EXPECT_TRUE(plan.writes.empty()) << what;
  }

  Bytes crashed_;
  Bytes sound_;
  std::string after_;
  std::vector<std::pair<size_t, Bytes>> patches_;
};

TEST_F(HostileIntents, APatchThatIsTornAnywhereIsCompletedOrReported) {
  uint64_t states = 0;
  uint64_t reported = 0;
  for (size_t patch = 0; patch < patches_.size(); ++patch) {
    const auto& [position, bytes] = patches_[patch];
    for (size_t count = 0; count <= bytes.size(); ++count, ++states) {
      // The patches before it are made, and of this one the first bytes, or the last ones.
      for (const bool isBeginning : {true, false}) {
        Bytes file = crashed_;
        for (size_t i = 0; i < patch; ++i) file = file.with(patches_[i].first, patches_[i].second);
        const size_t from = isBeginning ? 0 : bytes.size() - count;
        file = file.with(position + from, bytes.at(from, count));
        const RecoveryPlan plan = planOf(file);
        if (plan.contradicted.empty()) {
          ASSERT_EQ(contentsOf(carriedOut(file, plan)), after_) << patch << ' ' << count;
        } else {
          ++reported;
        }
        // A caller that knows of no other writer can have it completed.
        const RecoveryPlan byBytes = planOf(file, Judging::byBytes);
        ASSERT_TRUE(byBytes.contradicted.empty()) << patch << ' ' << count;
        ASSERT_EQ(contentsOf(carriedOut(file, byBytes)), after_) << patch << ' ' << count;
      }
    }
  }
  reportCount("patches torn at a byte", 2 * states);
  reportCount("of these, reported", reported);
}

TEST_F(HostileIntents, ThoseOfAnotherFileAndOfOtherRunsAreNotApplied) {
  const Bytes word = crashed_.at(4558, 24);
  const Bytes tail = crashed_.from(sound_.size());
  const Bytes old = crashed_;
  const Bytes oldSound = sound_;
  const Bytes other = crashedFile("other.qvd");  // as long, with another identifier
  const Bytes otherSound = contents("before.qvd");
  allowDamage("other.qvd");
  ASSERT_EQ(otherSound.size(), oldSound.size());
  expectNothing(otherSound.with(4558, word), "the word of another file");
  expectNothing(Bytes(otherSound).add(tail).with(4558, word), "word and intents of another file");
  expectNothing(Bytes(otherSound).add(tail).with(4558, other.at(4558, 24)),
                "the intents of another file");
  // An older copy of the same file, whose end has got the intents of a run that was not its own.
  const Bytes longer = Bytes(oldSound).zeros(0);
  expectNothing(Bytes(longer).zeros(56).add(tail).with(4558, word), "at another place");
  Bytes otherRun = old;
  for (size_t at = 4566; at < 4582; ++at) otherRun[at] = static_cast<uint8_t>(otherRun[at] + 1);
  expectNothing(otherRun, "another run");
  EXPECT_EQ(planOf(otherRun).pending, Pending::damagedWord);
}

// A copy that was made at any time is a state of the file, and what it holds of the intents counts.
TEST_F(HostileIntents, ACopyThatIsCutOffHasWhatIsWholeInIt) {
  const std::string before = contentsOf(sound_);
  const RecoveryPlan whole = planOf(crashed_);
  ASSERT_EQ(whole.intents.size(), 2u);
  for (size_t size = sound_.size(); size <= crashed_.size(); ++size) {
    const Bytes copy = crashed_.cut(size);
    const RecoveryPlan plan = planOf(copy);
    ASSERT_TRUE(plan.contradicted.empty()) << size;
    const std::string found = contentsOf(carriedOut(copy, plan));
    const auto at = static_cast<int64_t>(size);
    if (at < whole.intents[0].end) {
      ASSERT_EQ(found, before) << size;
    } else if (at < whole.intents[1].end) {
      ASSERT_NE(found, before) << size;
      ASSERT_NE(found, after_) << size;
    } else {
      ASSERT_EQ(found, after_);
    }
  }
}

TEST_F(HostileIntents, AnyByteOfWordAndIntentsCanBeDamaged) {
  const std::string before = contentsOf(sound_);
  const std::set<size_t> places = changeable(crashed_);
  const size_t apart = testEverything() ? 1 : 7;
  uint64_t states = 0;
  for (size_t at = 4558; at < crashed_.size(); at += apart) {
    if (at == 4582 + (at - 4558) % apart) at = sound_.size();
    if (at > 4581 && at < sound_.size()) at = sound_.size();
    for (const uint8_t bits : {uint8_t{0x01}, uint8_t{0x80}, uint8_t{0xFF}}) {
      Bytes file = crashed_;
      file[at] = static_cast<uint8_t>(file[at] ^ bits);
      const RecoveryPlan plan = planOf(file);
      for (const intents::PlannedWrite& write : plan.writes) {
        for (size_t i = 0; i < write.bytes.size(); ++i) {
          const size_t place = static_cast<size_t>(write.position) + i;
          ASSERT_TRUE(places.contains(place)) << "damage at " << at << " changes " << place;
        }
      }
      ++states;
    }
  }
  reportCount("damaged bytes of word and intents", states);
}

// Entries of an attacker, who can compute the checksums.
class Forger {
 public:
  // file     without intents
  // crashed  the same with those of real transactions
  Forger(const Bytes& file, const Bytes& crashed, uint64_t seed)
      : file_(file), crashed_(crashed), random_(seed) {}

  Bytes forged() { return below(2) == 0 ? invented() : changed(); }

 private:
  std::vector<unsigned char> databaseID() const { return {file_.begin() + 6, file_.begin() + 16}; }

  // The first intent of a real transaction, with other entries.
  Bytes changed() {
    const size_t begin = file_.size();
    const size_t size = 56 + crashed_.beAt(begin + 51, 4);
    const Bytes block = crashed_.at(begin, size);
    auto intent = format::decodeIntent({block.data(), block.size()}, databaseID().data());
    std::vector<IntentEntry>& entries = intent->entries;
    for (size_t count = below(4); count > 0; --count) {
      IntentEntry& entry = entries[below(entries.size())];
      format::PlaceBytes& value = below(3) == 0 ? entry.before : entry.after;
      switch (below(7)) {
        case 0:
          entry = entries[below(entries.size())];
          break;
        case 1:
          std::swap(entry, entries[below(entries.size())]);
          break;
        case 2:
          entry.slot = static_cast<uint8_t>(below(3));
          break;
        case 3:
          if (entry.position >= 4630) entry.position = anyLink();
          break;
        default:
          if (value.empty()) break;
          value[below(value.size())] = static_cast<unsigned char>(random_());
      }
    }
    const auto bytes = format::encodeIntent(*intent, databaseID().data(), 5000, 0);
    return Bytes(crashed_.cut(begin))
        .add(Bytes(bytes.begin(), bytes.end()))
        .add(crashed_.from(begin + size));
  }

  Bytes invented() {
    format::PendingWord word;
    word.start = static_cast<int64_t>(file_.size());
    Bytes result = file_;
    uint64_t sequence = 0;
    for (size_t count = 1 + below(3); count > 0; --count) {
      format::Intent intent;
      intent.nonce = word.nonce;
      intent.sequence = ++sequence;
      intent.synced = below(3);
      intent.position = static_cast<int64_t>(result.size());
      intent.lengthBefore = below(2) == 0 ? intent.position : anyPosition();
      const bool isEmpty = below(4) != 0;
      intent.blocksLength = isEmpty ? 0 : below(4) == 0 ? random_() : below(200);
      if (isEmpty) intent.blocksHash = format::BlocksHash().finish().value();
      for (size_t entries = below(12); entries > 0; --entries) {
        intent.entries.push_back(anyEntry());
      }
      const auto bytes = format::encodeIntent(intent, databaseID().data(), 5000, 0);
      result.add(Bytes(bytes.begin(), bytes.end()));
      if (intent.blocksLength < 200) result.zeros(static_cast<size_t>(intent.blocksLength));
    }
    const auto bytes = format::encodePendingWord(word, databaseID().data());
    return result.with(4558, Bytes(bytes.begin(), bytes.end()));
  }

  size_t below(size_t end) { return static_cast<size_t>(random_() % end); }

  int64_t anyPosition() {
    switch (below(6)) {
      case 0:
        return static_cast<int64_t>(random_());
      case 1:
        return 16;
      case 2:
        return 22 + 144 * static_cast<int64_t>(below(33));
      default:
        return static_cast<int64_t>(below(file_.size() + 600));
    }
  }

  // The link of a record, or something beside it.
  int64_t anyLink() {
    std::vector<size_t> links = linksBefore(file_, file_.size());
    return static_cast<int64_t>(links[below(links.size())] + (below(8) == 0 ? below(9) : 0));
  }

  IntentEntry anyEntry() {
    constexpr EntryKind kKinds[] = {EntryKind::patch, EntryKind::guard, EntryKind::guardByHash,
                                    EntryKind::backLink};
    constexpr size_t kLengths[] = {2, 4, 8, 8, 144};
    IntentEntry entry;
    entry.slot = static_cast<uint8_t>(below(6) == 0 ? below(256) : below(3));
    entry.kind = kKinds[below(4)];
    entry.position = below(2) == 0 ? anyLink() : anyPosition();
    size_t length = kLengths[below(5)];
    if (entry.position == 16) length = 2;
    if (entry.position == 22 + 144 * entry.slot) length = 144;
    if (entry.kind == EntryKind::guardByHash) length = 4;
    entry.before = valueAt(entry.position, length);
    const size_t after = entry.kind == EntryKind::guard         ? 0
                         : entry.kind == EntryKind::guardByHash ? 8
                                                                : length;
    entry.after = below(2) == 0 ? valueAt(anyLink(), after) : anyBytes(after);
    return entry;
  }

  std::vector<unsigned char> anyBytes(size_t count) {
    std::vector<unsigned char> bytes(count);
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random_());
    return bytes;
  }

  // What is there, mostly: then the place counts as untouched.
  std::vector<unsigned char> valueAt(int64_t position, size_t count) {
    const auto at = static_cast<uint64_t>(position);
    if (below(8) == 0 || at > file_.size() || count > file_.size() - at) return anyBytes(count);
    const auto begin = file_.begin() + static_cast<std::ptrdiff_t>(at);
    return {begin, begin + static_cast<std::ptrdiff_t>(count)};
  }

  const Bytes& file_;
  const Bytes& crashed_;
  std::mt19937_64 random_;
};

TEST_F(HostileIntents, ForgedOnesCanOnlyChangeWhatATransactionCan) {
  const uint64_t seed = randomSeed();
  const uint64_t count = testEverything() ? 100'000 : 2000;
  uint64_t writing = 0;
  for (uint64_t i = 0; i < count && !HasFailure(); ++i) {
    SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed + i));
    const Bytes file = Forger(sound_, crashed_, seed + i).forged();
    for (const Judging judging : {Judging::bySectors, Judging::byBytes}) {
      const RecoveryPlan plan = planOf(file, judging);
      if (!plan.writes.empty()) ++writing;
      const std::set<size_t> places = plan.writes.empty() ? std::set<size_t>() : changeable(file);
      for (const intents::PlannedWrite& write : plan.writes) {
        for (size_t k = 0; k < write.bytes.size(); ++k) {
          const size_t place = static_cast<size_t>(write.position) + k;
          ASSERT_TRUE(places.contains(place)) << "changes " << place;
        }
      }
    }
    if (i % 20 != 0) continue;
    writeFile(path("forged.qvd"), file);
    allowDamage("forged.qvd");
    static_cast<void>(qvdb::check(path("forged.qvd"), {}, {.retries = 0}));
    const std::string shown = shownOf(path("forged.qvd"));
    EXPECT_TRUE(sameBytes(contents("forged.qvd"), file)) << "reading has changed it";
    try {
      qvdb::Database database = qvdb::Database::open(path("forged.qvd"), qvdb::Mode::exclusive);
      for (const qvdb::Table& table : database.tables()) {
        for (const qvdb::Record& record : table.records()) static_cast<void>(record.payload());
      }
    } catch (const qvdb::Error&) {
    }
    EXPECT_EQ(contents("forged.qvd").size(), file.size());
    EXPECT_EQ(shown, shownOf(path("forged.qvd"))) << "it was not read as it is once completed";
  }
  EXPECT_GT(writing, count / 10);
  reportCount("forged intents", count);
  reportCount("of these, with something to write", writing);
}

TEST_F(HostileIntents, AreReadInATimeThatTheFileIsWorth) {
  const std::vector<unsigned char> id(sound_.begin() + 6, sound_.begin() + 16);
  for (const size_t guards : {size_t{1}, size_t{2}}) {
    format::PendingWord word;
    word.start = static_cast<int64_t>(sound_.size());
    format::Intent intent;
    intent.sequence = 1;
    intent.position = intent.lengthBefore = word.start;
    intent.blocksHash = format::BlocksHash().finish().value();
    // The rest of the file is hashed for each.
    const auto rest = static_cast<uint32_t>(sound_.size() - 4630);
    const Bytes length = Bytes().be(4, rest);
    const IntentEntry guard{0, EntryKind::guardByHash, 4630, length, format::PlaceBytes(8)};
    intent.entries.assign(guards, guard);
    const auto block = format::encodeIntent(intent, id.data(), 5000, 0);
    const auto bytes = format::encodePendingWord(word, id.data());
    const Bytes file = Bytes(sound_)
                           .add(Bytes(block.begin(), block.end()))
                           .with(4558, Bytes(bytes.begin(), bytes.end()));
    EXPECT_EQ(planOf(file).intents.size(), guards == 1 ? 1u : 0u);
  }
}

}  // namespace
}  // namespace qvdbase::test

// Changes in place of records with checksums, cut off anywhere: after any byte, and with any of the
// sectors that they write to old or new. A payload that counts as verified is wholly the old one or
// wholly the new one.
#include <qvdbase/qvdb.hpp>

#include <functional>
#include <map>
#include <random>

#include "kit/file_reader.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/test_extent.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Checksum;
using qvdb::Id;

constexpr Id kChanged{0xA1A2A3A4A5A6A7A8};

struct Change {
  const char* name;
  std::function<void(qvdb::Table&)> make;
};

// Payloads of several sectors, and of one.
std::vector<Change> changesOf(size_t size) {
  const auto modify = [](Bytes to) {
    return [to = std::move(to)](qvdb::Table& table) { table.modify(kChanged, span(to)); };
  };
  return {
      {"as many other bytes", modify(pattern(size, 7))},
      {"fewer bytes", modify(pattern(size / 2, 9))},
      {"none", modify({})},
      {"more bytes", modify(pattern(size + 90, 11))},
      {"the same bytes", modify(pattern(size, 1))},
      {"a part", [=](qvdb::Table& t) { t.write(kChanged, size / 3, span(pattern(size / 2, 5))); }},
      {"the time", [](qvdb::Table& t) { t.touch(kChanged); }},
  };
}

class ProtectedChanges : public LayerTest {
 protected:
  // A record between two others, which are near enough to share sectors with it.
  Bytes base(size_t size) {
    {
      auto database = createDatabase();
      auto table = database.add_table("t");
      table.add("before", Checksum::yes);
      table.add_with_id(kChanged, span(pattern(size, 1)), static_cast<uint32_t>(size + 100),
                        Checksum::yes);
      table.add("after", Checksum::yes);
    }
    return readFile(path());
  }

  static Bytes payloadIn(const Bytes& file) {
    return readDatabase(file).tables[0].records[1].fields.data();
  }

  // Counts the states in which the record counts as verified.
  void look(const Bytes& file) {
    ++states_;
    const qvdb::PayloadCounts counts =
        qvdb::check_image(std::as_bytes(std::span(file)), {}, {.payloads = true}).payloads;
    if (counts.verified < 3) return;
    ++verified_;
    const Bytes payload = payloadIn(file);
    ASSERT_TRUE(payload == old_ || payload == new_) << "neither the old payload nor the new one";
  }

  void prefixes(const Bytes& before, const std::vector<Write>& writes) {
    for (size_t n = 0; n <= byteCount(writes); ++n) look(applied(before, writes, n));
  }

  void sectors(const Bytes& before, const Bytes& after, size_t sector) {
    std::vector<size_t> changed;
    for (size_t at = 0; at < before.size(); at += sector) {
      const size_t count = std::min(sector, before.size() - at);
      if (before.at(at, count) != after.at(at, count)) changed.push_back(at);
    }
    ASSERT_LE(changed.size(), 12u);
    for (size_t chosen = 0; chosen < size_t{1} << changed.size(); ++chosen) {
      Bytes file = before;
      for (size_t i = 0; i < changed.size(); ++i) {
        if ((chosen >> i & 1) == 0) continue;
        file = file.with(changed[i],
                         after.at(changed[i], std::min(sector, after.size() - changed[i])));
      }
      look(file);
    }
  }

  // Each sector as any of the writes has left it, whatever the others are: all mixtures, or a
  // sample where they are many.
  void mixtures(const Bytes& before, const std::vector<Write>& writes, size_t sector) {
    std::map<size_t, std::vector<Bytes>> versions;
    for (size_t at = 0; at < before.size(); at += sector) {
      std::vector<Bytes> seen = {before.at(at, std::min(sector, before.size() - at))};
      for (size_t n = 1; n <= writes.size(); ++n) {
        const Bytes file = applied(before, {writes.begin(), writes.begin() + ptrdiff_t(n)});
        Bytes now = file.at(at, seen.front().size());
        if (now != seen.back()) seen.push_back(std::move(now));
      }
      if (seen.size() > 1) versions[at] = std::move(seen);
    }
    size_t all = 1;
    for (const auto& [at, seen] : versions) all = std::min(all * seen.size(), kSample + 1);
    for (size_t mixture = 0; mixture < std::min(all, kSample); ++mixture) {
      Bytes file = before;
      size_t rest = all <= kSample ? mixture : static_cast<size_t>(random_());
      for (const auto& [at, seen] : versions) {
        file = file.with(at, seen[rest % seen.size()]);
        rest /= seen.size();
      }
      look(file);
    }
  }
  static constexpr size_t kSample = 1000;

  void tryAll(const Change& change, size_t size, uint32_t later) {
    RecordedCalls host;
    host.setTime(5000);
    const Bytes before = base(size);
    old_ = payloadIn(before);
    host.setTime(5000 + later);
    host.forget();
    {
      auto database = openDatabase();
      auto table = database.table("t");
      change.make(table);
    }
    const std::vector<Write> writes = host.writes();
    const Bytes after = readFile(path());
    new_ = payloadIn(after);
    ASSERT_EQ(before.size(), after.size());
    states_ = verified_ = 0;
    prefixes(before, writes);
    sectors(before, after, 512);
    sectors(before, after, 4096);
    mixtures(before, writes, 512);
    mixtures(before, writes, 64);
    // The first state and the last one are among them.
    EXPECT_GE(verified_, 2u);
    allStates_ += states_;
    std::filesystem::remove(path());
  }

  uint64_t allStates_ = 0;

 private:
  Bytes old_;
  Bytes new_;
  uint64_t states_ = 0;
  uint64_t verified_ = 0;
  std::mt19937_64 random_{randomSeed()};
};

TEST_F(ProtectedChanges, AreVerifiedOnlyAsAWholeOrNotAtAll) {
  for (const size_t size : {size_t{40}, size_t{700}, size_t{1500}, size_t{5000}}) {
    if (size > 1500 && !testEverything()) continue;
    for (const Change& change : changesOf(size)) {
      for (const uint32_t later : {0u, 1u}) {
        SCOPED_TRACE(std::string(change.name) + " of " + std::to_string(size) + " bytes, " +
                     std::to_string(later) + " seconds later");
        tryAll(change, size, later);
      }
    }
  }
  reportCount("changes of protected payloads that were cut off", allStates_);
}

}  // namespace
}  // namespace qvdbase::test

// The file of kept indexes, without a database: what is written is found again, and nothing else.
#include "objects/kept/kept_pages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kit/random_seed.h"
#include "objects/kept/kept_writer.h"

namespace qvdbase::test {
namespace {

using namespace format::kept;
using qvdb::detail::KeptPages;
using qvdb::detail::KeptWriter;
using qvdb::detail::OrderedKeys;
using Place = OrderedKeys::Place;

constexpr int64_t kLargest = std::numeric_limits<int64_t>::max();
constexpr uint64_t kTable = 77;

// A file in memory.
struct MemoryFile {
  std::vector<unsigned char> bytes;
  uint64_t reads = 0;

  KeptWriter::WriteAt writeAt() {
    return [this](int64_t position, const unsigned char* from, size_t count) {
      const auto at = static_cast<size_t>(position);
      if (bytes.size() < at + count) bytes.resize(at + count);
      std::copy_n(from, count, bytes.begin() + position);
      return true;
    };
  }
  KeptPages::ReadAt readAt() {
    return [this](int64_t position, unsigned char* to, size_t count) {
      ++reads;
      if (position < 0 || static_cast<uint64_t>(position) + count > bytes.size()) return false;
      std::copy_n(bytes.begin() + position, count, to);
      return true;
    };
  }
  std::shared_ptr<KeptPages> open(std::string_view name = "n") {
    return KeptPages::open(readAt(), IndexKind::keys, kTable, name);
  }
};

using Pairs = std::set<std::pair<uint64_t, int64_t>>;
using Keys = std::set<std::pair<std::string, int64_t>>;

Head headFor(uint64_t entries, std::string name = "n") {
  Head head;
  head.kind = IndexKind::keys;
  head.table = kTable;
  head.entries = entries;
  head.name = std::move(name);
  return head;
}

MemoryFile fileOf(const Pairs& pairs, const Keys& keys = {}) {
  MemoryFile file;
  KeptWriter writer(file.writeAt(), 1000);
  writer.begin(headFor(pairs.size()));
  for (const auto& [hash, position] : pairs) writer.add({hash, position});
  for (const auto& [key, position] : keys) writer.addKey(key, position);
  writer.end();
  EXPECT_TRUE(writer.finish({}));
  return file;
}

std::vector<int64_t> listed(KeptPages& pages, uint64_t hash, int64_t after = 0,
                            size_t most = SIZE_MAX) {
  std::vector<int64_t> positions;
  pages.list(hash, after, most, &positions);
  return positions;
}

std::vector<int64_t> expected(const Pairs& pairs, uint64_t hash, int64_t after = 0,
                              size_t most = SIZE_MAX) {
  std::vector<int64_t> positions;
  for (auto at = pairs.upper_bound({hash, after});
       at != pairs.end() && at->first == hash && positions.size() < most; ++at) {
    positions.push_back(at->second);
  }
  return positions;
}

Keys listedKeys(KeptPages& pages, const Place& after, const std::string* to = nullptr,
                size_t most = SIZE_MAX) {
  std::vector<Place> places;
  pages.listKeys(after, to, most, &places);
  Keys keys;
  for (const Place& place : places) keys.emplace(place.key, place.position);
  EXPECT_EQ(keys.size(), places.size());
  return keys;
}

// As docs/kept-indexes.md has it.
uint64_t sumByHand(const unsigned char* bytes, size_t count) {
  const auto stir = [](uint64_t sum, uint64_t word) {
    sum ^= word;
    sum *= 0xD6E8FEB86659FD93u;
    return sum ^ sum >> 32;
  };
  uint64_t sums[4] = {1, 2, 3, count};
  const size_t whole = count / 32 * 32;
  for (size_t i = 0; i < whole; i += 8) {
    uint64_t word = 0;
    for (size_t j = 0; j < 8; ++j) word = word << 8 | bytes[i + j];
    sums[i / 8 % 4] = stir(sums[i / 8 % 4], word);
  }
  for (size_t i = whole; i < count; ++i)
    sums[(i - whole) / 8] = stir(sums[(i - whole) / 8], bytes[i]);
  uint64_t all = 0;
  for (const uint64_t sum : sums) all = stir(all, sum);
  return all;
}

uint64_t numberAt(const std::vector<unsigned char>& bytes, size_t at, size_t size) {
  uint64_t number = 0;
  for (size_t i = 0; i < size; ++i) number = number << 8 | bytes[at + i];
  return number;
}

TEST(KeptPages, AreTheBytesOfTheDescription) {
  const uint64_t high = uint64_t{3} << 62;
  const MemoryFile file = fileOf({{5, 4630}, {high, 5000}}, {{"Ada", 4630}, {"Bob", 5000}});
  const std::vector<unsigned char>& bytes = file.bytes;
  ASSERT_EQ(bytes.size(), 4u * 4096);  // front, head, hashes, keys
  for (size_t page = 0; page < 4; ++page) {
    const size_t at = page * 4096;
    EXPECT_EQ(std::memcmp(&bytes[at], "kidx\0\1\0", 7), 0) << page;
    EXPECT_EQ(numberAt(bytes, at + 6, 2), page + 1) << "the kind";
    EXPECT_EQ(numberAt(bytes, at + 4088, 8), sumByHand(&bytes[at], 4088)) << page;
  }
  // The front: one section of three pages from page 1 on, of generation 1000.
  EXPECT_EQ(numberAt(bytes, 24, 2), 1u);
  EXPECT_EQ(numberAt(bytes, 40, 8), 1u);
  EXPECT_EQ(numberAt(bytes, 48, 8), 3u);
  EXPECT_EQ(numberAt(bytes, 56, 8), 1000u);
  EXPECT_EQ(numberAt(bytes, 64, 8), kTable);
  EXPECT_EQ(numberAt(bytes, 80, 8), 2u) << "of keys";
  // The hashes: page 1 of the section, two entries.
  const size_t hashes = 2 * 4096;
  EXPECT_EQ(numberAt(bytes, hashes + 8, 8), 1000u);
  EXPECT_EQ(numberAt(bytes, hashes + 16, 8), 1u);
  EXPECT_EQ(numberAt(bytes, hashes + 24, 2), 2u);
  EXPECT_EQ(numberAt(bytes, hashes + 40, 8), 5u);
  EXPECT_EQ(numberAt(bytes, hashes + 48, 8), 4630u);
  EXPECT_EQ(numberAt(bytes, hashes + 56, 8), high);
  EXPECT_EQ(numberAt(bytes, hashes + 64, 8), 5000u);
  // The keys: length, bytes, position.
  const size_t keys = 3 * 4096 + 40;
  EXPECT_EQ(numberAt(bytes, keys, 4), 3u);
  EXPECT_EQ(std::memcmp(&bytes[keys + 4], "Ada", 3), 0);
  EXPECT_EQ(numberAt(bytes, keys + 7, 8), 4630u);
  EXPECT_EQ(std::memcmp(&bytes[keys + 19], "Bob", 3), 0);
}

TEST(KeptPages, AgreeWithAModelAboutEveryHash) {
  std::mt19937_64 random(randomSeed());
  for (const uint64_t number : {0u, 1u, 199u, 253u, 254u, 3000u}) {
    Pairs pairs;
    std::vector<uint64_t> hashes = {0, 1, ~uint64_t{0}};
    while (pairs.size() < number) {
      // Some hashes have many positions, at both ends and in between.
      const uint64_t hash = random() % 4 != 0 ? random() : hashes[random() % hashes.size()];
      if (random() % 16 == 0) hashes.push_back(hash);
      pairs.emplace(hash, static_cast<int64_t>(1 + random() % 100'000));
    }
    MemoryFile file = fileOf(pairs);
    const auto pages = file.open();
    ASSERT_NE(pages, nullptr);
    EXPECT_EQ(pages->head().entries, pairs.size());
    std::vector<uint64_t> asked = hashes;
    for (const auto& [hash, position] : pairs)
      asked.insert(asked.end(), {hash, hash + 1, hash - 1});
    for (const uint64_t hash : asked) {
      ASSERT_EQ(listed(*pages, hash), expected(pairs, hash)) << hash;
      const auto after = static_cast<int64_t>(random() % 100'000);
      const size_t most = random() % 5;
      ASSERT_EQ(listed(*pages, hash, after, most), expected(pairs, hash, after, most)) << hash;
    }
    EXPECT_TRUE(listed(*pages, 0, kLargest).empty());
    KeptPages::Cursor cursor(*pages);
    Pairs all;
    for (HashEntry entry; cursor.next(&entry);) all.emplace(entry.hash, entry.position);
    EXPECT_EQ(all, pairs);
    EXPECT_FALSE(pages->isBroken());
  }
}

TEST(KeptPages, ListAKeyOfAHundredThousandRecordsInPiecesOfAFewPages) {
  Pairs pairs;
  const uint64_t crowded = uint64_t{1} << 63;
  for (int64_t i = 1; i <= 100'000; ++i) pairs.emplace(crowded, i);
  for (uint64_t i = 0; i < 100'000; ++i) pairs.emplace(i << 47, 7);
  MemoryFile file = fileOf(pairs);
  const auto pages = file.open();
  int64_t after = 0;
  int64_t seen = 0;
  for (;;) {
    const uint64_t before = pages->pagesRead();
    const std::vector<int64_t> some = listed(*pages, crowded, after, 64);
    EXPECT_LE(pages->pagesRead() - before, 24u);
    if (some.empty()) break;
    for (const int64_t position : some) ASSERT_EQ(position, ++seen);
    after = some.back();
  }
  EXPECT_EQ(seen, 100'000 + 1 - 1);
  // A hash whose home is within that run is beyond it.
  const uint64_t beyond = (uint64_t{1} << 63) + (uint64_t{200} << 47);
  const uint64_t before = pages->pagesRead();
  EXPECT_EQ(listed(*pages, beyond), expected(pairs, beyond));
  EXPECT_LE(pages->pagesRead() - before, 24u);
}

TEST(KeptPages, ReadAsManyPagesForALookupWhateverTheirNumber) {
  for (const uint64_t number : {10'000u, 100'000u, 1'000'000u}) {
    std::mt19937_64 random(5);
    std::vector<HashEntry> entries;
    for (uint64_t i = 0; i < number; ++i)
      entries.push_back({random(), static_cast<int64_t>(1 + i)});
    std::sort(entries.begin(), entries.end());
    MemoryFile file;
    KeptWriter writer(file.writeAt(), 1);
    writer.begin(headFor(number));
    for (const HashEntry& entry : entries) writer.add(entry);
    writer.end();
    ASSERT_TRUE(writer.finish({}));
    EXPECT_LE(file.bytes.size(), number * 21 + 3 * 4096) << "bytes for each entry";
    const uint64_t before = file.reads;
    const auto pages = file.open();
    EXPECT_EQ(listed(*pages, entries[number / 3].hash).size(), 1u);
    EXPECT_EQ(file.reads - before, 3u) << "front, head, one page of hashes: " << number;
    uint64_t most = 0;
    for (int i = 0; i < 2000; ++i) {
      const uint64_t reads = file.reads;
      listed(*pages, random());
      most = std::max(most, file.reads - reads);
    }
    EXPECT_LE(most, 2u);
    EXPECT_LE(pages->bytes(), 40'000u);
  }
}

TEST(KeptPages, ListKeysOfAnyLengthInOrder) {
  std::mt19937_64 random(randomSeed());
  for (const size_t number : {0u, 1u, 3u, 500u}) {
    Keys keys;
    while (keys.size() < number) {
      const size_t length = random() % 20 == 0 ? random() % 20'000 : random() % 12;
      std::string key(length, 'a');
      for (char& c : key) c = static_cast<char>(random() % 3 == 0 ? random() : 'a');
      for (uint64_t i = 0; i <= random() % 3; ++i) {
        keys.emplace(key, static_cast<int64_t>(1 + random() % 1000));
      }
    }
    MemoryFile file = fileOf({{1, 1}}, keys);
    const auto pages = file.open();
    EXPECT_EQ(listedKeys(*pages, {"", 0}), keys);
    for (const auto& [key, position] : keys) {
      const std::string to = key + "b";
      for (const int64_t after : {int64_t{0}, position, kLargest}) {
        const auto begin = keys.upper_bound({key, after});
        const auto end = keys.lower_bound({to, -1});
        ASSERT_EQ(listedKeys(*pages, {key, after}, &to), Keys(begin, end));
      }
      auto begin = keys.upper_bound({key, position});
      const auto two = std::distance(begin, keys.end()) < 2 ? keys.end() : std::next(begin, 2);
      ASSERT_EQ(listedKeys(*pages, {key, position}, nullptr, 2), Keys(begin, two));
    }
    EXPECT_FALSE(pages->isBroken());
  }
}

// Every answer of a file with another byte somewhere is right, or is none.
TEST(KeptPages, AnswerRightOrNotAtAllWithAnyByteChanged) {
  Pairs pairs;
  Keys keys;
  std::mt19937_64 random(randomSeed());
  for (int64_t i = 1; i <= 300; ++i) {
    pairs.emplace(random(), i);
    keys.emplace("key" + std::to_string(i), i);
  }
  const MemoryFile good = fileOf(pairs, keys);
  for (size_t at = 0; at < good.bytes.size(); at += 1 + random() % 4) {
    MemoryFile file = good;
    file.bytes[at] ^= static_cast<unsigned char>(1 + random() % 255);
    const auto pages = file.open();
    if (pages == nullptr) continue;
    const auto& [hash, position] = *std::next(pairs.begin(), static_cast<long>(at % 300));
    const bool isFound = !listed(*pages, hash).empty();
    ASSERT_TRUE(isFound || pages->isBroken()) << at;
    const Keys found = listedKeys(*pages, {"", 0});
    ASSERT_TRUE(found == keys || pages->isBroken()) << at;
    for (const auto& each : found) ASSERT_TRUE(keys.contains(each)) << at;
  }
}

TEST(KeptPages, AreBrokenWhereTheFileEndsOrHasAPageOfAnotherOne) {
  Pairs pairs;
  for (uint64_t i = 0; i < 2000; ++i) pairs.emplace(i << 53, static_cast<int64_t>(i + 1));
  const MemoryFile good = fileOf(pairs);
  for (size_t size = 0; size < good.bytes.size(); size += 2048) {
    MemoryFile cut = good;
    cut.bytes.resize(size);
    const auto pages = cut.open();
    if (pages == nullptr) continue;
    for (const auto& [hash, position] : pairs) {
      ASSERT_TRUE(!listed(*pages, hash).empty() || pages->isBroken());
    }
    EXPECT_TRUE(pages->isBroken());
  }
  // The same page of another generation, and another page of this one.
  MemoryFile other;
  KeptWriter writer(other.writeAt(), 2000);
  writer.begin(headFor(2000));
  for (uint64_t i = 0; i < 2000; ++i) writer.add({i << 53, 9});
  writer.end();
  ASSERT_TRUE(writer.finish({}));
  for (const bool isOther : {true, false}) {
    MemoryFile mixed = good;
    const auto* from = isOther ? &other.bytes[3 * 4096] : &good.bytes[4 * 4096];
    std::copy_n(from, 4096, mixed.bytes.begin() + 3 * 4096);
    const auto pages = mixed.open();
    ASSERT_NE(pages, nullptr);
    for (const auto& [hash, position] : pairs) {
      const std::vector<int64_t> found = listed(*pages, hash);
      ASSERT_TRUE(pages->isBroken() || found == std::vector{position});
    }
    EXPECT_TRUE(pages->isBroken());
  }
}

// Pages with right sums and nonsense in them: someone who knows how they are made. Whatever is
// listed, it ends and stays inside the pages.
TEST(KeptPages, EndEveryListOfPagesThatWereMadeToConfuse) {
  std::mt19937_64 random(randomSeed());
  for (int round = 0; round < 400; ++round) {
    MemoryFile file = fileOf({{1, 1}, {2, 2}});
    const uint64_t hashPages = 1 + random() % 6;
    const uint64_t keyPages = random() % 6;
    Head head = headFor(0);
    head.homes = 1 + random() % hashPages;
    head.hashPages = hashPages;
    head.keyPages = keyPages;
    head.keyBytes = keyPages == 0 ? 0 : random() % (keyPages * kContentSize + 1);
    const uint64_t claimed = random() % 8 == 0 ? uint64_t{1} << 40 : 0;  // pages that are not there
    head.hashPages += claimed;
    const Section section = {1,
                             1 + head.hashPages + keyPages,
                             9,
                             kTable,
                             sumOf(reinterpret_cast<const unsigned char*>("n"), 1),
                             IndexKind::keys};
    file.bytes.clear();
    const auto append = [&file](const Page& page) {
      file.bytes.insert(file.bytes.end(), page.begin(), page.end());
    };
    append(frontPage({section}, 1));
    append(headPage(head, 9));
    for (uint64_t i = 0; i < hashPages + keyPages; ++i) {
      Page page;
      for (unsigned char& byte : page) {
        byte = static_cast<unsigned char>(random() % 4 == 0 ? random() : random() % 2 * 255);
      }
      const bool isKeys = i >= hashPages;
      seal(page,
           {.kind = isKeys ? PageKind::keys : PageKind::hashes,
            .generation = 9,
            .number = 1 + i + (isKeys ? claimed : 0),
            .count = static_cast<uint16_t>(random() % 254),
            .spills = random() % 2 == 0,
            .first = random() % 2 == 0 ? kNone : static_cast<uint32_t>(random() % kContentSize),
            .before = random() % 6});
      append(page);
    }
    for (int i = 0; i < 20; ++i) {
      const auto pages = file.open();
      ASSERT_NE(pages, nullptr);
      listed(*pages, random() % 2 == 0 ? random() : ~uint64_t{0}, 0, 1 + random() % 2000);
      std::vector<Place> places;
      pages->listKeys({std::string(random() % 3, '\xFF'), 0}, nullptr, 1 + random() % 2000,
                      &places);
      KeptPages::Cursor cursor(*pages);
      for (HashEntry entry; cursor.next(&entry);) {
      }
    }
  }
}

TEST(KeptWriter, KeepsSeveralSectionsAndCopiesThoseOfAnotherFile) {
  MemoryFile old = fileOf({{1, 10}}, {{"a", 10}});
  MemoryFile file;
  KeptWriter writer(file.writeAt(), 5000);
  writer.begin(headFor(1, "first"));
  writer.add({3, 30});
  writer.add({3, 30});
  writer.end();
  const auto oldPages = old.open();
  writer.copy(old.readAt(), oldPages->section());
  writer.begin(headFor(1, "third"));
  writer.add({4, 40});
  writer.end();
  Stamp stamp;
  stamp.size = 123;
  ASSERT_TRUE(writer.finish(stamp));
  EXPECT_EQ(file.bytes.size(), writer.bytes());
  EXPECT_EQ(listed(*file.open("first"), 3), std::vector<int64_t>{30});
  EXPECT_EQ(file.open("first")->head().entries, 1u);
  EXPECT_EQ(file.open("first")->head().stamp, stamp);
  EXPECT_EQ(listed(*file.open("third"), 4), std::vector<int64_t>{40});
  const auto copied = file.open();
  EXPECT_EQ(copied->head().stamp, Stamp{});
  EXPECT_EQ(listed(*copied, 1), std::vector<int64_t>{10});
  EXPECT_EQ(listedKeys(*copied, {"", 0}), (Keys{{"a", 10}}));
  EXPECT_EQ(file.open("second"), nullptr);
}

TEST(KeptWriter, WritesNothingMoreAfterAFailure) {
  int writes = 0;
  KeptWriter writer([&writes](int64_t, const unsigned char*, size_t) { return ++writes == 0; }, 1);
  writer.begin(headFor(2'000'000));
  writer.add({1, 1});
  writer.add({~uint64_t{0}, 2});
  writer.end();
  EXPECT_FALSE(writer.finish({}));
  EXPECT_EQ(writes, 1);
}

}  // namespace
}  // namespace qvdbase::test

// Intents and the pending word, byte for byte.
#include "format/intent.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "kit/bytes.h"
#include "support/xxh3.h"

namespace qvdbase::format {
namespace {

using test::Bytes;
using test::hex;

const Bytes kDatabase = hex("0102 0304 0506 0708 0024");

Bytes hash128(const Bytes& bytes) {
  const support::Hash128 hash = support::xxh3_128(bytes.data(), bytes.size());
  return Bytes().be(8, hash.high).be(8, hash.low);
}

Bytes bytesOf(const std::vector<unsigned char>& bytes) {
  return {bytes.begin(), bytes.end()};
}

Bytes wordBytes() {
  Bytes word = Bytes().le(8, 5000).add(hex("A1A2 A3A4 A5A6 A7A8"));
  Bytes hashed = kDatabase;
  hashed.add(word);
  return word.be(8, support::xxh3_64(hashed.data(), hashed.size()));
}

WordBytes asWord(const Bytes& bytes) {
  WordBytes word;
  std::copy(bytes.begin(), bytes.end(), word.begin());
  return word;
}

TEST(PendingWordBytes, AreTheStartTheNonceAndTheirHash) {
  const PendingWord word{5000, {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8}};
  EXPECT_EQ(encodePendingWord(word, kDatabase.data()), asWord(wordBytes()));
  const auto read = decodePendingWord(asWord(wordBytes()), kDatabase.data());
  ASSERT_TRUE(read);
  EXPECT_EQ(read->start, 5000);
  EXPECT_EQ(read->nonce, word.nonce);
}

TEST(PendingWordBytes, AreNoWordWhenABitDiffers) {
  for (size_t bit = 0; bit < 24 * 8; ++bit) {
    Bytes changed = wordBytes();
    changed[bit / 8] = static_cast<uint8_t>(changed[bit / 8] ^ 1u << bit % 8);
    EXPECT_FALSE(decodePendingWord(asWord(changed), kDatabase.data())) << bit;
  }
  EXPECT_FALSE(decodePendingWord(asWord(wordBytes()), hex("0102 0304 0506 0709 0025").data()));
}

TEST(PendingWordBytes, NameNoPlaceInsideTheDirectory) {
  const WordBytes inside = encodePendingWord({4629, {}}, kDatabase.data());
  EXPECT_FALSE(decodePendingWord(inside, kDatabase.data()));
  EXPECT_TRUE(decodePendingWord(encodePendingWord({4630, {}}, kDatabase.data()), kDatabase.data()));
}

// A transaction that has added one record after another in the table of slot 3.
Intent oneRecordAdded() {
  Intent intent;
  intent.flags = kIntentIsSynced;
  intent.nonce = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};
  intent.sequence = 2;
  intent.synced = 1;
  intent.position = 0x2000;
  intent.lengthBefore = 0x1F00;
  intent.blocksLength = 0x40;
  intent.blocksHash = {.low = 0x1112131415161718, .high = 0x0102030405060708};
  intent.entries.push_back({3, EntryKind::patch, 0x1327, Bytes().be(8, 0), Bytes().be(8, 0x2100)});
  intent.entries.push_back({3, EntryKind::guard, 0x1330, Bytes().be(4, 7), {}});
  return intent;
}

Bytes oneRecordAddedBytes() {
  Bytes entries = hex("03 01 0008 0000000000001327 0000000000000000 0000000000002100");
  entries.add(hex("03 02 0004 0000000000001330 00000007"));
  const size_t payload = 104 + entries.size();
  Bytes head = hex("87 0040").text("QVintent").be(2, 0x339);
  head.be(8, 2).be(2, 2).be(4, 77).be(4, 77).be(8, 0x1E00).be(8, 0);
  head.be(4, payload).be(4, payload);
  Bytes fixed = Bytes().text("QVtx").add(hex("00 02 0D 0A")).add(kDatabase).add(hex("01 00"));
  fixed.be(4, 2).add(hex("A1A2 A3A4 A5A6 A7A8")).be(8, 2).be(8, 1);
  fixed.be(8, 0x2000).be(8, 0x1F00).be(8, 0x40);
  fixed.be(8, 0x0102030405060708).be(8, 0x1112131415161718);
  Bytes block = head;
  block.add(fixed);
  Bytes hashed = block;
  hashed.add(entries);
  return block.add(hash128(hashed)).add(entries).text("i");
}

TEST(IntentBytes, AreAWholeRecordBlock) {
  const Bytes expected = oneRecordAddedBytes();
  EXPECT_EQ(bytesOf(encodeIntent(oneRecordAdded(), kDatabase.data(), 77, 0x1E00)), expected);
  EXPECT_EQ(intentBlockSize(oneRecordAdded().entries), static_cast<int64_t>(expected.size()));
}

TEST(IntentBytes, AreReadBack) {
  const auto read = decodeIntent(oneRecordAddedBytes(), kDatabase.data());
  ASSERT_TRUE(read);
  const Intent intent = oneRecordAdded();
  EXPECT_EQ(read->sequence, 2u);
  EXPECT_EQ(read->synced, 1u);
  EXPECT_EQ(read->position, 0x2000);
  EXPECT_EQ(read->lengthBefore, 0x1F00);
  EXPECT_EQ(read->blocksLength, 0x40u);
  EXPECT_EQ(read->blocksHash, intent.blocksHash);
  EXPECT_EQ(read->nonce, intent.nonce);
  ASSERT_EQ(read->entries.size(), 2u);
  EXPECT_EQ(read->entries[0].slot, 3);
  EXPECT_EQ(read->entries[0].position, 0x1327);
  EXPECT_EQ(read->entries[0].after, intent.entries[0].after);
  EXPECT_EQ(read->entries[1].kind, EntryKind::guard);
  EXPECT_EQ(read->entries[1].before, intent.entries[1].before);
}

TEST(IntentBytes, AreNoIntentWhenABitDiffersOutsideOfTheState) {
  const Bytes whole = oneRecordAddedBytes();
  const size_t state = 55 + 19;
  for (size_t bit = 0; bit < whole.size() * 8; ++bit) {
    Bytes changed = whole;
    changed[bit / 8] = static_cast<uint8_t>(changed[bit / 8] ^ 1u << bit % 8);
    const auto read = decodeIntent(changed, kDatabase.data());
    EXPECT_EQ(read.has_value(), bit / 8 == state) << bit;
  }
}

TEST(IntentBytes, AreNoIntentWhereTheyAreCutOrOfAnotherDatabase) {
  const Bytes whole = oneRecordAddedBytes();
  for (size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(decodeIntent(whole.cut(size), kDatabase.data())) << size;
  }
  EXPECT_FALSE(decodeIntent(whole, hex("0102 0304 0506 0709 0025").data()));
}

// Bytes whose hash is right, made by an enemy.
bool isTaken(const IntentEntry& entry) {
  Intent intent;
  intent.entries.push_back(entry);
  return decodeIntent(encodeIntent(intent, kDatabase.data(), 0, 0), kDatabase.data()).has_value();
}

TEST(IntentBytes, ChangeNothingButWholePlaces) {
  const auto bytes = [](size_t size) { return std::vector<unsigned char>(size); };
  EXPECT_TRUE(isTaken({0, EntryKind::patch, 16, bytes(2), bytes(2)}));      // the table count
  EXPECT_TRUE(isTaken({0, EntryKind::patch, 22, bytes(144), bytes(144)}));  // a slot
  EXPECT_TRUE(isTaken({0, EntryKind::backLink, 5000, bytes(8), bytes(8)}));
  EXPECT_TRUE(isTaken({0, EntryKind::guardByHash, 5000, bytes(4), bytes(8)}));
  EXPECT_FALSE(isTaken({0, EntryKind::patch, 0, bytes(2), bytes(2)}));  // the signature
  EXPECT_FALSE(isTaken({0, EntryKind::patch, 4, bytes(2), bytes(2)}));  // the version
  EXPECT_FALSE(isTaken({0, EntryKind::patch, 16, bytes(8), bytes(8)}));
  EXPECT_FALSE(isTaken({0, EntryKind::patch, 22, bytes(8), bytes(8)}));
  EXPECT_FALSE(isTaken({0, EntryKind::patch, 5000, bytes(4), bytes(4)}));
  EXPECT_FALSE(isTaken({0, EntryKind::patch, 5000, bytes(0), bytes(0)}));
  EXPECT_FALSE(isTaken({0, EntryKind::patch, -8, bytes(8), bytes(8)}));
  EXPECT_FALSE(isTaken({0, EntryKind::guard, 5000, bytes(16), {}}));
  EXPECT_FALSE(isTaken({0, EntryKind::guardByHash, 5000, bytes(8), bytes(8)}));
}

Bytes recordBlock(uint64_t links, const Bytes& payload) {
  Bytes block = hex("87 0040").fill(20, 5).be(4, 1).be(4, 2).be(8, links).be(8, links);
  return block.be(4, payload.size()).be(4, payload.size()).add(payload).text("i");
}

Bytes dataBlock(const Bytes& data) {
  return hex("96 0020").fill(10, 5).be(4, data.size()).be(4, data.size()).add(data).text("i");
}

std::optional<support::Hash128> hashInPieces(const Bytes& bytes, size_t piece) {
  BlocksHash hash;
  for (size_t at = 0; at < bytes.size(); at += piece) {
    hash.add(std::span(bytes).subspan(at, std::min(piece, bytes.size() - at)));
  }
  return hash.finish();
}

TEST(HashOfBlocks, TakesLinksForZeros) {
  const Bytes long1 = test::pattern(300, 1);
  Bytes blocks = recordBlock(0x1234, long1);
  blocks.add(dataBlock(hex("0102"))).add(recordBlock(0x77, {})).add(dataBlock({}));
  Bytes zeros = recordBlock(0, long1);
  zeros.add(dataBlock(hex("0102"))).add(recordBlock(0, {})).add(dataBlock({}));
  const support::Hash128 expected = support::xxh3_128(zeros.data(), zeros.size());
  for (const size_t piece : {1u, 2u, 7u, 20u, 21u, 22u, 54u, 55u, 56u, 1000u}) {
    EXPECT_EQ(hashInPieces(blocks, piece), expected) << piece;
  }
}

TEST(HashOfBlocks, IsNoneOfBytesThatAreNotWholeBlocks) {
  Bytes blocks = recordBlock(0, hex("01"));
  blocks.add(dataBlock(hex("02")));
  for (size_t size = 1; size < blocks.size(); ++size) {
    if (size == 57) continue;  // the first block
    EXPECT_FALSE(hashInPieces(blocks.cut(size), 1000)) << size;
  }
  EXPECT_TRUE(hashInPieces({}, 1000));
  Bytes markless = blocks;
  markless[56] = 'x';
  EXPECT_FALSE(hashInPieces(markless, 1000));
}

}  // namespace
}  // namespace qvdbase::format

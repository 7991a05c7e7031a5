// The hash XXH3, compared with another implementation of it where there is one, and with numbers
// that this one has printed where there is none.
#include "support/xxh3.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "kit/random_seed.h"

#if __has_include(<xxhash.h>)
#define XXH_INLINE_ALL
#include <xxhash.h>
#endif

namespace qvdbase::test {
namespace {

using support::Hash128;
using support::Xxh3;
using Data = std::vector<unsigned char>;

Data patternOf(size_t size) {
  Data data(size);
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<unsigned char>(i * 131 + 7);
  return data;
}

Data randomData(size_t size, std::mt19937_64& random) {
  Data data(size);
  for (unsigned char& byte : data) byte = static_cast<unsigned char>(random());
  return data;
}

// One for each formula, at its borders.
TEST(Xxh3, HasTheKnownHashesOfAPattern) {
  struct Known {
    size_t size;
    uint64_t hash64;
    Hash128 hash128;
  };
  const Known all[] = {
      {0, 0x2D06800538D394C2, {0x6001C324468D497F, 0x99AA06D3014798D8}},
      {1, 0x4C5CCA45D0F4811F, {0x4C5CCA45D0F4811F, 0x495B62073EF70CA4}},
      {3, 0x6E3E2670E61106AC, {0x6E3E2670E61106AC, 0x390CDC5B4A895DD7}},
      {4, 0x5C4C63133443D03F, {0x3D668AF6F2A44D77, 0xAA6E2F274640A3F4}},
      {8, 0xF9FD4DD0B04D78F5, {0x61DDBE7F31A6100D, 0x6A86A3BDA6AF4E3D}},
      {9, 0x7C20DF9712C26EDF, {0x8C7B67FD458A936B, 0x664C7CA18AFD6255}},
      {16, 0x86ABF6BACCEA0858, {0xE2CE54A7C19C730D, 0x7F9A218B0425449A}},
      {17, 0xB58BF5DC5022D071, {0x8D96EF110FCDEBB4, 0x66FC23F6439DBD77}},
      {128, 0x10D17F72C0CCBA41, {0xFF361DEC1385710A, 0xAEC730751478556C}},
      {129, 0x1648BDC3DB49D1A2, {0x4545B3A09738E31A, 0x98CD36CCBB557926}},
      {240, 0xB6CFAF343FAB81E6, {0x3F2C53E72293711F, 0x5293E17BF553903D}},
      {241, 0x956CAE592C67279E, {0x956CAE592C67279E, 0xB53840FE3FEDF161}},
      {1024, 0x70BD377D9574F4BB, {0x70BD377D9574F4BB, 0xF69630613F24324D}},
      {1025, 0x66C4487C41E127A7, {0x66C4487C41E127A7, 0x621AF7B8277EFFA4}},
      {5000, 0xE4007929540F095C, {0xE4007929540F095C, 0x61BEDB627E4A5FDF}},
  };
  for (const Known& known : all) {
    const Data data = patternOf(known.size);
    EXPECT_EQ(support::xxh3_64(data.data(), data.size()), known.hash64) << known.size;
    EXPECT_EQ(support::xxh3_128(data.data(), data.size()), known.hash128) << known.size;
  }
}

TEST(Xxh3, HashesAnyPiecesLikeTheWhole) {
  std::mt19937_64 random(randomSeed());
  // Longest pieces: around a stripe, the buffer and a block of the hash.
  const size_t longest[] = {1, 3, 63, 64, 65, 255, 256, 257, 320, 1024, 1025, 5000};
  for (size_t round = 0; round < 1200; ++round) {
    const Data data = randomData(random() % 4000, random);
    const size_t most = longest[round % std::size(longest)];
    Xxh3 hash;
    for (size_t done = 0; done < data.size();) {
      const size_t piece = std::min(data.size() - done, size_t{random() % (most + 1)});
      hash.add(data.data() + done, piece);
      done += piece;
    }
    ASSERT_EQ(hash.size(), data.size());
    ASSERT_EQ(hash.result64(), support::xxh3_64(data.data(), data.size())) << data.size();
    ASSERT_EQ(hash.result128(), support::xxh3_128(data.data(), data.size())) << data.size();
  }
}

TEST(Xxh3, TakesMoreBytesAfterAResult) {
  const Data data = patternOf(2000);
  Xxh3 hash;
  for (size_t size = 0; size <= data.size(); ++size) {
    ASSERT_EQ(hash.result64(), support::xxh3_64(data.data(), size)) << size;
    ASSERT_EQ(hash.result128(), support::xxh3_128(data.data(), size)) << size;
    if (size < data.size()) hash.add(&data[size], 1);
  }
  hash.clear();
  EXPECT_EQ(hash.result64(), support::xxh3_64(nullptr, 0));
}

// Every bit of the input counts: one that is flipped gives another hash.
TEST(Xxh3, NoticesEachFlippedBit) {
  for (const size_t size : {1u, 5u, 12u, 100u, 200u, 300u, 1100u}) {
    Data data = patternOf(size);
    const uint64_t hash64 = support::xxh3_64(data.data(), size);
    const Hash128 hash128 = support::xxh3_128(data.data(), size);
    for (size_t bit = 0; bit < size * 8; ++bit) {
      data[bit / 8] = static_cast<unsigned char>(data[bit / 8] ^ 1 << bit % 8);
      ASSERT_NE(support::xxh3_64(data.data(), size), hash64) << bit;
      const Hash128 other = support::xxh3_128(data.data(), size);
      ASSERT_NE(other.low, hash128.low) << bit;
      ASSERT_NE(other.high, hash128.high) << bit;
      data[bit / 8] = static_cast<unsigned char>(data[bit / 8] ^ 1 << bit % 8);
    }
  }
}

#ifdef XXH_INLINE_ALL
void expectLikeTheOther(const unsigned char* data, size_t size) {
  const XXH128_hash_t other = XXH3_128bits(data, size);
  ASSERT_EQ(support::xxh3_64(data, size), XXH3_64bits(data, size)) << size;
  ASSERT_EQ(support::xxh3_128(data, size), (Hash128{other.low64, other.high64})) << size;
}

TEST(Xxh3, IsThatOfTheLibraryForEachLength) {
  std::mt19937_64 random(randomSeed());
  const Data data = randomData(2048 + 8, random);
  for (size_t size = 0; size <= 2048; ++size) expectLikeTheOther(data.data() + size % 8, size);
}

TEST(Xxh3, IsThatOfTheLibraryForLargeInputs) {
  std::mt19937_64 random(randomSeed());
  const Data data = randomData(1 << 20, random);
  for (int round = 0; round < 40; ++round) {
    const size_t from = random() % 1000;
    expectLikeTheOther(data.data() + from, random() % (data.size() - from));
  }
  for (size_t blocks = 1; blocks < 200; ++blocks) {
    for (const size_t beside : {size_t{0}, size_t{1}, size_t{2}}) {
      expectLikeTheOther(data.data(), blocks * 1024 + beside - 1);
    }
  }
}
#endif

}  // namespace
}  // namespace qvdbase::test

// Identifiers: eight identity bytes, their sum, and their 64-bit number.
#include "format/identifiers.h"
#include "kit/layers.h"

#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>

#include <cstdlib>
#include <set>

#include "kit/bytes.h"
#include "kit/fake_host.h"

namespace qvdbase::test {
namespace {

Bytes tenBytesOf(uint64_t number) {
  Bytes id(10, 0xEE);
  EXPECT_EQ(internal_ConvertInt64_2UuID(number, id.data()), 1);
  return id;
}

uint64_t numberOf(const Bytes& id) {
  uint64_t number = 0xEEEEEEEEEEEEEEEE;
  EXPECT_EQ(internal_ConvertUuID_2Int64(id.data(), &number), 1);
  return number;
}

Bytes generated() {
  Bytes id(10, 0xEE);
  EXPECT_EQ(GenerateUuID(id.data()), 1);
  return id;
}

TEST(IdentifierFromNumber, OfZeroIsTenZeroBytes) {
  EXPECT_EQ(tenBytesOf(0), hex("0000000000000000 0000"));
}

TEST(IdentifierFromNumber, OfTheLargestNumberEndsInItsSum) {
  EXPECT_EQ(tenBytesOf(0xFFFFFFFFFFFFFFFF), hex("FFFFFFFFFFFFFFFF 07F8"));
}

TEST(IdentifierFromNumber, PutsTheMostSignificantByteFirst) {
  EXPECT_EQ(tenBytesOf(0x0102030405060708), hex("0102030405060708 0024"));
}

TEST(IdentifierFromNumber, CarriesTheSumIntoItsHighByte) {
  EXPECT_EQ(tenBytesOf(0xFF02000000000000), hex("FF02000000000000 0101"));
}

TEST(IdentifierFromNumber, RefusesNull) {
  EXPECT_EQ(internal_ConvertInt64_2UuID(5, nullptr), 0);
}

TEST(IdentifierNumber, ReadsTheIdentityBytesMostSignificantFirst) {
  EXPECT_EQ(numberOf(hex("8000000000000001 0081")), 0x8000000000000001u);
}

TEST(IdentifierNumber, DoesNotLookAtTheSum) {
  EXPECT_EQ(numberOf(hex("0102030405060708 FFFF")), 0x0102030405060708u);
}

TEST(IdentifierNumber, GivesTheIdentifierBackWhenItsSumIsRight) {
  for (const char* digits : {"0000000000000000 0000", "FFFFFFFFFFFFFFFF 07F8",
                             "0123456789ABCDEF 03C0", "8000000000000000 0080"}) {
    EXPECT_EQ(tenBytesOf(numberOf(hex(digits))), hex(digits));
  }
}

TEST(IdentifierNumber, GivesTheRightSumBackInPlaceOfAWrongOne) {
  EXPECT_EQ(tenBytesOf(numberOf(hex("0102030405060708 BEEF"))), hex("0102030405060708 0024"));
}

TEST(NewIdentifier, CarriesTheSumOfItsBytes) {
  for (int i = 0; i < 100; ++i) {
    const Bytes id = generated();
    unsigned sum = 0;
    for (size_t k = 0; k < 8; ++k) sum += id[k];
    EXPECT_EQ(id.beAt(8, 2), sum);
  }
}

// The first four bytes are r + r / 255, cut to 8 bits, for four numbers of the C library's
// generator.
TEST(NewIdentifier, DrawsItsFirstFourBytesFromTheGenerator) {
  Bytes expected;
  std::srand(4711);
  for (int i = 0; i < 4; ++i) {
    const long r = std::rand();
    expected.push_back(static_cast<uint8_t>((r + r / 255) % 256));
  }
  std::srand(4711);
  EXPECT_EQ(generated().cut(4), expected);
}

TEST(NewIdentifier, EndsInTheTimePlusBothWordsOfTheCounter) {
  FakeHost host;
  host.setTime(0x50000000);
  host.setMicroseconds(0x00000007'00000900);
  EXPECT_EQ(generated().at(4, 4), hex("50000907"));
}

TEST(NewIdentifier, AddsTimeAndCounterModulo32Bits) {
  FakeHost host;
  host.setTime(0xFFFFFFFF);
  host.setMicroseconds(0x00000002'FFFFFFFF);
  EXPECT_EQ(generated().at(4, 4), hex("00000000"));
}

TEST(NewIdentifier, DiffersFromTheOnesBefore) {
  std::set<Bytes> seen;
  for (int i = 0; i < 1000; ++i) seen.insert(generated());
  EXPECT_EQ(seen.size(), 1000u);
}

Bytes nextOf(IdentifierSeries& series) {
  Bytes id(10, 0xEE);
  series.next(id.data());
  return id;
}

TEST(IdentifiersInARow, CarryTheSumsOfTheirBytes) {
  IdentifierSeries series;
  for (int i = 0; i < 100; ++i) {
    const Bytes id = nextOf(series);
    unsigned sum = 0;
    for (size_t k = 0; k < 8; ++k) sum += id[k];
    EXPECT_EQ(id.beAt(8, 2), sum);
  }
}

TEST(IdentifiersInARow, DifferFromEachOtherAndFromThoseOfAnotherRow) {
  FakeHost host;  // whose clocks do not move
  IdentifierSeries one;
  IdentifierSeries other;
  std::set<Bytes> seen;
  for (int i = 0; i < 1000; ++i) {
    seen.insert(nextOf(one));
    seen.insert(nextOf(other));
  }
  EXPECT_EQ(seen.size(), 2000u);
}

// r + r / 255 is r modulo 255 in its last byte: 255 never comes.
TEST(IdentifiersInARow, TakeAnyValueInEachOfTheFirstFourBytesThatOthersTake) {
  IdentifierSeries series;
  std::set<uint8_t> values[4];
  for (int i = 0; i < 20'000; ++i) {
    const Bytes id = nextOf(series);
    for (size_t k = 0; k < 4; ++k) values[k].insert(id[k]);
  }
  for (const auto& each : values) EXPECT_EQ(each.size(), 255u);
  for (const auto& each : values) EXPECT_FALSE(each.contains(255));
}

TEST(IdentifiersInARow, AreSeededByTheGenerator) {
  const auto firstAfter = [](unsigned seed) {
    std::srand(seed);
    IdentifierSeries series;
    return nextOf(series).cut(4);
  };
  EXPECT_EQ(firstAfter(4711), firstAfter(4711));
  EXPECT_NE(firstAfter(4711), firstAfter(4712));
}

TEST(IdentifiersInARow, TakeTheMicrosecondsThatFollowAndAskTheClockNowAndThen) {
  FakeHost host;
  host.setTime(0x50000000);
  host.setMicroseconds(0x00000007'00000900);
  IdentifierSeries series;
  EXPECT_EQ(nextOf(series).at(4, 4), hex("50000907"));
  host.setTime(0x60000000);
  for (uint64_t i = 1; i < 16; ++i) {
    EXPECT_EQ(nextOf(series).beAt(4, 4), 0x50000907 + i);
  }
  EXPECT_EQ(nextOf(series).at(4, 4), hex("60000907"));
}

TEST(NewIdentifierNumber, IsTheNumberOfANewIdentifier) {
  FakeHost host;
  host.setTime(1000);
  host.setMicroseconds(0);
  std::srand(12);
  const Bytes id = generated();
  std::srand(12);
  uint64_t number = 0;
  EXPECT_EQ(GenerateUuID_Int64(&number), 1);
  EXPECT_EQ(number, id.beAt(0, 8));
}

TEST(IdentifierSum, IsRightOnlyInItsTwoBytesMostSignificantFirst) {
  EXPECT_TRUE(identifierSumIsRight(hex("1122334455667788 0264").data()));
  EXPECT_TRUE(identifierSumIsRight(hex("FFFFFFFFFFFFFFFF 07F8").data()));
  for (const char* wrong : {"1122334455667788 0263", "1122334455667788 0364",
                            "1122334455667788 6402", "1122334455667789 0264"}) {
    EXPECT_FALSE(identifierSumIsRight(hex(wrong).data())) << wrong;
  }
}

TEST(NewIdentifierNumber, RefusesNull) {
  EXPECT_EQ(GenerateUuID_Int64(nullptr), 0);
}

}  // namespace
}  // namespace qvdbase::test

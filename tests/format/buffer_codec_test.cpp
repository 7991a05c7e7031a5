// The buffer codec: integers and 16-bit text, least significant byte first.
#include <gtest/gtest.h>
#include <qvdbase/Aliment8.h>

#include <array>

#include "kit/bytes.h"

namespace qvdbase::test {
namespace {

// Encodes into the middle of a buffer, so that a byte too many shows.
template <typename Put, typename Value>
Bytes encoded(Put put, Value value, int expectedCount) {
  Bytes buffer(10, 0xEE);
  EXPECT_EQ(put(buffer.data() + 1, value), expectedCount);
  return buffer;
}

TEST(BufferCodec, StoresAByte) {
  EXPECT_EQ(encoded(PutToBuffer_BYTE, uint8_t{0xAB}, 1), hex("EE AB EEEEEEEEEEEEEEEE"));
}

TEST(BufferCodec, StoresIntegersLowByteFirst) {
  EXPECT_EQ(encoded(PutToBuffer_Int16, uint16_t{0x0102}, 2), hex("EE 0201 EEEEEEEEEEEEEE"));
  EXPECT_EQ(encoded(PutToBuffer_Int32, 0x01020304u, 4), hex("EE 04030201 EEEEEEEEEE"));
  EXPECT_EQ(encoded(PutToBuffer_Int64, uint64_t{0x0102030405060708}, 8),
            hex("EE 0807060504030201 EE"));
}

TEST(BufferCodec, StoresTheLargestValues) {
  EXPECT_EQ(encoded(PutToBuffer_Int16, uint16_t{0xFFFF}, 2), hex("EE FFFF EEEEEEEEEEEEEE"));
  EXPECT_EQ(encoded(PutToBuffer_Int32, 0xFFFFFFFFu, 4), hex("EE FFFFFFFF EEEEEEEEEE"));
  EXPECT_EQ(encoded(PutToBuffer_Int64, uint64_t{0xFFFFFFFFFFFFFFFF}, 8),
            hex("EE FFFFFFFFFFFFFFFF EE"));
}

TEST(BufferCodec, ReadsAByte) {
  unsigned char value = 0;
  EXPECT_EQ(GetFromBuffer_BYTE(hex("FE 01").data(), &value), 1);
  EXPECT_EQ(value, 0xFE);
}

TEST(BufferCodec, ReadsIntegersLowByteFirst) {
  const Bytes buffer = hex("F1 F2 F3 F4 F5 F6 F7 F8");
  uint16_t two = 0;
  uint32_t four = 0;
  uint64_t eight = 0;
  EXPECT_EQ(GetFromBuffer_Int16(buffer.data(), &two), 2);
  EXPECT_EQ(two, 0xF2F1);
  EXPECT_EQ(GetFromBuffer_Int32(buffer.data(), &four), 4);
  EXPECT_EQ(four, 0xF4F3F2F1u);
  EXPECT_EQ(GetFromBuffer_Int64(buffer.data(), &eight), 8);
  EXPECT_EQ(eight, 0xF8F7F6F5F4F3F2F1u);
}

TEST(BufferCodec, WorksAtAnyAlignment) {
  for (size_t shift = 0; shift < 8; ++shift) {
    Bytes buffer(16);
    PutToBuffer_Int64(buffer.data() + shift, 0x1122334455667788);
    uint64_t value = 0;
    GetFromBuffer_Int64(buffer.data() + shift, &value);
    EXPECT_EQ(value, 0x1122334455667788u);
  }
}

constexpr std::array<QVWCHAR, 3> kText = {0x0041, 0x20AC, 0xD83D};

TEST(TextCodec, WritesEachCharacterLowByteFirstWithoutATerminator) {
  Bytes buffer(8, 0xEE);
  RZPutQVWCHAR2Buffer(buffer.data(), kText.data(), 6);
  EXPECT_EQ(buffer, hex("4100 AC20 3DD8 EEEE"));
}

TEST(TextCodec, WritesNoOddLastByte) {
  Bytes buffer(6, 0xEE);
  RZPutQVWCHAR2Buffer(buffer.data(), kText.data(), 5);
  EXPECT_EQ(buffer, hex("4100 AC20 EEEE"));
}

TEST(TextCodec, WritesNothingBelowTwoBytes) {
  for (const int count : {1, 0, -1, -2, -5}) {
    Bytes buffer(4, 0xEE);
    RZPutQVWCHAR2Buffer(buffer.data(), kText.data(), count);
    EXPECT_EQ(buffer, hex("EEEEEEEE")) << count;
  }
}

TEST(TextCodec, WritesZeroCharactersLikeOthers) {
  const std::array<QVWCHAR, 3> text = {0x0041, 0, 0x0042};
  Bytes buffer(6, 0xEE);
  RZPutQVWCHAR2Buffer(buffer.data(), text.data(), 6);
  EXPECT_EQ(buffer, hex("4100 0000 4200"));
}

TEST(TextCodec, ReadsBytePairsLowByteFirstWithoutATerminator) {
  std::array<QVWCHAR, 3> text = {0xEEEE, 0xEEEE, 0xEEEE};
  RZGetQVWCHARFromBuffer(text.data(), hex("4100 AC20").data(), 4);
  EXPECT_EQ(text, (std::array<QVWCHAR, 3>{0x0041, 0x20AC, 0xEEEE}));
}

TEST(TextCodec, ReadsOneByteMoreWithAnOddCount) {
  std::array<QVWCHAR, 3> text = {0xEEEE, 0xEEEE, 0xEEEE};
  RZGetQVWCHARFromBuffer(text.data(), hex("4100 AC20").data(), 3);
  EXPECT_EQ(text, (std::array<QVWCHAR, 3>{0x0041, 0x20AC, 0xEEEE}));
}

TEST(TextCodec, ReadsNothingWithoutBytes) {
  for (const int count : {0, -1}) {
    QVWCHAR character = 0xEEEE;
    RZGetQVWCHARFromBuffer(&character, hex("4100").data(), count);
    EXPECT_EQ(character, 0xEEEE);
  }
}

}  // namespace
}  // namespace qvdbase::test

// Numbers in memory, most significant byte first.
#include "format/big_endian.h"

#include <gtest/gtest.h>

#include "kit/bytes.h"

namespace qvdbase::test {
namespace {

using namespace qvdbase::format;

// The bytes around the number stay.
template <typename Unsigned>
void expectLoadedAndStored(Unsigned number) {
  const Bytes bytes = hex("F1F2F3F4F5F6F7F8");
  EXPECT_EQ(loadBigEndian<Unsigned>(bytes.data()), number);
  Bytes stored(8);
  storeBigEndian(stored.data(), number);
  EXPECT_EQ(stored, bytes.cut(sizeof number).zeros(8u - static_cast<unsigned>(sizeof number)));
}

TEST(BigEndian, LoadsAndStoresNumbersOfEachWidthMostSignificantByteFirst) {
  expectLoadedAndStored(uint8_t{0xF1});
  expectLoadedAndStored(uint16_t{0xF1F2});
  expectLoadedAndStored(uint32_t{0xF1F2F3F4});
  expectLoadedAndStored(uint64_t{0xF1F2F3F4F5F6F7F8});
}

}  // namespace
}  // namespace qvdbase::test

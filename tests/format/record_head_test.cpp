// Whether the bytes of a header are those of a record of a table.
#include <gtest/gtest.h>

#include "format/block_heads.h"
#include "kit/bytes.h"
#include "kit/layers.h"

namespace qvdbase::test {
namespace {

TEST(RecordHead, IsOneOfItsTableByMarkSizeAndOwner) {
  const Bytes table = hex("1122334455667788 0264");
  Bytes head = hex("87 0040");
  head.add(table).zeros(42);
  EXPECT_TRUE(isRecordOf(head.data(), table.data()));
  for (size_t i = 0; i < 13; ++i) {
    Bytes other = head;
    other[i] ^= 0x01;
    EXPECT_FALSE(isRecordOf(other.data(), table.data())) << "byte " << i;
  }
  head[13] ^= 0x01;  // the record's own identifier
  EXPECT_TRUE(isRecordOf(head.data(), table.data()));
}

}  // namespace
}  // namespace qvdbase::test

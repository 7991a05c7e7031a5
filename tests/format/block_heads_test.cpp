// Block headers as bytes in memory.
#include "format/block_heads.h"
#include "kit/layers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "kit/bytes.h"

namespace qvdbase::test {
namespace {

const Bytes kRecordHead =
    hex("87 0040"
        "0102030405060708 090A"
        "1112131415161718 191A"
        "21222324 25262728"
        "8000000000000001 7FFFFFFFFFFFFFFF"
        "31323334 FFFFFFFE");

const Bytes kTableDataHeader = hex("96 0020 0102030405060708 090A 41424344 FFFFFFFE");

TEST(BlockHeads, DecodeARecordsHeader) {
  const recordPart1 head = decodeRecordHead(kRecordHead.data());
  EXPECT_EQ(head.blockMark, 0x87);
  EXPECT_EQ(head.headerSize, 64);
  EXPECT_EQ(Bytes(head.tableID, head.tableID + 10), kRecordHead.at(3, 10));
  EXPECT_EQ(Bytes(head.recordID, head.recordID + 10), kRecordHead.at(13, 10));
  EXPECT_EQ(head.createTime, 0x21222324u);
  EXPECT_EQ(head.modifyTime, 0x25262728u);
  EXPECT_EQ(head.prevRecordPos, -0x7FFFFFFFFFFFFFFF);
  EXPECT_EQ(head.nextRecordPos, 0x7FFFFFFFFFFFFFFF);
  EXPECT_EQ(head.dataLength, 0x31323334u);
  EXPECT_EQ(head.dataCapacity, 0xFFFFFFFEu);
  EXPECT_EQ(head.endMarkValue, 'x');
}

TEST(BlockHeads, EncodeARecordsHeaderAsItIs) {
  Bytes image(55);
  encodeRecordHead(decodeRecordHead(kRecordHead.data()), image.data());
  EXPECT_EQ(image, kRecordHead);
  Bytes odd = kRecordHead.with(0, hex("FF 1234"));  // no mark and no size of ours
  encodeRecordHead(decodeRecordHead(odd.data()), image.data());
  EXPECT_EQ(image, odd);
}

TEST(BlockHeads, DecodeATableDataBlocksHeader) {
  const TableDataHead head = decodeTableDataHead(kTableDataHeader.data());
  EXPECT_EQ(head.blockMark, 0x96);
  EXPECT_EQ(head.headerSize, 32);
  EXPECT_EQ(Bytes(head.tableID, head.tableID + 10), kTableDataHeader.at(3, 10));
  EXPECT_EQ(head.dataLength, 0x41424344u);
  EXPECT_EQ(head.dataCapacity, 0xFFFFFFFEu);
}

TEST(BlockHeads, EncodeATableDataBlocksHeaderAsItIs) {
  Bytes image(21);
  encodeTableDataHead(decodeTableDataHead(kTableDataHeader.data()), image.data());
  EXPECT_EQ(image, kTableDataHeader);
}

// A reader that looks for blocks needs to see the mark and the size: either alone is any byte.
TEST(BlockHeads, KnowTheStartsOfBothKindsOfBlock) {
  EXPECT_TRUE(isBlockStart(hex("87 0040").data()));
  EXPECT_TRUE(isBlockStart(hex("96 0020").data()));
  EXPECT_FALSE(isBlockStart(hex("87 0020").data()));
  EXPECT_FALSE(isBlockStart(hex("96 0040").data()));
  EXPECT_FALSE(isBlockStart(hex("86 0040").data()));
  EXPECT_FALSE(isBlockStart(hex("87 4000").data()));
}

}  // namespace
}  // namespace qvdbase::test

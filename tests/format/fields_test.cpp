// Fields of header and blocks: one transfer each, the most significant byte first.
#include "format/fields.h"
#include "kit/layers.h"

#include <qvdbase/QVFile.h>

#include "kit/database_fixture.h"

namespace qvdbase::test {
namespace {

class Fields : public DatabaseTest {
 protected:
  void TearDown() override {
    QVFile().QVCloseFile(file_);
    DatabaseTest::TearDown();
  }

  void holds(const Bytes& content) {
    QVFile().QVCloseFile(file_);
    writeFile(path("fields"), content);
    ASSERT_EQ(QVFile().QVOpenFile(wide("fields"), 3, &file_), 1);
  }

  int16_t file_ = 0;
};

TEST_F(Fields, AreReadWithTheMostSignificantByteFirst) {
  holds(hex("01 0203 04050607 08090A0B0C0D0E0F"));
  uint8_t one = 0;
  uint16_t two = 0;
  uint32_t four = 0;
  int64_t eight = 0;
  EXPECT_TRUE(format::readUint8(file_, &one));
  EXPECT_TRUE(format::readUint16(file_, &two));
  EXPECT_TRUE(format::readUint32(file_, &four));
  EXPECT_TRUE(format::readInt64(file_, &eight));
  EXPECT_EQ(one, 0x01);
  EXPECT_EQ(two, 0x0203);
  EXPECT_EQ(four, 0x04050607u);
  EXPECT_EQ(eight, 0x08090A0B0C0D0E0F);
}

TEST_F(Fields, ThatAreCutShortAreNotRead) {
  uint8_t one = 1;
  uint16_t two = 2;
  uint32_t four = 4;
  int64_t eight = 8;
  holds({});
  EXPECT_FALSE(format::readUint8(file_, &one));
  holds(hex("AA"));
  EXPECT_FALSE(format::readUint16(file_, &two));
  holds(hex("AABBCC"));
  EXPECT_FALSE(format::readUint32(file_, &four));
  holds(hex("AABBCCDDEEFF00"));
  EXPECT_FALSE(format::readInt64(file_, &eight));
  EXPECT_EQ(one, 1);
  EXPECT_EQ(two, 2);
  EXPECT_EQ(four, 4u);
  EXPECT_EQ(eight, 8);
}

}  // namespace
}  // namespace qvdbase::test

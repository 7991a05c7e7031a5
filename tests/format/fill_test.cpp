// The fill after data that does not use all of its capacity.
#include "format/fill.h"
#include "kit/layers.h"

#include <qvdbase/QVFile.h>

#include "kit/database_fixture.h"
#include "kit/fake_host.h"

namespace qvdbase::test {
namespace {

class Fill : public DatabaseTest {
 protected:
  void SetUp() override {
    writeFile(path("fill"), hex("EE"));
    ASSERT_EQ(QVFile().QVOpenFile(wide("fill"), 3, &file_), 1);
    seek(file_, 1);
  }

  void TearDown() override {
    QVFile().QVCloseFile(file_);
    DatabaseTest::TearDown();
  }

  int16_t file_ = 0;
};

TEST_F(Fill, WritesZerosOfTheWantedLength) {
  const int64_t chunk = 32768;
  for (const int64_t count : {int64_t{0}, int64_t{1}, int64_t{3}, int64_t{4}, chunk - 1, chunk,
                              chunk + 1, 3 * chunk + 7}) {
    writeFile(path("fill"), hex("EE"));
    seek(file_, 1);
    EXPECT_EQ(internal_WriteEmptyDatas(file_, static_cast<uint32_t>(count)), 1);
    EXPECT_EQ(position(file_), 1 + count);
    EXPECT_TRUE(sameBytes(readFile(path("fill")), hex("EE").zeros(static_cast<size_t>(count))));
  }
}

TEST_F(Fill, FailsWhenAWriteFails) {
  FakeHost host;
  host.failFrom(FakeHost::Call::write);
  EXPECT_EQ(internal_WriteEmptyDatas(file_, 10), 0);
  host.releaseBlocks();
}

TEST_F(Fill, KeepsItsBufferAfterAFailedWriteOnly) {
  FakeHost host;
  EXPECT_EQ(internal_WriteEmptyDatas(file_, 40000), 1);
  EXPECT_EQ(host.heldBlocks(), 0u);
  host.failFrom(FakeHost::Call::write);
  EXPECT_EQ(internal_WriteEmptyDatas(file_, 40000), 0);
  EXPECT_EQ(host.heldBlocks(), 1u);
  host.releaseBlocks();
}

TEST_F(Fill, FailsWhenItsBufferCannotBeObtained) {
  FakeHost host;
  host.failFrom(FakeHost::Call::allocate);
  EXPECT_EQ(internal_WriteEmptyDatas(file_, 10), 0);
  EXPECT_EQ(readFile(path("fill")), hex("EE"));
}

TEST_F(Fill, FailsOnAFileThatIsNotOpen) {
  FakeHost host;
  EXPECT_EQ(internal_WriteEmptyDatas(0, 10), 0);
  host.releaseBlocks();
}

}  // namespace
}  // namespace qvdbase::test

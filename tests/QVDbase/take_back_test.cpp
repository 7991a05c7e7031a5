// What was appended and nothing leads to is cut off, or written over where it is not the end.
#include "QVDbase/take_back.h"
#include "kit/layers.h"

#include "kit/database_fixture.h"

namespace qvdbase::test {
namespace {

class TakingBack : public DatabaseTest {
 protected:
  // A database with ten bytes after it, of which the last eight are the appended ones.
  void SetUp() override {
    close(create("start.qvd"));
    start_ = contents("start.qvd");
    from_ = static_cast<int64_t>(start_.size()) + 2;
  }

  int16_t withTail(const Bytes& tail, int permission = 3) {
    Bytes content = start_;
    content.insert(content.end(), tail.begin(), tail.end());
    allowDamage("file.qvd");
    if (db_ != 0) close(db_);
    db_ = put(content, "file.qvd", permission);
    return db_;
  }
  Bytes tail() {
    const Bytes content = contents("file.qvd");
    Bytes after(content.size() - start_.size());
    std::copy(content.begin() + static_cast<std::ptrdiff_t>(start_.size()), content.end(),
              after.begin());
    return after;
  }
  engine::Appended appended() const { return {from_, from_ + 8}; }

  Bytes start_;
  int64_t from_ = 0;
  int16_t db_ = 0;
};

TEST_F(TakingBack, CutsTheEndOff) {
  EXPECT_TRUE(engine::takeBack(withTail(hex("AAAA 1122334455667788")), appended()));
  EXPECT_TRUE(sameBytes(tail(), hex("AAAA")));
}

TEST_F(TakingBack, CutsOffWhatTheHostTookOfIt) {
  EXPECT_TRUE(engine::takeBack(withTail(hex("AAAA 112233")), appended()));
  EXPECT_TRUE(sameBytes(tail(), hex("AAAA")));
}

TEST_F(TakingBack, OverwritesWhatIsNotTheEnd) {
  EXPECT_TRUE(engine::takeBack(withTail(hex("AAAA 1122334455667788 BBCC")), appended()));
  EXPECT_TRUE(sameBytes(tail(), hex("AAAA 0000000000000000 BBCC")));
}

TEST_F(TakingBack, OverwritesWhereOthersWriteToo) {
  EXPECT_TRUE(engine::takeBack(withTail(hex("AAAA 1122334455667788"), 4), appended()));
  EXPECT_TRUE(sameBytes(tail(), hex("AAAA 0000000000000000")));
}

TEST_F(TakingBack, HasNothingToDoWhereNothingWasTaken) {
  EXPECT_TRUE(engine::takeBack(withTail(hex("AAAA"), 4), appended()));
  EXPECT_TRUE(sameBytes(tail(), hex("AAAA")));
  EXPECT_TRUE(engine::cutBack(withTail(hex("AAAA"), 4), appended()));
  EXPECT_TRUE(sameBytes(tail(), hex("AAAA")));
}

TEST_F(TakingBack, FailsWithoutAFile) {
  EXPECT_FALSE(engine::takeBack(0, appended()));
  EXPECT_FALSE(engine::cutBack(0, appended()));
}

TEST_F(TakingBack, CutsBackOnlyTheEnd) {
  EXPECT_TRUE(engine::cutBack(withTail(hex("AAAA 1122334455667788")), appended()));
  EXPECT_TRUE(sameBytes(tail(), hex("AAAA")));
  EXPECT_FALSE(engine::cutBack(withTail(hex("AAAA 1122334455667788 BB")), appended()));
  EXPECT_TRUE(sameBytes(tail(), hex("AAAA 1122334455667788 BB")));
  EXPECT_FALSE(engine::cutBack(withTail(hex("AAAA 1122334455667788"), 4), appended()));
  EXPECT_TRUE(sameBytes(tail(), hex("AAAA 1122334455667788")));
}

}  // namespace
}  // namespace qvdbase::test

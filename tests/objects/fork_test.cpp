// Objects of the C++ layer in a child that got them by fork: their end there is not their end.
#include <utility>

#include "kit/forked.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using LayerFork = LayerTest;

TEST_F(LayerFork, BatchOfTheParentOutlivesItsCopyInTheChild) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  auto bulk = table.appender();
  const Bytes payload(300'000, 7);  // more than the appender gathers, so the file is longer already
  bulk.add(span(payload));
  bulk.add(span(bytesOf("b")));
  const Bytes before = readFile(path());
  EXPECT_EQ(inForkedChild([&] {
              const auto taken = std::move(bulk);
              return 0;
            }),
            0);
  EXPECT_TRUE(sameBytes(readFile(path()), before));
  EXPECT_EQ(bulk.finish(), 2u);
  EXPECT_EQ(table.count(), 2u);
}

struct EndOfChild {};

// The child leaves the operation by an exception, so that all objects of the operation end there.
TEST_F(LayerFork, CompactionOfTheParentOutlivesItsCopyInTheChild) {
  {
    auto database = createDatabase();
    auto table = database.add_table("t");
    for (int i = 0; i < 200; ++i) table.add(span(bytesOf("payload")));
    const std::vector<uint64_t> ids = idsOf(table);
    for (size_t i = 0; i < 100; ++i) table.remove(qvdb::Id{ids[i]});
  }
  int forks = 0;
  const auto forkOnce = [&](int percent) {
    if (percent < 30 || forks++ != 0) return true;
    const pid_t child = ::fork();
    if (child == 0) throw EndOfChild();
    EXPECT_EQ(endOf(child), 42);
    return true;
  };
  try {
    EXPECT_EQ(qvdb::compact(path(), forkOnce).records, 100u);
  } catch (const EndOfChild&) {
    ::_exit(42);
  }
  EXPECT_GT(forks, 0);
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
  EXPECT_EQ(openDatabase().table("t").count(), 100u);
}

}  // namespace
}  // namespace qvdbase::test

// What is new in a table while other processes change it: changes at every moment of a look.
#include <qvdbase/qvdb.hpp>

#include "kit/replaced_calls.h"
#include "tool/tool_fixture.h"
#include "tools/qvdb/feed/record_feed.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::tool::RecordFeed;

using Ids = std::vector<uint64_t>;

class Feed : public ToolTest {
 public:
  // Records 1 to `count`, all of which the feed has seen.
  void begin(uint64_t count) {
    feed = RecordFeed();
    std::filesystem::remove(path());
    {
      auto made = qvdb::Database::create(path());
      auto table = made.add_table("notes");
      for (uint64_t i = 1; i <= count; ++i) table.add_with_id(Id{i}, "x");
    }
    database = qvdb::Database::open(path());
    feed.begin(database.table("notes"));
  }

  // Another process's changes.
  static std::string text(uint64_t id) { return qvdb::to_string(Id{id}); }
  void add(uint64_t id) { done({"put", "--id", text(id), kDefaultFile, "notes"}, "payload"); }
  void remove(uint64_t id) { done({"rm", kDefaultFile, "notes", text(id)}); }

  Ids look() {
    Ids ids;
    feed.takeNew(database.table("notes"), [&](const qvdb::Record& record) {
      ids.push_back(record.id().value);
      return true;
    });
    return ids;
  }

  RecordFeed feed;
  qvdb::Database database;
};

TEST_F(Feed, HasNothingNewUntilSomethingIsAdded) {
  begin(3);
  EXPECT_EQ(look(), Ids{});
  add(4);
  EXPECT_EQ(look(), Ids{4});
  EXPECT_EQ(look(), Ids{});
  remove(2);
  EXPECT_EQ(look(), Ids{});
}

TEST_F(Feed, ReliesOnTheCountsWhereAllThatItRemembersIsGone) {
  constexpr uint64_t kMany = 1'100;  // more than it remembers
  begin(kMany);
  {
    auto writer = qvdb::Database::open(path(), qvdb::Mode::exclusive);
    auto table = writer.table("notes");
    qvdb::erase_if(table, [](const qvdb::Record& record) { return record.id().value > 10; });
    table.add_with_id(Id{5'000}, "new");
    table.add_with_id(Id{5'001}, "new");
  }
  EXPECT_EQ(look(), (Ids{5'000, 5'001}));
  EXPECT_EQ(look(), Ids{});
}

// The end of the chain moves on between two reading operations of a look, as after the counts were
// read: a reader lets writers through when it gives up its lock.
TEST_F(Feed, MissesNothingThatIsAddedDuringALook) {
  static int unlocksLeft = 0;
  static Feed* test = nullptr;
  test = this;
  int step = 0;
  for (;; ++step) {
    begin(3);
    remove(3);
    add(4);
    unlocksLeft = step;
    Ids seen;
    {
      ReplacedCalls calls;
      calls->setLock = [](int descriptor, struct flock* lock) {
        const bool isUnlocking = lock->l_type == F_UNLCK;
        const int result = platform::hostSystemCalls().setLock(descriptor, lock);
        if (isUnlocking && unlocksLeft-- == 0) {
          test->add(5);
          test->add(6);
        }
        return result;
      };
      seen = look();
    }
    if (unlocksLeft >= 0) break;
    const Ids later = look();
    seen.insert(seen.end(), later.begin(), later.end());
    EXPECT_EQ(seen, (Ids{4, 5, 6})) << "added after " << step << " looks";
  }
  EXPECT_GE(step, 3);
}

}  // namespace
}  // namespace qvdbase::test

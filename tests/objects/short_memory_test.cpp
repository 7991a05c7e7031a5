// Commits for which memory is short, at each place where they ask for some.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kit/file_checker.h"
#include "kit/test_extent.h"
#include "kit/threads.h"
#include "objects/layer_fixture.h"

namespace {

// How many more allocations of this thread succeed before one fails; none fails while negative.
thread_local long g_allocationsLeft = -1;

void* allocate(size_t size) {
  if (g_allocationsLeft >= 0 && g_allocationsLeft-- == 0) throw std::bad_alloc();
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(size_t size) {
  return allocate(size);
}
void* operator new[](size_t size) {
  return allocate(size);
}
// std::stable_sort asks for memory in this way.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, size_t) noexcept {
  std::free(memory);
}

namespace qvdbase::test {
namespace {

// Does nothing as long as it is there.
class ParkedThread {
 public:
  ParkedThread() : thread_([this] { isOver_.wait(false); }) {}
  ~ParkedThread() {
    isOver_ = true;
    isOver_.notify_all();
    thread_.join();
  }

 private:
  std::atomic<bool> isOver_ = false;
  std::thread thread_;
};

struct Setting {
  const char* name;
  qvdb::Durability durability;
  bool isEachCommitted = false;  // an operation without a transaction is one
  bool hasThreads = false;       // then commits of a group wait for the device together
};

class ShortMemory : public LayerTest, public testing::WithParamInterface<Setting> {
 protected:
  qvdb::Database openIt() {
    return qvdb::Database::open(
        path(), {.mode = qvdb::Mode::exclusive, .durability = GetParam().durability});
  }

  // Ten records, of "a" to "j".
  void create() {
    std::filesystem::remove(path());
    qvdb::Database database = qvdb::Database::create(path());
    qvdb::Table table = database.add_table("t");
    for (char c = 'a'; c <= 'j'; ++c)
      ids_[size_t(c - 'a')] = table.add(span(bytesOf(std::string(1, c))));
  }

  // What a transaction changes: with the payload of a new record, "n" times 20.
  void change(qvdb::Table& table) {
    table.remove(ids_[2]);
    table.modify(ids_[5], span(bytesOf("five")));
    table.add(span(bytesOf(std::string(20, 'n'))));
  }

  // Once more: it is committed whole then, or has been rolled back.
  static bool isCommittedNow(qvdb::Transaction& transaction) {
    try {
      transaction.commit();
      return true;
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), qvdb::Reason::bad_argument) << error.what();
      return false;
    }
  }

  static std::string payloads(const qvdb::Table& table) {
    std::string all;
    for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
      const Bytes payload = bytes(record.loaded());
      all += std::string(payload.begin(), payload.end()) + " ";
    }
    return all;
  }

  std::vector<qvdb::Id> ids_ = std::vector<qvdb::Id>(10);
};

class ShortMemoryOfOperations : public ShortMemory {};

const char* const kBefore = "a b c d e f g h i j ";
const std::string kAfter = "a b d e five g h i j " + std::string(20, 'n') + " ";

TEST_P(ShortMemory, LeavesACommitWholeOrNotThere) {
  if (GetParam().hasThreads && !kHasThreads) GTEST_SKIP() << "the library has no threads";
  std::optional<ParkedThread> other;
  if (GetParam().hasThreads) other.emplace();
  int refused = 0;
  bool isThrough = false;
  for (long allowed = 0; !isThrough; ++allowed) {
    SCOPED_TRACE("allocation " + std::to_string(allowed));
    create();
    bool isCommitted = true;
    {
      qvdb::Database database = openIt();
      qvdb::Table table = database.table("t");
      const qvdb::RecordIndex index = table.index();
      qvdb::Transaction transaction = database.begin();
      change(table);
      g_allocationsLeft = allowed;
      try {
        transaction.commit();
      } catch (const std::bad_alloc&) {
        isCommitted = false;
      } catch (const qvdb::Error& error) {
        g_allocationsLeft = -1;
        ADD_FAILURE() << error.what();
      }
      isThrough = g_allocationsLeft >= 0;
      g_allocationsLeft = -1;
      if (!isCommitted) {
        ++refused;
        isCommitted = isCommittedNow(transaction);
      }
      EXPECT_EQ(payloads(table), isCommitted ? kAfter : kBefore);
      EXPECT_EQ(table.contains(ids_[2]), !isCommitted);
      // And the database can be used on.
      if (!isCommitted) database.transaction([&](qvdb::Transaction&) { change(table); });
    }
    qvdb::Database database = openIt();
    EXPECT_EQ(payloads(database.table("t")), kAfter);
    database.close();
    if (HasFailure()) break;
  }
  EXPECT_GT(refused, 0);
}

// Each of the operations, at each place where it asks for memory: what was done before is
// committed.
TEST_P(ShortMemoryOfOperations, LeavesEachOfATransactionWholeOrNotThere) {
  const std::string added = std::string(20, 'n') + " ";
  const std::vector<std::string> states = {kBefore, "a b d e f g h i j ", "a b d e five g h i j ",
                                           "a b d e five g h i j " + added};
  for (long allowed = 0;; ++allowed) {
    SCOPED_TRACE("allocation " + std::to_string(allowed));
    create();
    bool isThrough = false;
    std::string seen;
    {
      qvdb::Database database = openIt();
      qvdb::Table table = database.table("t");
      const qvdb::RecordIndex index = table.index();
      qvdb::Transaction transaction = database.begin();
      g_allocationsLeft = allowed;
      try {
        change(table);
        isThrough = g_allocationsLeft >= 0;
      } catch (const std::bad_alloc&) {
      } catch (const qvdb::Error&) {
      }
      g_allocationsLeft = -1;
      try {
        transaction.commit();
      } catch (const qvdb::Error&) {
      }
      seen = payloads(table);
    }
    qvdb::Database database = openIt();
    const std::string kept = payloads(database.table("t"));
    EXPECT_EQ(kept, seen);
    EXPECT_NE(std::find(states.begin(), states.end(), kept), states.end()) << kept;
    database.close();
    EXPECT_EQ(describe(checkFile(path())), "");
    if (isThrough || HasFailure()) break;
  }
}

// The same without a transaction.
TEST_P(ShortMemoryOfOperations, LeavesTheFileSound) {
  // Each operation waits for the device where it is a commit of its own.
  const long step = GetParam().isEachCommitted && !testEverything() ? 3 : 1;
  for (long allowed = 0;; allowed += step) {
    SCOPED_TRACE("allocation " + std::to_string(allowed));
    create();
    bool isThrough = false;
    {
      qvdb::Database database = openIt();
      qvdb::Table table = database.table("t");
      const qvdb::RecordIndex index = table.index();
      g_allocationsLeft = allowed;
      try {
        change(table);
        isThrough = g_allocationsLeft >= 0;
      } catch (const std::bad_alloc&) {
      } catch (const qvdb::Error&) {
      }
      g_allocationsLeft = -1;
      const std::string seen = payloads(table);
      EXPECT_EQ(table.count(), static_cast<uint64_t>(std::count(seen.begin(), seen.end(), ' ')));
      const Bytes next = bytesOf("next");
      const qvdb::Id id = table.add(span(next));
      EXPECT_EQ(bytes(table.get(id)), next);
    }
    EXPECT_EQ(describe(checkFile(path())), "");
    if (isThrough || HasFailure()) break;
  }
}

std::string nameOf(const testing::TestParamInfo<Setting>& setting) {
  return setting.param.name;
}

const Setting kProcess{"Process", qvdb::Durability::process};
const Setting kPower{"Power", qvdb::Durability::power, true};
const Setting kBesideAThread{"PowerBesideAThread", qvdb::Durability::power, true, true};
const Setting kInterval{"Interval", qvdb::Durability::interval(std::chrono::milliseconds(0)), true};

INSTANTIATE_TEST_SUITE_P(With, ShortMemory,
                         testing::Values(kProcess, kPower, kBesideAThread, kInterval), nameOf);
INSTANTIATE_TEST_SUITE_P(With, ShortMemoryOfOperations,
                         testing::Values(kProcess, kPower, kInterval), nameOf);

}  // namespace
}  // namespace qvdbase::test

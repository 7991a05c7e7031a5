// Threads that are cancelled while they call the library: each call is made to its end.
#include <pthread.h>
#include <qvdbase/qvdbase.h>

#include <atomic>
#include <functional>

#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

constexpr int kThreads = 60;

// A thread that repeats `step` until it is cancelled, at the end of a step.
class CancelledThread {
 public:
  explicit CancelledThread(const std::function<void()>& step) : step_(step) {
    if (pthread_create(&thread_, nullptr, &CancelledThread::run, this) != 0) std::abort();
  }

  // After it has made that many steps.
  void cancelAfter(int steps) {
    while (steps_ < steps) sched_yield();
    EXPECT_EQ(pthread_cancel(thread_), 0);
    void* result = nullptr;
    EXPECT_EQ(pthread_join(thread_, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
  }

 private:
  static void* run(void* object) {
    auto* self = static_cast<CancelledThread*>(object);
    for (;;) {
      self->step_();
      ++self->steps_;
      pthread_testcancel();
    }
  }

  const std::function<void()>& step_;
  std::atomic<int> steps_ = 0;
  pthread_t thread_ = {};
};

class CancelledThreads : public LayerTest {
 protected:
  static void cancelIn(const std::function<void()>& step, int threads = kThreads) {
    for (int i = 0; i < threads; ++i) CancelledThread(step).cancelAfter(i % 4);
  }

  // Whether a thread that runs it is cancelled in it, or at its end.
  static bool isCancelledIn(const std::function<void()>& work) {
    pthread_t thread = {};
    const auto run = [](void* object) -> void* {
      (*static_cast<const std::function<void()>*>(object))();
      return nullptr;
    };
    void* object = const_cast<std::function<void()>*>(&work);
    EXPECT_EQ(pthread_create(&thread, nullptr, run, object), 0);
    void* result = nullptr;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    return result == PTHREAD_CANCELED;
  }

  // That it is made to its end in a thread whose cancellation is pending when it begins.
  static void expectToFinish(const std::function<void()>& call, ptrdiff_t number) {
    bool wasFinished = false;
    const auto cancelledBefore = [&] {
      pthread_cancel(pthread_self());
      EXPECT_NO_THROW(call()) << "call " << number;
      wasFinished = true;
      pthread_testcancel();
    };
    EXPECT_TRUE(isCancelledIn(cancelledBefore));
    EXPECT_TRUE(wasFinished) << "call " << number;
  }

  void expectSound() { EXPECT_EQ(qvdb::check(path()).errors, 0u); }
};

TEST_F(CancelledThreads, LeaveChangesOfTheLayerWhole) {
  for (const qvdb::Mode mode : {qvdb::Mode::exclusive, qvdb::Mode::shared}) {
    createDatabase().close();
    qvdb::Database database = openDatabase(mode);
    qvdb::Table table = database.find_or_add_table("t");
    size_t length = 0;
    cancelIn([&] {
      const qvdb::Id id = table.add("one");
      table.add(std::string(70'000, 'l'));  // which is not gathered with other writes
      table.modify(id, std::string(20, 'm'));
      table.write(id, 1, span(bytesOf("w")));
      table.remove(id);
      table.set_data(std::string(++length % 50, 'd'));
    });
    table.add("after all of them");
    EXPECT_EQ(idsOf(table).size(), table.count());
    database.close();
    expectSound();
    std::filesystem::remove(path());
  }
}

TEST_F(CancelledThreads, LeaveChangesOfTheCFunctionsWhole) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "table");
  cancelIn([&] {
    uint64_t id = 0;
    AddRecordData(db, table, nullptr, 0, 0, &id);
    ModifyRecordData(db, table, reinterpret_cast<const unsigned char*>("longer"), 6, id, nullptr);
    AddRecordData(db, table, nullptr, 0, 0, &id);
    DeleteOneRecord(db, table, id, nullptr);
  });
  addRecord(db, table, bytesOf("after all of them"));
  close(db);
  expectSound();
}

TEST_F(CancelledThreads, LeaveNothingOpen) {
  createDatabase().close();
  constexpr int kFewer = 12;  // a check or copy of a file that was written just now takes its time
  cancelIn(
      [&] {
        const auto database = openDatabase();
        EXPECT_EQ(database.tables().size(), 0u);
        EXPECT_EQ(qvdb::check(path()).errors, 0u);
        qvdb::compact(path(), path("target.qvd"), {}, {.overwrite = true});
      },
      kFewer);
  EXPECT_EQ(names(), (std::vector<std::string>{"target.qvd", kDefaultFile}));
  EXPECT_NO_THROW(openDatabase());
  EXPECT_NO_THROW(openDatabase(qvdb::Mode::exclusive, "target.qvd"));
}

// A cancellation that is pending when a call begins would end it at its first read.
TEST_F(CancelledThreads, FinishWhatOpensAFileToLookAtIt) {
  qvdb::Id id;
  {
    qvdb::Database database = createDatabase();
    qvdb::Table table = database.add_table("t");
    id = table.add("one");
    table.add("two");
  }
  const qvdb::FoundBlock version = qvdb::history(path(), "t", id).at(0);
  const Bytes image = readFile(path());
  const std::vector<std::function<void()>> calls = {
      [&] { qvdb::check(path()); },
      [&] { qvdb::predict_repair(path()); },
      [&] { qvdb::history(path(), "t", id); },
      [&] { qvdb::deleted_records(path(), "t"); },
      [&] { qvdb::read_version(path(), version); },
      [&] { qvdb::salvage(path(), path("salvaged.qvd")); },
      [&] { qvdb::salvage_image(span(image), path("salvaged from image.qvd")); },
      [&] { qvdb::visit_extents(path(), [](const qvdb::Extent&) {}); },
      [&] { qvdb::compact(path(), path("compacted.qvd")); },
      [&] { qvdb::pack(path(), path("packed.qvd")); },
      [&] { qvdb::mend(path()); },
      [&] { qvdb::repair(path()); },
      [&] { openDatabase().backup(path("backup.qvd")); },
      [&] { openDatabase(qvdb::Mode::exclusive).compact(); },
      [&] {
        qvdb::Database reopened = openDatabase();
        reopened.reopen();
      },
  };
  for (const auto& call : calls) expectToFinish(call, &call - calls.data());
}

// A check within another call has a visitor that is not the caller's.
TEST_F(CancelledThreads, FinishWhatChecksAFileOnItsWay) {
  createDatabase().add_table("t").add("one");
  writeFile(path(), readFile(path()).text("what no block explains"));
  const std::vector<std::function<void()>> calls = {
      [&] { qvdb::mend(path(), {.dry_run = true}); },
      [&] { qvdb::compact(path(), path("compacted.qvd")); },
      [&] { openDatabase().backup(path("backup.qvd")); },
      [&] { qvdb::salvage(path(), path("salvaged.qvd")); },
  };
  for (const auto& call : calls) expectToFinish(call, &call - calls.data());
  for (const char* made : {"compacted.qvd", "backup.qvd", "salvaged.qvd"}) {
    EXPECT_EQ(qvdb::check(path(made)).errors, 0u) << made;
  }
  for (const char* copy : {kDefaultFile, "backup.qvd"}) std::filesystem::remove(path(copy));
}

TEST_F(CancelledThreads, EndInAFunctionOfTheCallers) {
  createDatabase().add_table("t").add("one");
  writeFile(path(), readFile(path()).text("what no block explains"));
  const auto endHere = [](const auto&) {
    pthread_cancel(pthread_self());
    pthread_testcancel();
  };
  EXPECT_TRUE(isCancelledIn([&] { qvdb::check(path(), endHere); }));
  EXPECT_TRUE(isCancelledIn([&] { qvdb::salvage(path(), path("target.qvd"), endHere); }));
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
  std::filesystem::remove(path());
}

}  // namespace
}  // namespace qvdbase::test

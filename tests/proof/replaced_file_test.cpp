// Two processes on one file, of which one replaces it: a writer opens, adds one record, closes and
// acknowledges, over and over, while another process compacts the file in place. What was
// acknowledged is in the file that has the name in the end, whatever fell between the moments at
// which the writer opened the file, locked it and wrote.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>
#include <qvdbase/qvdb.hpp>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <set>

#include "kit/recorded_calls.h"
#include "kit/temp_folder.h"
#include "kit/test_extent.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

constexpr uint32_t kNothing = 0;

// Calls `operation` until no other process is in its way. The reason of a refusal is looked for
// after it: the other process may be gone by then.
template <typename Operation>
void untilFree(Operation operation) {
  for (;;) {
    try {
      operation();
      return;
    } catch (const qvdb::Error& error) {
      const qvdb::Reason reason = error.reason();
      if (reason != qvdb::Reason::in_use && reason != qvdb::Reason::cannot_open) throw;
      ::sched_yield();
    }
  }
}

[[noreturn]] void write(const std::filesystem::path& path, int acknowledgements) {
  RecordedCalls host;
  // The moment in which the file can be replaced under the one who opens it is made longer.
  host.observe([](Call call) {
    if (call == Call::lock) ::usleep(1000);
  });
  for (uint32_t number = 1;; ++number) {
    try {
      untilFree([&] {
        auto database = qvdb::Database::open(path, qvdb::Mode::exclusive);
        database.table("notes").add(std::as_bytes(std::span(&number, 1)));
        database.close();
      });
    } catch (const std::exception& exception) {
      std::fprintf(stderr, "the writer: %s\n", exception.what());
      ::_exit(2);
    }
    if (::write(acknowledgements, &number, sizeof number) != sizeof number) ::_exit(0);
    host.forget();
  }
}

class ReplacedFile : public testing::Test {
 protected:
  // The highest number that was acknowledged by now; waits for at least one more.
  uint32_t acknowledged(int pipe) {
    uint32_t number = kNothing;
    EXPECT_EQ(::read(pipe, &number, sizeof number), ssize_t{sizeof number}) << "the writer failed";
    return number;
  }

  std::set<uint32_t> numbersInFile() const {
    std::set<uint32_t> result;
    const auto database = qvdb::Database::open(path, qvdb::Mode::read_only);
    const qvdb::Table notes = database.table("notes");
    for (const qvdb::Record& record : notes.records(qvdb::Load::payloads)) {
      uint32_t number = kNothing;
      std::memcpy(&number, record.payload().data(), sizeof number);
      result.insert(number);
    }
    return result;
  }

  TempFolder folder;
  const std::filesystem::path path = folder / "a.qvd";
};

TEST_F(ReplacedFile, KeepsEveryRecordThatAWriterHasAcknowledged) {
  {
    auto database = qvdb::Database::create(path);
    database.add_table("notes");
  }
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(ends[0]);
    write(path, ends[1]);
  }
  ::close(ends[1]);
  const int compactions = testEverything() ? 500 : 30;
  uint32_t last = kNothing;
  for (int i = 0; i < compactions && !HasFailure(); ++i) {
    untilFree([&] { qvdb::compact(path); });
    last = std::max(last, acknowledged(ends[0]));
  }
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  for (uint32_t number; ::read(ends[0], &number, sizeof number) == ssize_t{sizeof number};) {
    last = std::max(last, number);
  }
  ::close(ends[0]);

  const std::set<uint32_t> found = numbersInFile();
  size_t lost = 0;
  for (uint32_t number = 1; number <= last; ++number) lost += !found.contains(number);
  EXPECT_EQ(lost, 0u) << "of " << last << " acknowledged records";
  reportCount("a file replaced under a writer, compactions", static_cast<uint64_t>(compactions));
}

}  // namespace
}  // namespace qvdbase::test

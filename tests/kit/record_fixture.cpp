// The fixture for tests on records.
#include "kit/record_fixture.h"

#include <cstdlib>

namespace qvdbase::test {
namespace {

constexpr int64_t kElsewhere = 77;  // where the position stands before an operation

}  // namespace

RecordTest::RecordTest() {
  host.setTime(kNow);
  host.setMicroseconds(123456);
  notes = image.addTable("notes", kNotes);
  other = image.addTable("other", kOther);
}

void RecordTest::threeRecords() {
  a = image.addRecord(notes, kA, bytesOf("first"), {.createTime = 11, .modifyTime = 12});
  b = image.addRecord(notes, kB, bytesOf("second"),
                      {.reserve = 20, .createTime = 21, .modifyTime = 22, .fill = 0xF1});
  c = image.addRecord(notes, kC, bytesOf("third"), {.createTime = 31, .modifyTime = 32});
}

int16_t RecordTest::start(int permission) {
  base = image.build();
  return put(base, kDefaultFile, permission);
}

void RecordTest::expectFile() const {
  EXPECT_TRUE(sameBytes(contents(), image.build()));
}

void RecordTest::expectOnlyAppended(const Bytes& tail) {
  EXPECT_TRUE(sameBytes(contents(), Bytes(base).add(tail)));
}

RecordTest::Outcome RecordTest::run(const Operation& operation,
                                    const std::function<void()>& prepare) {
  const int16_t db = put(image);
  seek(db, kElsewhere);
  std::srand(1);
  host.forget();
  prepare();
  Outcome outcome;
  outcome.result = operation(db);
  host.heal();
  outcome.position = position(db);
  outcome.writes = host.writes();
  outcome.file = contents();
  close(db);
  host.excuseBlocks();  // a fill that failed keeps its buffer
  return outcome;
}

std::vector<Write> RecordTest::writesOf(const Operation& operation) {
  const Outcome outcome = run(operation, [] {});
  EXPECT_EQ(outcome.result, 1);
  EXPECT_TRUE(sameBytes(outcome.file, applied(image.build(), outcome.writes)));
  return outcome.writes;
}

void RecordTest::expectStopped(const Outcome& outcome, const std::vector<Write>& log,
                               const std::string& where) {
  SCOPED_TRACE(where);
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.position, kElsewhere);
  EXPECT_TRUE(sameBytes(outcome.file, applied(image.build(), log, byteCount(outcome.writes))));
}

void RecordTest::expectStopsAtEachByte(const Operation& operation) {
  allowDamage();
  const std::vector<Write> log = writesOf(operation);
  for (size_t n = 0; n < byteCount(log) && !HasFailure(); ++n) {
    const Outcome outcome = run(operation, [&] { host.fullAfter(n); });
    EXPECT_EQ(byteCount(outcome.writes), n);
    expectStopped(outcome, log, "after " + std::to_string(n) + " bytes");
  }
}

int RecordTest::failEach(const Operation& operation, const char* what,
                         const std::function<void(int)>& failAt) {
  allowDamage();
  const std::vector<Write> log = writesOf(operation);
  for (int step = 0;; ++step) {
    const Outcome outcome = run(operation, [&] { failAt(step); });
    if (!host.failed()) return step;
    expectStopped(outcome, log, std::string(what) + " " + std::to_string(step) + " fails");
    if (HasFailure()) return step;
  }
}

int RecordTest::expectStopsAtEachWrite(const Operation& operation) {
  return failEach(operation, "write", [&](int step) { host.failOnce(Call::write, step); });
}

int RecordTest::expectStopsAtEachRead(const Operation& operation) {
  return failEach(operation, "read", [&](int step) { host.failFrom(Call::read, step); });
}

void RecordTest::expectGoesOnAfterEachShortTransfer(const Operation& operation) {
  const std::vector<Write> log = writesOf(operation);
  const auto tryEach = [&](const char* what, const std::function<void(int)>& disturbAt) {
    for (int step = 0; !HasFailure(); ++step) {
      SCOPED_TRACE(std::string(what) + " " + std::to_string(step));
      const Outcome outcome = run(operation, [&] { disturbAt(step); });
      if (!host.failed()) return;
      EXPECT_EQ(outcome.result, 1);
      EXPECT_TRUE(sameBytes(outcome.file, applied(image.build(), log)));
    }
  };
  for (const Call call : {Call::read, Call::write}) {
    // A transfer of one byte is no shorter than that: moving nothing is a failure.
    const Part half = [](size_t asked) { return asked - asked / 2; };
    tryEach(nameOf(call), [&](int step) { host.cutOnce(call, half, step); });
    tryEach(nameOf(call), [&](int step) { host.cutOnce(call, exactly(1), step); });
    tryEach(nameOf(call), [&](int step) { host.failOnce(call, step, EINTR); });
  }
}

void RecordTest::expectStopsAtEachFailure(const Operation& operation) {
  expectStopsAtEachByte(operation);
  expectStopsAtEachWrite(operation);
  expectStopsAtEachRead(operation);
  expectGoesOnAfterEachShortTransfer(operation);
}

}  // namespace qvdbase::test

// The fixture for tests on records: a file made by hand with two tables, a clock that stands still,
// and checks that run an operation again and again while the host fails it at each of its steps.
//
//   TEST_F(RecordAppend, LinksTheNewRecordAfterTheLast) {
//     threeRecords();                                      A, B and C in the table "notes"
//     const int16_t db = start();                          writes `image` to the file, opens it
//     ASSERT_EQ(AddRecordData_AssignRecordID(db, kNotes, ...), 1);
//     image.record(c).nextRecordPos = image.end();         what should have changed, by hand
//     ...
//     expectFile();                                        the file is `image`, byte for byte
//   }
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "kit/database_fixture.h"
#include "kit/recorded_calls.h"

namespace qvdbase::test {

inline constexpr uint64_t kNotes = 0x1122334455667788;  // the sum of its bytes is 0x264
inline constexpr uint64_t kOther = 0x99;
inline constexpr uint64_t kNoTable = 0x77;
inline constexpr uint64_t kA = 0xA1;
inline constexpr uint64_t kB = 0xB2;
inline constexpr uint64_t kC = 0xC3;
inline constexpr uint64_t kNoRecord = 0xEE;
inline constexpr std::time_t kNow = 0x5F5E1000;

// Where no block can lie: negative, as far as a position can be, beyond the end of every test's
// file, and on the file's header.
inline constexpr int64_t kHostilePositions[] = {-1, std::numeric_limits<int64_t>::min(),
                                                std::numeric_limits<int64_t>::max(),
                                                int64_t{1} << 40, 1};

class RecordTest : public DatabaseTest {
 protected:
  using Operation = std::function<int(int16_t db)>;

  RecordTest();

  // Records A, B and C of the table "notes", with room to spare in B: 5, 6 and 5 bytes.
  void threeRecords();
  // Writes the image to the file and opens it.
  int16_t start(int permission = 3);
  // The file is the image as it stands now.
  void expectFile() const;
  // The file is the one that start() wrote and these bytes behind it: blocks that nothing links.
  void expectOnlyAppended(const Bytes& tail);

  // What the operation, which has to succeed, writes to a fresh file of the image.
  std::vector<Write> writesOf(const Operation& operation);

  // Runs the operation on a fresh file with a host that takes n bytes and no more, for each n below
  // what it writes: it returns 0, restores the position, and the file holds just those n bytes.
  void expectStopsAtEachByte(const Operation& operation);
  // Fails each of its writes once: it returns 0, restores the position, and writes nothing more.
  // Returns the number of writes.
  int expectStopsAtEachWrite(const Operation& operation);
  // Fails its reads from each one on: likewise, with only those bytes written that go before.
  int expectStopsAtEachRead(const Operation& operation);
  // Cuts or interrupts each of its reads and writes once: it goes on and writes what it should.
  void expectGoesOnAfterEachShortTransfer(const Operation& operation);
  // All four.
  void expectStopsAtEachFailure(const Operation& operation);

  RecordedCalls host;
  FileImage image;
  size_t notes = 0;
  size_t other = 0;
  int64_t a = 0;
  int64_t b = 0;
  int64_t c = 0;
  Bytes base;  // what start() wrote

 private:
  struct Outcome {
    int result;
    int64_t position;
    Bytes file;
    std::vector<Write> writes;
  };
  // On a fresh file of the image, with the position at kElsewhere and the host as `prepare` says.
  Outcome run(const Operation& operation, const std::function<void()>& prepare);
  // A failed outcome whose writes are the beginning of `log`.
  void expectStopped(const Outcome& outcome, const std::vector<Write>& log,
                     const std::string& where);
  int failEach(const Operation& operation, const char* what,
               const std::function<void(int step)>& failAt);
};

}  // namespace qvdbase::test

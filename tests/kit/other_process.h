// Another process that uses the library, for tests of what processes see of each other.
//
//   OtherProcess other;                                  first thing in the test
//   ASSERT_EQ(other.open(folder.wide("f"), 4), 1);
//   EXPECT_EQ(QVFile().QVOpenFile(folder.wide("f"), 3, &number), 0);
//   other.kill();
//
// It is made by fork and carries out one command at a time. It must be made while this process has
// no file of the library open, else it would share them instead of being a stranger.
#pragma once

#include <qvdbase/base.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "platform/handles/lock_bytes.h"

namespace qvdbase::test {

class OtherProcess {
 public:
  OtherProcess();
  ~OtherProcess();  // ends it
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  // QVOpenFile there. Returns the number, or 0 when it was refused.
  int open(const QVWCHAR* path, int permission);
  // QVCreateFile with flag 0 there. Returns its result.
  int create(const QVWCHAR* path);
  // QVDeleteFile there. Returns its result.
  int empty(const QVWCHAR* path);
  // QVWriteFile there. Returns its result.
  int write(int file, const std::string& bytes);
  // QVCloseFile there. Returns its result.
  int close(int file);
  // Take and give up a lock on a byte after the file there; announce and withdraw a reader. The
  // result is the outcome's number.
  int takeByte(int file, platform::LockByte byte, platform::Sharing strength);
  int releaseByte(int file, platform::LockByte byte, platform::Sharing strength);
  int announce(int file);
  int withdraw(int file);

  // Ends it at once, wherever it is, and waits until it is gone.
  void kill();

 private:
  enum class Order : int {
    open,
    create,
    empty,
    write,
    close,
    takeByte,
    releaseByte,
    announce,
    withdraw
  };
  struct Command;

  static int carryOut(const Command& command);
  [[noreturn]] static void serve(int in, int out);
  int order(const Command& command);

  pid_t process_ = -1;
  int commands_ = -1;
  int answers_ = -1;
};

}  // namespace qvdbase::test

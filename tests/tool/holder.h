// A process that has a database open.
#pragma once

#include <qvdbase/qvdbase.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "kit/forked.h"

namespace qvdbase::test {

// Another process that has the database open exclusively until it is ended.
class Holder {
 public:
  explicit Holder(const QVWCHAR* path) {
    int ready[2];
    if (::pipe(ready) != 0) throw std::runtime_error("no pipe");
    process_ = ::fork();
    if (process_ == 0) {
      if (OpenDBaseW(path, 3) == 0) ::_exit(1);
      static_cast<void>(!::write(ready[1], "y", 1));
      for (;;) ::pause();
    }
    ::close(ready[1]);
    char answer = 0;
    isHolding_ = ::read(ready[0], &answer, 1) == 1;
    ::close(ready[0]);
  }
  ~Holder() { end(); }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  bool isHolding() const { return isHolding_; }
  // How a message begins to name it: "another process (4711".
  std::string named() const { return "another process (" + std::to_string(process_); }
  std::string number() const { return std::to_string(process_); }
  void end() {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    endOf(process_);
    process_ = -1;
  }

 private:
  pid_t process_ = -1;
  bool isHolding_ = false;
};

}  // namespace qvdbase::test

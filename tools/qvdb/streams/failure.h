// How the tool fails: one line on standard error that names the file, what is wrong and what to do.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <stdexcept>
#include <string>

#include "command_line/command.h"

namespace qvdb::tool {

// Thrown by a command; main prints it and exits with the status.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& message, int status = kFailed)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

// The command line cannot be understood.
inline Failure wrongUsage(const std::string& message) {
  return Failure(message, kWrongUsage);
}

// A system call has failed: "PATH: cannot WHAT: " and the system's words for errno.
Failure systemFailure(const std::string& path, const char* what);

// What the user can do about a failed operation of the library; may be empty.
std::string adviceFor(const Error& error);

// Writes "qvdb: MESSAGE" and a line end to standard error, control characters escaped.
void complain(const std::string& message);

}  // namespace qvdb::tool

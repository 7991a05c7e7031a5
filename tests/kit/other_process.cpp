// Another process that uses the library: a child that reads commands from one pipe and answers
// through a second one.
#include "kit/other_process.h"

#include <qvdbase/QVFile.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace qvdbase::test {
namespace {

// A command may be longer than what a pipe takes in one piece, so both directions repeat until all
// is through.
bool readAll(int descriptor, void* buffer, size_t count) {
  auto* bytes = static_cast<char*>(buffer);
  while (count > 0) {
    const ssize_t got = ::read(descriptor, bytes, count);
    if (got <= 0) return false;
    bytes += got;
    count -= static_cast<size_t>(got);
  }
  return true;
}

bool writeAll(int descriptor, const void* buffer, size_t count) {
  const auto* bytes = static_cast<const char*>(buffer);
  while (count > 0) {
    const ssize_t put = ::write(descriptor, bytes, count);
    if (put <= 0) return false;
    bytes += put;
    count -= static_cast<size_t>(put);
  }
  return true;
}

}  // namespace

struct OtherProcess::Command {
  Order order;
  int number = 0;  // of a file, or the permission
  uint32_t size = 0;
  platform::LockByte byte = {};
  platform::Sharing strength = {};
  QVWCHAR path[2048] = {};
  char bytes[4096] = {};

  Command(Order what, int value) : order(what), number(value) {}
  Command(Order what, const QVWCHAR* name, int value = 0) : Command(what, value) {
    for (size_t i = 0; i + 1 < std::size(path) && name[i] != 0; ++i) path[i] = name[i];
  }
};

OtherProcess::OtherProcess() {
  int commands[2];
  int answers[2];
  if (::pipe(commands) != 0 || ::pipe(answers) != 0) throw std::runtime_error("no pipe");
  process_ = ::fork();
  if (process_ < 0) throw std::runtime_error("no process");
  if (process_ == 0) {
    ::close(commands[1]);
    ::close(answers[0]);
    serve(commands[0], answers[1]);
  }
  ::close(commands[0]);
  ::close(answers[1]);
  commands_ = commands[1];
  answers_ = answers[0];
}

OtherProcess::~OtherProcess() {
  kill();
  ::close(commands_);
  ::close(answers_);
}

void OtherProcess::kill() {
  if (process_ < 0) return;
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
  process_ = -1;
}

int OtherProcess::carryOut(const Command& command) {
  QVFile file;
  int16_t number = 0;
  uint32_t moved = 0;
  const auto handle = static_cast<int16_t>(command.number);
  switch (command.order) {
    case Order::open:
      file.QVOpenFile(command.path, command.number, &number);
      return number;
    case Order::create:
      return file.QVCreateFile(command.path, 0);
    case Order::empty:
      return file.QVDeleteFile(command.path);
    case Order::write:
      return file.QVWriteFile(handle, command.bytes, command.size, &moved);
    case Order::close:
      return file.QVCloseFile(handle);
    case Order::takeByte:
      return static_cast<int>(platform::takeLockByte(handle, command.byte, command.strength));
    case Order::releaseByte:
      platform::releaseLockByte(handle, command.byte, command.strength);
      return 1;
    case Order::announce:
      return platform::announceReader(handle) ? 1 : 0;
    case Order::withdraw:
      platform::withdrawReader(handle);
      return 1;
  }
  return -1;
}

void OtherProcess::serve(int in, int out) {
  Command command(Order::close, 0);
  while (readAll(in, &command, sizeof command)) {
    const int answer = carryOut(command);
    if (!writeAll(out, &answer, sizeof answer)) break;
  }
  ::_exit(0);
}

int OtherProcess::order(const Command& command) {
  int answer = 0;
  if (!writeAll(commands_, &command, sizeof command) ||
      !readAll(answers_, &answer, sizeof answer)) {
    throw std::runtime_error("the other process does not answer");
  }
  return answer;
}

int OtherProcess::open(const QVWCHAR* path, int permission) {
  return order(Command(Order::open, path, permission));
}

int OtherProcess::create(const QVWCHAR* path) {
  return order(Command(Order::create, path));
}

int OtherProcess::empty(const QVWCHAR* path) {
  return order(Command(Order::empty, path));
}

int OtherProcess::write(int file, const std::string& bytes) {
  Command command(Order::write, file);
  command.size = static_cast<uint32_t>(std::min(bytes.size(), sizeof command.bytes));
  std::memcpy(command.bytes, bytes.data(), command.size);
  return order(command);
}

int OtherProcess::close(int file) {
  return order(Command(Order::close, file));
}

int OtherProcess::takeByte(int file, platform::LockByte byte, platform::Sharing strength) {
  Command command(Order::takeByte, file);
  command.byte = byte;
  command.strength = strength;
  return order(command);
}

int OtherProcess::releaseByte(int file, platform::LockByte byte, platform::Sharing strength) {
  Command command(Order::releaseByte, file);
  command.byte = byte;
  command.strength = strength;
  return order(command);
}

int OtherProcess::announce(int file) {
  return order(Command(Order::announce, file));
}

int OtherProcess::withdraw(int file) {
  return order(Command(Order::withdraw, file));
}

}  // namespace qvdbase::test

// Reading what is to be stored, or salvaged: a file, or standard input for "-".
#ifndef QVDB_TOOL_INPUT_H
#define QVDB_TOOL_INPUT_H

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace qvdb::tool {

// A file descriptor that closes itself.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept;
  Descriptor& operator=(Descriptor&& other) noexcept;

  int number() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }

 private:
  int number_;
};

// Replaces what is in the buffer by everything that can be read. The sizes of payloads end at
// 4,294,967,295 bytes; more throws Failure, as does a failure to read. `name` is for messages.
void readAll(int descriptor, const std::string& name, std::vector<std::byte>* buffer);

// Something that is to be stored: a file, a pipe, or standard input for "-". It is opened, and all
// that could fail or wait for another program is done, before a database is locked for it.
class Input {
 public:
  // Opens it. Throws Failure when it cannot be opened, is no file, or is too large for a record.
  explicit Input(const std::string& path);

  // Reads what does not come from a regular file: pipes, and standard input.
  void prepare();

  // The whole of it; good until the next call. Throws Failure; Interrupted.
  const std::vector<std::byte>& contents();

 private:
  int number() const { return file_ ? file_.number() : 0; }

  std::string name_;
  Descriptor file_;  // none for standard input
  bool isRegular_ = false;
  bool isRead_ = false;
  std::vector<std::byte> contents_;
};

// The whole of a file, or of standard input for "-".
std::vector<std::byte> readInput(const std::string& path);

// A path by which standard input can be opened, for reading it in place: when it is a file or a
// block device of which nothing was read yet.
std::optional<std::string> pathOfStandardInput();

// All of standard input, as far as there is memory for it. Throws Failure.
std::vector<std::byte> readStandardInput();

}  // namespace qvdb::tool

#endif

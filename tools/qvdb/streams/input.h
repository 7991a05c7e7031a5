// Reading what is to be stored, or salvaged: a file, or standard input for "-"; and descriptors.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
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

// Writes all bytes. Throws Failure. `name` is for its message.
void writeAll(int descriptor, const std::string& name, std::span<const std::byte> bytes);

// A file, or a pipe that has a writer yet or not, to be read to its end. Throws Failure when it
// cannot be opened, and for a folder.
Descriptor openToReadAll(const std::string& path);

// Reads what is there, at most `size` bytes; waits for the first one. 0 at the end. Throws Failure;
// Interrupted. `name` is for messages.
size_t readSome(int descriptor, const std::string& name, std::byte* to, size_t size);

// Replaces the contents of the buffer by everything that can be read. Throws Failure for more than
// 4,294,967,295 bytes, the largest payload, and when it cannot be read. `name` is for messages.
void readAll(int descriptor, const std::string& name, std::vector<std::byte>* buffer);

// Calls take(piece) for everything that can be read, in pieces of at most 256 KiB. Throws Failure
// for more than 4,294,967,295 bytes, as readAll does.
using TakePiece = std::function<void(std::span<const std::byte>)>;
void forEachInputPiece(int descriptor, const std::string& name, const TakePiece& take);

// What is to be stored: a file, a pipe, or standard input for "-". It is opened, and everything
// that could fail or wait for another program is done, before a database is locked for it.
class Input {
 public:
  // Opens it. Throws Failure when it cannot be opened, is not a file, or is too large for a record.
  explicit Input(const std::string& path);

  // Closes a regular file, which forEachPiece() opens again: any number of them can be prepared.
  void closeUntilRead();

  // Whether it is the file at this path, under whatever name.
  bool isFileAt(const std::string& path) const;

  // Reads what does not come from a regular file: pipes, and standard input. Large input is kept in
  // a temporary file without a name. Throws Failure; Interrupted.
  void prepare();

  // Calls take(piece) for all of it, once. Throws as prepare() does, and Failure when another file
  // has got the name of the one that was closed.
  void forEachPiece(const TakePiece& take);

  int number() const { return file_ ? file_.number() : 0; }
  const std::string& name() const { return name_; }

 private:
  std::string name_;
  Descriptor file_;  // none for standard input
  bool isRegular_ = false;
  struct stat status_ = {};
  std::vector<std::byte> start_;  // what has been read before, unless it went to `spooled_`
  Descriptor spooled_;

  Descriptor openFile() const;
  void reopen();
};

// The value of --reserve; 0 when it was not given. Throws Failure (wrong usage).
uint32_t reserveOf(const std::optional<uint64_t>& option);

// The whole of a file, or of standard input for "-".
std::vector<std::byte> readInput(const std::string& path);

// A path by which standard input can be opened, for reading it in place: when it is a file or a
// block device of which nothing was read yet.
std::optional<std::string> pathOfStandardInput();

// All of standard input, as far as there is memory for it. Throws Failure.
std::vector<std::byte> readStandardInput();

}  // namespace qvdb::tool

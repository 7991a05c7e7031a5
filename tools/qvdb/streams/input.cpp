// Reading what is to be stored, or salvaged.
#include "streams/input.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

#include "streams/failure.h"
#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

constexpr size_t kPiece = 65536;
constexpr size_t kMostInMemory = size_t{1} << 20;
constexpr size_t kLargestPayload = 0xFFFFFFFF;
constexpr size_t kNoLimit = std::numeric_limits<size_t>::max();
constexpr const char* kStandardInput = "standard input";
constexpr const char* kTemporaryFile = "temporary file";

Failure tooLarge(const std::string& name) {
  return Failure(name +
                 ": has more than 4,294,967,295 bytes, which is the most that a record can hold; "
                 "split it");
}

// The size of the file now, and a byte more to see its end; for pipes the buffer grows.
size_t firstSize(int descriptor) {
  struct stat status = {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return kPiece;
  return std::min(static_cast<size_t>(status.st_size), kLargestPayload) + 1;
}

void readUpTo(size_t most, int descriptor, const std::string& name,
              std::vector<std::byte>* buffer) {
  buffer->resize(std::max(buffer->size(), firstSize(descriptor)));
  size_t size = 0;
  while (const size_t got =
             readSome(descriptor, name, buffer->data() + size, buffer->size() - size)) {
    size += got;
    if (size > most) throw tooLarge(name);
    if (size == buffer->size()) buffer->resize(size + std::max(size, kPiece));
  }
  buffer->resize(size);
}

// A file that disappears when it is closed.
Descriptor unnamedFile() {
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::temp_directory_path(error);
  if (error)
    throw Failure("cannot find the folder for temporary files; set TMPDIR to one that exists");
  std::string path = (folder / "qvdb-XXXXXX").native();
  Descriptor file(::mkostemp(path.data(), O_CLOEXEC));
  if (!file) throw systemFailure(path, "create a temporary file");
  ::unlink(path.c_str());
  return file;
}

struct stat statusOf(int descriptor, const std::string& name) {
  struct stat status = {};
  if (::fstat(descriptor, &status) != 0) throw systemFailure(name, "read its properties");
  return status;
}

bool isSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace

Descriptor::~Descriptor() {
  if (number_ >= 0) ::close(number_);
}

Descriptor::Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(number_, other.number_);
  return *this;
}

size_t readSome(int descriptor, const std::string& name, std::byte* to, size_t size) {
  for (;;) {
    waitForInput(descriptor);
    const ssize_t got = ::read(descriptor, to, size);
    if (got >= 0) return static_cast<size_t>(got);
    if (errno != EINTR && errno != EAGAIN) throw systemFailure(name, "read");
  }
}

Descriptor openToReadAll(const std::string& path) {
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) throw systemFailure(path, "open");
  if (S_ISDIR(statusOf(file.number(), path).st_mode)) throw Failure(path + ": is a folder");
  return file;
}

void writeAll(int descriptor, const std::string& name, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes = bytes.subspan(static_cast<size_t>(written));
    } else if (!canContinueWriting(descriptor)) {
      throw systemFailure(name, "write");
    }
  }
}

void readAll(int descriptor, const std::string& name, std::vector<std::byte>* buffer) {
  readUpTo(kLargestPayload, descriptor, name, buffer);
}

Input::Input(const std::string& path) : name_(path == "-" ? kStandardInput : path) {
  if (path != "-") file_ = openFile();
  status_ = statusOf(number(), name_);
  if (S_ISDIR(status_.st_mode)) {
    throw Failure(name_ + ": is a folder; 'qvdb import' stores folders");
  }
  isRegular_ = file_ && S_ISREG(status_.st_mode);
  if (!isRegular_) return;
  if (static_cast<uint64_t>(status_.st_size) > kLargestPayload) throw tooLarge(name_);
}

// A pipe that has no writer yet is waited for when it is read, where Ctrl-C is noticed.
Descriptor Input::openFile() const {
  Descriptor file(::open(name_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) throw systemFailure(name_, "open");
  return file;
}

void Input::closeUntilRead() {
  if (isRegular_) file_ = Descriptor();
}

void Input::reopen() {
  file_ = openFile();
  if (isSameFile(statusOf(number(), name_), status_)) return;
  throw Failure(name_ + ": was replaced by another file meanwhile; nothing was stored; try again");
}

bool Input::isFileAt(const std::string& path) const {
  struct stat status = {};
  return isRegular_ && ::stat(path.c_str(), &status) == 0 && isSameFile(status, status_);
}

void Input::prepare() {
  if (isRegular_) return;
  forEachInputPiece(number(), name_, [this](std::span<const std::byte> piece) {
    if (!spooled_ && start_.size() + piece.size() <= kMostInMemory) {
      start_.insert(start_.end(), piece.begin(), piece.end());
      return;
    }
    if (!spooled_) {
      spooled_ = unnamedFile();
      writeAll(spooled_.number(), kTemporaryFile, start_);
      start_ = {};
    }
    writeAll(spooled_.number(), kTemporaryFile, piece);
  });
  if (spooled_ && ::lseek(spooled_.number(), 0, SEEK_SET) != 0) {
    throw systemFailure(kTemporaryFile, "read");
  }
}

void Input::forEachPiece(const TakePiece& take) {
  if (isRegular_ && !file_) reopen();
  if (isRegular_ || spooled_) {
    forEachInputPiece(isRegular_ ? number() : spooled_.number(), name_, take);
    closeUntilRead();
  } else {
    take(start_);
  }
}

void forEachInputPiece(int descriptor, const std::string& name, const TakePiece& take) {
  std::vector<std::byte> buffer(4 * kPiece);
  uint64_t size = 0;
  while (const size_t got = readSome(descriptor, name, buffer.data(), buffer.size())) {
    size += got;
    if (size > kLargestPayload) throw tooLarge(name);
    take(std::span<const std::byte>(buffer).first(got));
  }
}

uint32_t reserveOf(const std::optional<uint64_t>& option) {
  if (option.value_or(0) > kLargestPayload) {
    throw wrongUsage("--reserve takes at most 4294967295 bytes");
  }
  return static_cast<uint32_t>(option.value_or(0));
}

std::vector<std::byte> readInput(const std::string& path) {
  const Input input(path);
  std::vector<std::byte> buffer;
  readAll(input.number(), input.name(), &buffer);
  return buffer;
}

std::optional<std::string> pathOfStandardInput() {
  constexpr const char* kPath = "/dev/stdin";
  struct stat status = {};
  if (::fstat(STDIN_FILENO, &status) != 0) return std::nullopt;
  if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) return std::nullopt;
  if (::lseek(STDIN_FILENO, 0, SEEK_CUR) != 0) return std::nullopt;
  // What another user has opened for us may refuse to be opened again.
  const Descriptor again(::open(kPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat found = {};
  if (!again || ::fstat(again.number(), &found) != 0) return std::nullopt;
  if (!isSameFile(found, status)) return std::nullopt;
  return kPath;
}

std::vector<std::byte> readStandardInput() {
  std::vector<std::byte> buffer;
  try {
    readUpTo(kNoLimit, STDIN_FILENO, kStandardInput, &buffer);
    return buffer;
  } catch (const std::bad_alloc&) {
  } catch (const std::length_error&) {
  }
  throw Failure(std::string(kStandardInput) +
                ": there is not enough memory for it; write it to a file and name that");
}

}  // namespace qvdb::tool

// Handing bytes from a database to the user.
#include "qvdb/delivery.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <vector>

#include "qvdb/failure.h"
#include "qvdb/input.h"
#include "qvdb/interrupt.h"
#include "qvdb/output.h"
#include "qvdb/text.h"

namespace qvdb::tool {
namespace {

constexpr std::size_t kPiece = 256 * 1024;

// Calls take(piece) for one piece after the other.
template <typename Take>
void forEachPiece(const PieceReader& read, Take take) {
  std::vector<std::byte> buffer(kPiece);
  std::uint64_t offset = 0;
  while (const std::size_t got = read(offset, buffer)) {
    throwIfInterrupted();
    take(std::span<const std::byte>(buffer).first(got));
    offset += got;
  }
}

bool allIsText(const PieceReader& read) {
  std::string text;
  bool isText = true;
  std::size_t pending = 0;
  forEachPiece(read, [&](std::span<const std::byte> piece) {
    // A character that was cut off at the end of the last piece goes on in this one.
    text.erase(0, text.size() - pending);
    text.append(reinterpret_cast<const char*>(piece.data()), piece.size());
    isText = isText && !isBinary(text, &pending);
  });
  return isText && pending == 0;
}

void deliverToStandardOutput(const PieceReader& read, bool raw) {
  if (!raw && outputIsTerminal() && !allIsText(read)) {
    throw Failure(
        "this is not plain text, and could confuse the terminal; use --output FILE to store it, or "
        "--raw to show it all the same");
  }
  forEachPiece(read, [](std::span<const std::byte> piece) { print(piece); });
}

void writeAll(int descriptor, const std::string& name, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) throw systemFailure(name, "write");
    if (written < 0) continue;
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
}

bool isRegular(const std::string& path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// A file is replaced only when the new one is complete; a device or a pipe is written to.
void deliverToFile(const PieceReader& read, const std::string& path, bool force) {
  const Descriptor created(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
  std::string temporary = path;
  Descriptor replacing;
  if (!created) {
    if (errno != EEXIST) throw systemFailure(path, "create");
    if (!force) throw Failure(path + ": exists already; use --force to replace it");
    if (!isRegular(path)) {
      const Descriptor device(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
      if (!device) throw systemFailure(path, "open");
      return writePieces(read, device.number(), path);
    }
    temporary = path + ".qvdb-" + std::to_string(::getpid());
    replacing = Descriptor(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (!replacing) throw systemFailure(temporary, "create");
  }
  try {
    writePieces(read, created ? created.number() : replacing.number(), path);
    if (replacing && ::rename(temporary.c_str(), path.c_str()) != 0) {
      throw systemFailure(path, "replace");
    }
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
}

}  // namespace

void deliver(const PieceReader& read, const DeliveryOptions& options) {
  if (!options.output || *options.output == "-") return deliverToStandardOutput(read, options.raw);
  deliverToFile(read, *options.output, options.force);
}

void writePieces(const PieceReader& read, int descriptor, const std::string& name) {
  forEachPiece(read, [&](std::span<const std::byte> piece) { writeAll(descriptor, name, piece); });
}

}  // namespace qvdb::tool

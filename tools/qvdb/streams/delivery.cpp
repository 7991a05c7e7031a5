// Writes bytes from a database for the user.
#include "streams/delivery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <vector>

#include "streams/failure.h"
#include "streams/input.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

constexpr size_t kPiece = 256 * 1024;

// Calls take(piece) for one piece after the other.
template <typename Take>
void forEachPiece(const PieceReader& read, Take take) {
  std::vector<std::byte> buffer(kPiece);
  uint64_t offset = 0;
  while (const size_t got = read(offset, buffer)) {
    throwIfInterrupted();
    take(std::span<const std::byte>(buffer).first(got));
    offset += got;
  }
}

bool allIsText(const PieceReader& read) {
  std::string text;
  bool isText = true;
  size_t pending = 0;
  forEachPiece(read, [&](std::span<const std::byte> piece) {
    // A character that was cut off at the end of the last piece continues in this one.
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
        "--raw to show it anyway");
  }
  forEachPiece(read, [](std::span<const std::byte> piece) { print(piece); });
}

// Whether it is a device or a pipe, which is written to and not replaced. Throws Failure for a
// folder.
bool isSomethingElse(const std::string& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) return false;
  if (S_ISDIR(status.st_mode)) throw Failure(path + ": is a folder; give the path of a file");
  return true;
}

bool isPipe(const std::string& path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

// Waits until another program reads the pipe. An opening that blocks would miss a signal that comes
// just before it.
Descriptor openDevice(const std::string& path) {
  constexpr useconds_t kPause = 20'000;
  for (;;) {
    throwIfInterrupted();
    Descriptor device(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK));
    if (device) return device;
    const bool hasNoReader = errno == ENXIO && isPipe(path);
    if (!hasNoReader && errno != EINTR) throw systemFailure(path, "open");
    ::usleep(kPause);
  }
}

void deliverToDevice(const PieceReader& read, const std::string& path, bool force) {
  if (!force) throw Failure(path + ": exists already; use --force to write to it");
  const Descriptor device = openDevice(path);
  forEachPiece(read,
               [&](std::span<const std::byte> piece) { writeAll(device.number(), path, piece); });
}

}  // namespace

void defineDelivery(Arguments& arguments, DeliveryOptions& options, const DeliveryHelp& help) {
  arguments.option("-o,--output", "PATH", options.output, help.output);
  arguments.force(options.force, help.force);
  arguments.parents(options.parents);
  arguments.noSync(options.noSync);
  arguments.flag("--raw", options.raw, help.raw);
}

void deliver(const PieceReader& read, const std::string& source, const DeliveryOptions& options) {
  if (!options.output || *options.output == "-") return deliverToStandardOutput(read, options.raw);
  if (isSomethingElse(*options.output)) {
    return deliverToDevice(read, *options.output, options.force);
  }
  OutputFile file = whileInUse([&] {
    return OutputFile(
        *options.output, source,
        {.overwrite = options.force, .create_folders = options.parents, .sync = !options.noSync});
  });
  writePieces(read, file);
  file.place();
}

void writePieces(const PieceReader& read, OutputFile& file) {
  forEachPiece(read, [&](std::span<const std::byte> piece) { file.write(piece); });
}

}  // namespace qvdb::tool

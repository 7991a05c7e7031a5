// Lines of a file, or of standard input.
#include "content/line_reader.h"

#include <cstring>
#include <span>

#include "streams/failure.h"

namespace qvdb::tool {
namespace {

constexpr size_t kFirstSize = size_t{256} << 10;

}  // namespace

LineReader::LineReader(const std::string& path)
    : name_(path == "-" ? "standard input" : path), buffer_(kFirstSize) {
  if (path != "-") file_ = openToReadAll(path);
}

std::string LineReader::about(const std::string& what) const {
  return name_ + ": line " + std::to_string(number_) + ": " + what;
}

bool LineReader::readMore() {
  if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (end_ == buffer_.size()) {
    if (end_ >= kLongest) {
      throw Failure(about("it has more than 8 MiB, which no line of a dump has"));
    }
    buffer_.resize(2 * end_);
  }
  const size_t got =
      readSome(file_ ? file_.number() : 0, name_,
               std::as_writable_bytes(std::span(buffer_)).data() + end_, buffer_.size() - end_);
  end_ += got;
  return got != 0;
}

bool LineReader::next(std::string_view* line) {
  ++number_;
  for (size_t looked = 0;;) {
    const char* const from = buffer_.data() + begin_;
    const size_t size = end_ - begin_;
    const void* const found = std::memchr(from + looked, '\n', size - looked);
    if (found != nullptr) {
      const auto length = static_cast<size_t>(static_cast<const char*>(found) - from);
      *line = {from, length};
      begin_ += length + 1;
      return true;
    }
    looked = size;
    if (readMore()) continue;
    if (size == 0) return false;
    throw Failure(about("it is not ended: the rest is missing"));
  }
}

}  // namespace qvdb::tool

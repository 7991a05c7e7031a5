// What a transaction writes, in memory.
#include "platform/transfer/stage.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <utility>

#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"
#include "platform/transfer/call_state.h"
#include "platform/transfer/mirror.h"
#include "platform/transfer/plain_transfer.h"

namespace qvdbase::platform {
bool Stage::writeToFile(const OpenFile& file, int64_t position, const uint8_t* bytes,
                        size_t count) {
  const uint64_t limit = systemCalls().fileSizeLimit();
  if (bytesBelow(limit, position, count) < count) {
    noteRefusedWrite(EFBIG);
    return false;
  }
  const size_t done = writePlain(file.descriptor, position, bytes, count);
  noteWritten(file.entry, position, bytes, count, done);
  ++writesMade_;
  if (done == count) return true;
  // The part of it that was appended must not stay where a rollback does not look for it.
  if (done > 0 && position == inFile_) static_cast<void>(cutFile(file, position));
  return false;
}

std::unique_ptr<Stage> Stage::begin(const OpenFile& file, size_t head, size_t budget,
                                    Underlay underlay, int64_t from,
                                    const Announcement& announcement) {
  try {
    std::unique_ptr<Stage> stage(new Stage);
    stage->budget_ = budget;
    stage->underlay_ = underlay;
    stage->base_ = stage->inFile_ = systemCalls().lengthOf(file.descriptor);
    if (from != 0) {
      stage->base_ = from;
    } else {
      stage->announcement_ = announcement;
      stage->tail_.resize(announcement.size);
    }
    if (stage->base_ < static_cast<int64_t>(head) || stage->inFile_ < stage->base_) return nullptr;
    stage->headBefore_.resize(head);
    if (!stage->readBefore(file, 0, stage->headBefore_.data(), head)) return nullptr;
    stage->head_ = stage->headBefore_;
    return stage;
  } catch (const std::bad_alloc&) {
    noteRefusedWrite(ENOMEM);
    return nullptr;
  }
}

std::unique_ptr<Stage> Stage::forReading(Underlay underlay) {
  std::unique_ptr<Stage> stage(new Stage);
  stage->underlay_ = underlay;
  stage->inFile_ = std::numeric_limits<int64_t>::max();
  stage->onlyReads_ = true;
  return stage;
}

bool Stage::readBefore(const OpenFile& file, int64_t position, uint8_t* bytes, size_t count) const {
  bool failed = false;
  const uint8_t* mirrored =
      file.mirror != nullptr ? file.mirror->obtain(file.descriptor, position, count) : nullptr;
  if (mirrored != nullptr) std::memcpy(bytes, mirrored, count);
  const bool isRead =
      mirrored != nullptr || readPlain(file.descriptor, position, bytes, count, &failed) == count;
  if (failed) noteHostFailure();
  if (isRead && underlay_.layOver != nullptr) {
    underlay_.layOver(underlay_.context, position, bytes, count);
  }
  return isRead;
}

Stage::InMemory Stage::runAt(int64_t position) const {
  if (position >= 0 && static_cast<uint64_t>(position) < head_.size()) {
    return {0, head_.size(), head_.data()};
  }
  if (position >= inFile_ && position < length()) return {inFile_, tail_.size(), tail_.data()};
  return {};
}

void Stage::layOver(int64_t position, uint8_t* bytes, size_t count) const {
  if (underlay_.layOver != nullptr) {
    underlay_.layOver(underlay_.context, position, bytes, count);
  }
  const int64_t end = position + static_cast<int64_t>(count);
  const auto headEnd = static_cast<int64_t>(head_.size());
  if (position < headEnd) {
    const int64_t part = std::min(end, headEnd) - position;
    std::memcpy(bytes, head_.data() + position, static_cast<size_t>(part));
  }
  constexpr int64_t kBefore = kLargestLink - 1;
  for (auto link = links_.lower_bound(position - kBefore);
       link != links_.end() && link->first < end; ++link) {
    const int64_t from = std::max(position, link->first);
    const int64_t to = std::min(end, link->first + link->second.size);
    if (from >= to) continue;
    std::memcpy(bytes + (from - position), link->second.after.data() + (from - link->first),
                static_cast<size_t>(to - from));
  }
}

size_t Stage::write(const OpenFile& file, int64_t position, const uint8_t* bytes, size_t count,
                    const uint8_t* before) {
  assert(!onlyReads_ && "what only reads is written to");
  if (onlyReads_) {
    noteRefusedWrite(EROFS);
    return 0;
  }
  const auto headEnd = static_cast<int64_t>(head_.size());
  const int64_t end = position + static_cast<int64_t>(count);
  bool isDone = false;
  try {
    if (position >= inFile_) {
      isDone = writeTail(file, position, bytes, count);
    } else if (end <= headEnd) {
      std::memcpy(head_.data() + position, bytes, count);
      isDone = true;
    } else if (position >= headEnd && end <= base_) {
      isDone = writeLink(file, position, bytes, count, before);
    } else if (position >= base_ && end <= inFile_) {
      isDone = writeSpilled(file, position, bytes, count);
    } else {
      isDone = breakOff();
    }
  } catch (const std::bad_alloc&) {
    noteRefusedWrite(ENOMEM);
    isDone = breakOff();
  }
  return isDone ? count : 0;
}

// A place that overlaps another one, or is too long, is none that a transaction changes.
bool Stage::writeLink(const OpenFile& file, int64_t position, const uint8_t* bytes, size_t count,
                      const uint8_t* before) {
  constexpr int64_t kBefore = kLargestLink - 1;
  if (count > kLargestLink) return breakOff();
  const int64_t end = position + static_cast<int64_t>(count);
  auto found = links_.lower_bound(position - kBefore);
  while (found != links_.end() && found->first + found->second.size <= position) ++found;
  if (found != links_.end() && found->first < end) {
    Link& link = found->second;
    if (found->first != position || link.size != count) return breakOff();
    keepForUndo(position, link.after.data(), count);
    std::memcpy(link.after.data(), bytes, count);
    return true;
  }
  Link link;
  link.size = static_cast<uint8_t>(count);
  if (before != nullptr) {
    std::memcpy(link.before.data(), before, count);
  } else if (!readBefore(file, position, link.before.data(), count)) {
    return breakOff();
  }
  std::memcpy(link.after.data(), bytes, count);
  if (savedLength_ >= 0) undo_.push_back({position, true, {}});
  links_.emplace(position, link);
  return true;
}

bool Stage::writeSpilled(const OpenFile& file, int64_t position, const uint8_t* bytes,
                         size_t count) {
  if (savedLength_ > position) {
    std::vector<uint8_t> present(count);
    if (!readBefore(file, position, present.data(), count)) return breakOff();
    keepForUndo(position, present.data(), count);
  }
  return writeToFile(file, position, bytes, count) || breakOff();
}

bool Stage::writeTail(const OpenFile& file, int64_t position, const uint8_t* bytes, size_t count) {
  const auto offset = static_cast<size_t>(position - inFile_);
  if (offset > tail_.size()) return breakOff();
  const size_t over = std::min(count, tail_.size() - offset);
  if (over > 0) {
    if (position < savedLength_) keepForUndo(position, tail_.data() + offset, over);
    std::memcpy(tail_.data() + offset, bytes, over);
  }
  const size_t more = count - over;
  // What is as large as the budget need not come into memory first.
  if (more >= budget_) {
    const int64_t from = position + static_cast<int64_t>(over);
    if (!spillBefore(file, more) || !writeToFile(file, from, bytes + over, more)) return breakOff();
    inFile_ = from + static_cast<int64_t>(more);
    return true;
  }
  tail_.insert(tail_.end(), bytes + over, bytes + count);
  return tail_.size() <= budget_ || spill(file);
}

void Stage::keepForUndo(int64_t position, const uint8_t* bytes, size_t count) {
  if (savedLength_ < 0) return;
  undo_.push_back({position, false, {bytes, bytes + count}});
}

std::vector<uint8_t> Stage::takeTail() {
  std::vector<uint8_t> tail = std::move(tail_);
  tail.erase(tail.begin(), tail.begin() + static_cast<ptrdiff_t>(gap()));
  return tail;
}

// Before the bytes that it announces: where these are cut off, it says more than there is.
bool Stage::announce(const OpenFile& file, int64_t end) {
  if (announcement_.size == 0) return true;
  const int64_t length = end - base_ - announced();
  if (inFile_ == base_) {
    announcement_.make(announcement_.context, base_, length, tail_.data());
    return true;
  }
  std::vector<uint8_t> bytes(announcement_.size);
  announcement_.make(announcement_.context, base_, length, bytes.data());
  return writeToFile(file, base_, bytes.data(), bytes.size());
}

bool Stage::spill(const OpenFile& file) {
  return spillBefore(file, 0);
}

// `more` bytes will follow at once.
bool Stage::spillBefore(const OpenFile& file, size_t more) {
  if (systemCalls().lengthOf(file.descriptor) != inFile_) return breakOff();
  if (tail_.empty() && more == 0) return true;
  if (!announce(file, length() + static_cast<int64_t>(more))) return breakOff();
  if (tail_.empty()) return true;
  if (!writeToFile(file, inFile_, tail_.data(), tail_.size())) return breakOff();
  inFile_ += static_cast<int64_t>(tail_.size());
  tail_.clear();
  return true;
}

bool Stage::cut(const OpenFile& file, int64_t length) {
  return length >= base_ + announced() && cutTo(file, length);
}

bool Stage::cutTo(const OpenFile& file, int64_t length) {
  if (length > this->length()) return false;
  if (length >= inFile_) {
    tail_.resize(static_cast<size_t>(length - inFile_));
    return true;
  }
  tail_.clear();
  if (systemCalls().lengthOf(file.descriptor) != inFile_) return breakOff();
  if (!cutFile(file, length)) return breakOff();
  inFile_ = length;
  return true;
}

bool Stage::cutFile(const OpenFile& file, int64_t length) {
  const bool isCut =
      uninterrupted([&] { return systemCalls().truncate(file.descriptor, length); }) == 0;
  noteCut(file.entry, isCut ? length : -1);
  ++writesMade_;
  return isCut;
}

void Stage::save() {
  headSaved_ = head_;
  undo_.clear();
  savedLength_ = length();
}

bool Stage::restore(const OpenFile& file) {
  if (savedLength_ < 0) return false;
  callState().forgetWhatWasRead();
  const int64_t length = std::exchange(savedLength_, -1);
  head_ = headSaved_;
  bool isDone = !isBroken_;
  for (auto undo = undo_.rbegin(); undo != undo_.rend(); ++undo) {
    if (undo->isNew) {
      links_.erase(undo->position);
    } else if (undo->position < this->length()) {  // else it was cut off
      isDone = write(file, undo->position, undo->bytes.data(), undo->bytes.size(), nullptr) != 0 &&
               isDone;
    }
  }
  undo_.clear();
  return (length >= this->length() || cut(file, length)) && isDone;
}

void Stage::keep() {
  undo_.clear();
  savedLength_ = -1;
}

bool Stage::discard(const OpenFile& file) {
  links_.clear();
  head_ = headBefore_;
  savedLength_ = -1;
  if (inFile_ == base_) {
    tail_.clear();
    return true;
  }
  return cutTo(file, base_);
}

bool useStage(int16_t file, Stage* stage) {
  OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr || openFile->stage != nullptr) return false;
  callState().forgetWhatWasRead();
  openFile->stage = stage;
  return true;
}

void leaveStage(int16_t file) {
  OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr || openFile->stage == nullptr) return;
  callState().forgetWhatWasRead();
  openFile->stage = nullptr;
}

}  // namespace qvdbase::platform

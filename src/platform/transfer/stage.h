// Stages: what a transaction writes to a file, kept in memory until it is committed.
//
// While transfers through a file number use a stage, what they write does not reach the file, and
// what they read is the file with that laid over it. Other numbers and other processes see the file
// as it is: the state before the transaction.
//
//   1. The beginning of the file, the head, is in memory as a whole. It is changed at any place.
//   2. Elsewhere in what the file held when the stage began only links are changed: eight bytes or
//      fewer, each place always with the same length. They are kept with the bytes before.
//   3. What is added at the end is kept in memory up to a budget. Beyond it all of it is appended
//   to
//      the file, where nothing leads to it: it is spilled. Spilled bytes are changed in the file.
//   4. A stage that only reads has none of this: it is the file, however long, with something laid
//      over it.
//   5. A stage that could not do what it should is broken: what it holds is not to be committed.
//      It is broken, too, when the file has become longer or shorter by other means.
//
// It is used by one thread at a time, which has the turn of the file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "platform/handles/open_files.h"

namespace qvdbase::platform {

// What is laid over the file already, where it does not hold yet what it should.
struct Underlay {
  const void* context = nullptr;
  void (*layOver)(const void* context, int64_t position, void* bytes, size_t count) = nullptr;
};

// What is put before blocks that go to the file early, so that they are known for what they are: so
// many bytes, of which nothing is in the file where no block goes there early.
struct Announcement {
  size_t size = 0;
  const void* context = nullptr;
  // Makes the bytes that lie at `position`, with `length` bytes after them.
  void (*make)(const void* context, int64_t position, int64_t length, uint8_t* bytes) = nullptr;
};

class Stage {
 public:
  static constexpr size_t kBudget = size_t{16} << 20;
  static constexpr size_t kLargestLink = 8;

  // Some bytes of the file, as they are and as they shall be.
  struct Link {
    uint8_t size = 0;
    std::array<uint8_t, kLargestLink> before{};
    std::array<uint8_t, kLargestLink> after{};
  };

  // A stage for an open file, whose head has so many bytes. Null when these cannot be read, and
  // when memory is short.
  static std::unique_ptr<Stage> begin(const OpenFile& file, size_t head, size_t budget = kBudget,
                                      Underlay underlay = {}, int64_t from = 0,
                                      const Announcement& announcement = {});

  // A stage that only reads.
  static std::unique_ptr<Stage> forReading(Underlay underlay);
  bool onlyReads() const { return onlyReads_; }

  // The file's length when it began, that with what was spilled, and with everything.
  int64_t base() const { return base_; }
  int64_t inFile() const { return inFile_; }
  int64_t length() const { return inFile_ + static_cast<int64_t>(tail_.size()); }
  // Bytes of the announcement, which precedes what is written early.
  int64_t announced() const { return static_cast<int64_t>(announcement_.size); }

  // What it holds.
  const std::vector<uint8_t>& headBefore() const { return headBefore_; }
  const std::vector<uint8_t>& head() const { return head_; }
  const std::map<int64_t, Link>& links() const { return links_; }
  // What was added and is not in the file. Where nothing is there early, it begins at
  // inFile() + gap(), after the place of the announcement.
  std::vector<uint8_t> takeTail();
  int64_t gap() const { return inFile_ == base_ ? announced() : 0; }
  bool isEmpty() const {
    return links_.empty() && length() == base_ + announced() && head_ == headBefore_;
  }

  bool isBroken() const { return isBroken_; }

  // How many writes and cuts it has made to the file.
  size_t writesMade() const { return writesMade_; }

  // Bytes that are in memory: how many there are from a position on, at most `count`, and where.
  struct InMemory {
    int64_t start = 0;               // of the whole run, of which they are a part
    size_t length = 0;               // of the whole run
    const uint8_t* bytes = nullptr;  // null where the position is one of the file
  };
  InMemory runAt(int64_t position) const;

  // Lays what was changed in the file over bytes that were read from it.
  void layOver(int64_t position, uint8_t* bytes, size_t count) const;

  // Writes. `before` is what the file holds there, where that is known. Returns how many bytes were
  // written: all, or none.
  size_t write(const OpenFile& file, int64_t position, const uint8_t* bytes, size_t count,
               const uint8_t* before);

  // Cuts off what was added after `length`. False where that is not after the base.
  bool cut(const OpenFile& file, int64_t length);

  // Appends what is in memory to the file, after the announcement.
  bool spill(const OpenFile& file);

  // What was written since save() is taken back by restore(), and stays with
  // keep().
  void save();
  bool restore(const OpenFile& file);
  void keep();

  // The end: what was spilled is cut off the file where nothing else has been appended to it.
  // Returns whether nothing of it is left.
  bool discard(const OpenFile& file);

 private:
  struct Undo {
    int64_t position;
    bool isNew;  // there was no such link
    std::vector<uint8_t> bytes;
  };

  Stage() = default;
  bool announce(const OpenFile& file, int64_t end);
  bool spillBefore(const OpenFile& file, size_t more);
  bool cutTo(const OpenFile& file, int64_t length);
  bool readBefore(const OpenFile& file, int64_t position, uint8_t* bytes, size_t count) const;
  bool writeToFile(const OpenFile& file, int64_t position, const uint8_t* bytes, size_t count);
  bool cutFile(const OpenFile& file, int64_t length);
  bool writeLink(const OpenFile& file, int64_t position, const uint8_t* bytes, size_t count,
                 const uint8_t* before);
  bool writeSpilled(const OpenFile& file, int64_t position, const uint8_t* bytes, size_t count);
  bool writeTail(const OpenFile& file, int64_t position, const uint8_t* bytes, size_t count);
  void keepForUndo(int64_t position, const uint8_t* bytes, size_t count);
  bool breakOff() {
    isBroken_ = true;
    return false;
  }

  int64_t base_ = 0;
  int64_t inFile_ = 0;
  size_t budget_ = kBudget;
  Underlay underlay_;
  Announcement announcement_;
  std::vector<uint8_t> headBefore_;
  std::vector<uint8_t> head_;
  std::map<int64_t, Link> links_;
  std::vector<uint8_t> tail_;
  std::vector<uint8_t> headSaved_;
  std::vector<Undo> undo_;
  int64_t savedLength_ = -1;  // -1 while nothing is saved
  size_t writesMade_ = 0;
  bool isBroken_ = false;
  bool onlyReads_ = false;
};

// Transfers through this number use a stage until leaveStage(). False where they use one already:
// then there is nothing to leave. The caller has the turn of the file.
bool useStage(int16_t file, Stage* stage);
void leaveStage(int16_t file);

}  // namespace qvdbase::platform

// Appending many records at once.
//
// The blocks are those that single appends would write, at the same places; what differs is how
// they are written. They are laid out in memory, linked to each other, and written in large pieces.
// Then the table's last record is linked to the first of them and the slot is written, once. Until
// then no reader reaches any of them: a batch that is cut off leaves the table as it was, with dead
// blocks at the end of the file, and one that is discarded leaves nothing.
//
// A record whose payload the caller does not have as a whole is added in pieces. As long as it fits
// the piece in memory it is like any other. A larger one is written with lengths that reach beyond
// any file, so that it counts as cut off, and gets its real lengths when all of it is there.
#pragma once

#include <cstdint>

#include "QVDbase/tables.h"
#include "QVDbase/take_back.h"
#include "format/layout.h"
#include "format/payload_checksum.h"
#include "platform/host/memory.h"

namespace qvdbase::engine {

// A record of a batch, without its payload.
struct BatchRecord {
  unsigned char recordID[format::kIdentifierSize];
  uint32_t createTime;
  uint32_t modifyTime;
  uint32_t dataLength;
  uint32_t reserve;          // the block's capacity is the larger of reserve and dataLength
  bool isProtected = false;  // it gets a checksum of its payload, and the capacity for that
};

class RecordBatch {
 public:
  // A batch for a table that was found. Until it is finished, nothing else may be appended to the
  // file, and nothing changed in the table's chain; where that happens anyway, the batch fails.
  RecordBatch(int16_t db, const FoundTable& table);
  RecordBatch(const RecordBatch&) = delete;
  RecordBatch& operator=(const RecordBatch&) = delete;

  // Looks at the ends of the chain and goes to the end of the file. False when the table cannot be
  // appended to, and when there is no memory; nothing has been written then.
  [[nodiscard]] bool begin();

  // Adds a record. False when a write fails: the batch takes no more records then, but finish()
  // still takes in those that are wholly in the file.
  [[nodiscard]] bool add(const BatchRecord& record, const unsigned char* payload);

  // The same for a record in pieces: its header (dataLength does not count), its payload from the
  // beginning on, as often as wanted, and its end. In between nothing else can be added. False as
  // for add(), and from appendPayload(), with nothing written, when the payload would become too
  // large for its length, or for its checksum.
  [[nodiscard]] bool openRecord(const BatchRecord& record);
  [[nodiscard]] bool appendPayload(const unsigned char* bytes, uint32_t count);
  [[nodiscard]] bool closeRecord();

  // Gives up the record that is open; the batch continues without it. False when what was written
  // of it cannot be taken back: the batch takes no more records then.
  bool dropRecord();

  // Writes what is still in memory. finish() does that too, but takes in a part when it fails.
  [[nodiscard]] bool writeOut();

  // Writes what is still in memory and takes the records into the table, in the order in which they
  // were added. True when all of them are in it; taken() says how many are.
  [[nodiscard]] bool finish();

  // Takes back all that was written, as takeBack() does. To be called instead of finish(), or after
  // it has failed; no effect once the table's chain has been written to. Leaves the file position
  // anywhere.
  void discard();

  uint32_t taken() const { return taken_; }

  // What it has written, or tried to.
  int64_t firstByte() const { return appended_.from; }
  int64_t endByte() const { return appended_.end; }

  // Where the block of the record is, or will be, that was added last.
  int64_t lastBlock() const { return added_.last; }

  // Where the one is, or will be, that was added first; 0 when there is none.
  int64_t firstBlock() const { return added_.first; }

  // Whether it failed because the file or the table was changed by others meanwhile.
  bool wasDisturbed() const { return disturbed_; }

  // The table, after finish() with the records taken in.
  const FoundTable& table() const { return table_; }

 private:
  // Records of the batch: where the blocks are, or will be once the piece is written.
  struct Chain {
    int64_t first = 0;  // 0 while there is no record
    int64_t last = 0;
    uint32_t count = 0;
  };

  // The record that is added in pieces.
  struct OpenRecord {
    bool isOpen = false;
    bool isInFile = false;  // its beginning is; else all of it is in memory
    recordPart1 header;
    uint32_t reserve;
    bool isProtected;
    int64_t blockPos;
    uint32_t length;           // of the payload so far
    format::PayloadHash hash;  // of that, where it is protected
    uint32_t inPiece;          // bytes of it in memory, after the blocks of the piece
  };

  [[nodiscard]] bool canAdd(int64_t blockSize) const;
  [[nodiscard]] recordPart1 headerOf(const BatchRecord& record) const;
  void noteAdded(int64_t blockPos);
  bool noteWritten(int64_t blockPos);
  void completeInPiece(const recordPart1& header, const unsigned char* sum);
  [[nodiscard]] bool isAtEnd(int64_t length);
  template <typename Write>
  [[nodiscard]] bool appendPiece(int64_t length, Write write);
  [[nodiscard]] bool writePiece();
  [[nodiscard]] bool writeOpenPart(const unsigned char* bytes, uint32_t count);
  [[nodiscard]] bool makeSpace();
  [[nodiscard]] bool closeInFile(const unsigned char* sum);
  [[nodiscard]] bool writeAlone(const recordPart1& header, const unsigned char* payload,
                                const unsigned char* sum);
  [[nodiscard]] bool linkToWritten(int64_t pieceFirst);
  [[nodiscard]] bool endsSoundly();
  [[nodiscard]] bool takeIn();

  int16_t db_;
  FoundTable table_;
  platform::Buffer piece_;  // whole blocks that are not written yet
  uint32_t pieceUsed_ = 0;
  uint32_t lastInPiece_ = 0;  // where the latest block begins in the piece
  int64_t piecePos_ = 0;      // where the piece goes: the end of the file
  Chain added_;
  Chain written_;
  OpenRecord open_ = {};
  Appended appended_;  // what this batch has written, or tried to
  uint32_t taken_ = 0;
  bool failed_ = false;
  bool disturbed_ = false;
  bool isLinked_ = false;  // the table's chain has been written to, or may have been
};

}  // namespace qvdbase::engine

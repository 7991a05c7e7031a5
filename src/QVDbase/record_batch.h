// Appending many records at once.
//
// The blocks are those that single appends would write, at the same places; what differs is how
// they get there. They are laid out in memory, linked to each other, and written in large pieces.
// Then the table's last record is linked to the first of them and the slot is written, once. Until
// then no reader meets any of them: a batch that is cut off leaves the table as it was, with dead
// blocks at the end of the file.
#pragma once

#include <cstdint>

#include "QVDbase/tables.h"
#include "format/layout.h"
#include "platform/memory.h"

namespace qvdbase {

// What a batch is told of a record beside its payload.
struct BatchRecord {
  unsigned char recordID[kIdentifierSize];
  uint32_t createTime;
  uint32_t modifyTime;
  uint32_t dataLength;
  uint32_t reserve;  // the block gets room for the larger of reserve and dataLength
};

class RecordBatch {
 public:
  // A batch for a table that was found. Nothing else may be appended to the file, and nothing
  // changed in the table's chain, until it is finished; where that happens all the same, the batch
  // fails.
  RecordBatch(int16_t db, const FoundTable& table);
  RecordBatch(const RecordBatch&) = delete;
  RecordBatch& operator=(const RecordBatch&) = delete;

  // Looks at the ends of the chain and goes to the end of the file. False when the table cannot be
  // appended to, and when there is no memory; nothing has been written then.
  [[nodiscard]] bool begin();

  // Adds a record. False when a write fails: the batch takes no more records then, but finish()
  // still takes in those that are wholly in the file.
  [[nodiscard]] bool add(const BatchRecord& record, const unsigned char* payload);

  // Writes what is still in memory and takes the records into the table, in the order in which they
  // were added. True when all of them are in it; taken() tells how many are.
  [[nodiscard]] bool finish();

  uint32_t taken() const { return taken_; }

  // The table as it is after finish().
  const FoundTable& table() const { return table_; }

 private:
  // Where the blocks of the piece in memory will lie, and those before it.
  struct Chain {
    int64_t first = 0;  // 0 while there is no record
    int64_t last = 0;
    uint32_t count = 0;
  };

  [[nodiscard]] bool writePiece();
  [[nodiscard]] bool writeAlone(const recordPart1& header, const unsigned char* payload,
                                uint32_t capacity);
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
  uint32_t taken_ = 0;
  bool failed_ = false;
};

}  // namespace qvdbase

// What is live in a database file: header, tables, and where their records and data lie. Read by
// the format from the bytes of the file, and believed only if everything fits together.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "format/layout.h"
#include "recovery/copy/database_writer.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/window.h"

namespace qvdbase::upkeep {

struct LiveTable {
  tablePart1 slot{};
  std::string name;
  std::vector<int64_t> records;  // the positions of their blocks, in the order of the chain

  // How long those blocks are together, and how long the ones before two of them: for placing them
  // elsewhere without reading them again.
  int64_t blockBytes = 0;
  int64_t bytesBeforeLast = 0;
  int64_t bytesBeforeLastWritten = -1;  // -1 when no live block is the one written last
};

struct LiveDatabase {
  copy::Header header{};
  int16_t slotCount = 0;
  std::vector<LiveTable> tables;

  int64_t blocksStart() const { return format::directoryEnd(slotCount); }
  uint64_t recordCount() const;
};

// What is damaged.
enum class LiveDamage { none, directory, chain, data };

// Reads all of it. A chain is followed forwards; each link must lead to a record of the table whose
// back link names the record before, and after as many records as the slot counts the chain must
// end, at the slot's last position. So no record is reached twice. Every block must lie in the
// file.
class LiveReader {
 public:
  explicit LiveReader(const survey::ByteSource& source) : source_(source), window_(source) {}

  // Where the data of the table in that slot lies, if the slot does not say it.
  void setDataPosition(int slot, int64_t position) { dataPositions_.emplace_back(slot, position); }

  // False when something does not fit; damage() and why() then say what. `step` is called for each
  // record and may throw.
  bool read(LiveDatabase* database, const std::function<void()>& step);

  LiveDamage damage() const { return damage_; }
  const std::string& why() const { return why_; }
  uint64_t recordNumber() const { return recordNumber_; }  // counted from 1; 0 for none

 private:
  bool fail(LiveDamage damage, const std::string& why);
  bool readDirectory(LiveDatabase* database);
  bool readChain(LiveTable* table, const std::function<void()>& step);
  bool readData(const LiveTable& table);
  bool holds(int64_t position, uint64_t size) const;
  // The head of a block, or null.
  const uint8_t* headAt(int64_t position, int64_t size);

  const survey::ByteSource& source_;
  survey::Window window_;
  LiveDamage damage_ = LiveDamage::none;
  std::string why_;
  uint64_t recordNumber_ = 0;
  int64_t blocksStart_ = 0;
  std::vector<std::pair<int, int64_t>> dataPositions_;
};

// The header of the block at a position that LiveReader has accepted.
recordPart1 liveRecord(survey::Window& window, int64_t position);

}  // namespace qvdbase::upkeep

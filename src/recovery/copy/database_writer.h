// A writer of whole database files. Unlike the engine, which appends and then links, it knows every
// position beforehand: it writes each byte once, in order, with the links that the blocks are to
// have.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "format/block_heads.h"
#include "format/layout.h"
#include "products/buffered_output.h"

namespace qvdbase::copy {

using Header = std::array<unsigned char, format::kDirectoryPos>;

// Where the blocks of a table go; 0 for those that it does not have.
struct TablePlace {
  int64_t data = 0;
  int64_t firstRecord = 0;
  int64_t lastRecord = 0;
  int64_t lastWrittenRecord = 0;
};

class DatabaseWriter : public products::BufferedOutput {
 public:
  using BufferedOutput::BufferedOutput;

  // The header and a directory of `slotCount` slots, of which the first ones are in use.
  void directory(const Header& header, const std::vector<tablePart1>& slots, int slotCount);

  // The slot with the positions of its table's blocks in the new file.
  static tablePart1 slotAt(tablePart1 slot, const TablePlace& place);

  // Begins a block: its header, in which mark, header size and links are set here. The records of a
  // table come in the order of its chain. The payload follows, and endBlock().
  void beginRecord(recordPart1 head, bool isFirst, bool isLast);
  void beginTableData(format::TableDataHead head);

  // The spare bytes and the end mark. What the spare bytes of a source hold is dead: they are new.
  void endBlock(uint32_t spare);

 private:
  int64_t previousRecord_ = 0;
};

}  // namespace qvdbase::copy

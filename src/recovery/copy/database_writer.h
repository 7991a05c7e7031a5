// A writer of whole database files. The engine appends a block and then links it. This writer knows
// every position beforehand, and writes each byte once, in order, with all links in place.
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

  // Writes the header and a directory of `slotCount` slots: first those in use, then free ones.
  void directory(const Header& header, const std::vector<tablePart1>& slots, int slotCount);

  // The slot with the positions of its table's blocks in the new file.
  static tablePart1 slotAt(tablePart1 slot, const TablePlace& place);

  // Writes the header of a block, and sets mark, header size and links in it. Then the caller
  // writes the payload and calls endBlock(). The records of a table must come in the order of its
  // chain.
  void beginRecord(recordPart1 head, bool isFirst, bool isLast);
  void beginTableData(format::TableDataHead head);

  // Writes `spare` zeros and the end mark. What the source has in its spare bytes is dead, and not
  // copied, except for a checksum: with one, `sum`, that is the end of the spare bytes.
  void endBlock(uint32_t spare, const unsigned char* sum = nullptr);

 private:
  int64_t previousRecord_ = 0;
};

}  // namespace qvdbase::copy

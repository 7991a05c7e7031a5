// All positions are known beforehand, so each byte is written once and in order.
#include "upkeep/live_copy.h"

#include <algorithm>
#include <cassert>
#include <utility>

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::upkeep {

namespace {

// False when the source cannot be read.
bool copyAll(const ByteSource& source, const LiveDatabase& database, const LiveLayout& layout,
             const Protection& protection, products::BufferedOutput::Sink sink,
             const std::function<void()>& step, uint64_t* checksumsMade) {
  copy::DatabaseWriter output(std::move(sink));
  std::vector<tablePart1> slots;
  for (size_t i = 0; i < database.tables.size(); ++i) {
    slots.push_back(output.slotAt(database.tables[i].slot, layout.tables[i]));
    // The dead records that the source's number counts, too, are not in the copy. With them in
    // it, a later append that is cut off could not be distinguished from records that were lost.
    slots.back().recordWriteCount = slots.back().recordCount;
  }
  output.directory({}, slots, database.slotCount);
  output.flush();
  GatheredBlocks blocks(source, protection, &output);
  for (const LiveTable& table : database.tables) {
    if (table.data && !blocks.add(*table.data)) return false;
    for (const LiveBlock& record : table.records) {
      step();
      if (!blocks.add(record)) return false;
    }
  }
  if (!blocks.finish()) return false;
  *checksumsMade = blocks.checksumsMade();
  output.flush();
  assert(output.position() == layout.size && "a copy of another size");
  return true;
}

}  // namespace

LiveLayout layOut(const LiveDatabase& database, const Protection& protection) {
  LiveLayout layout;
  layout.size = database.blocksStart();
  const auto take = [&](const LiveBlock& block) {
    return std::exchange(layout.size, layout.size + sizeInCopy(block, protection));
  };
  for (const LiveTable& table : database.tables) {
    copy::TablePlace place;
    if (table.data) place.data = take(*table.data);
    if (!table.records.empty()) place.firstRecord = layout.size;
    for (const LiveBlock& block : table.records) {
      place.lastRecord = take(block);
      if (block.position == table.slot.lastWrittenRecordPos) {
        place.lastWrittenRecord = place.lastRecord;
      }
    }
    // What was written last may be a block that is dead.
    if (place.lastWrittenRecord == 0) place.lastWrittenRecord = place.lastRecord;
    layout.tables.push_back(place);
  }
  return layout;
}

std::vector<Move> movesOf(const LiveDatabase& database, const Protection& protection) {
  std::vector<Move> moves;
  moves.reserve(static_cast<size_t>(database.recordCount()));
  int64_t next = database.blocksStart();
  const auto take = [&](const LiveBlock& block) {
    return std::exchange(next, next + sizeInCopy(block, protection));
  };
  for (const LiveTable& table : database.tables) {
    if (table.data) static_cast<void>(take(*table.data));
    for (const LiveBlock& block : table.records) {
      moves.push_back({block.position, take(block)});
    }
  }
  std::ranges::sort(moves, {}, &Move::from);
  return moves;
}

bool copyLive(const ByteSource& source, const LiveDatabase& database, const LiveLayout& layout,
              const Protection& protection, products::TargetFile& target,
              const std::function<void()>& step, std::vector<WrittenPiece>* written,
              uint64_t* checksumsMade) {
  std::vector<unsigned char> front;  // header and directory
  const auto write = [&](int64_t position, const unsigned char* bytes, size_t count) {
    if (!target.file().writeAt(position, bytes, count)) target.failWriting();
    if (position == 0) front.assign(bytes, bytes + count);
    written->push_back({position, count, support::digestOf(bytes, count)});
  };
  if (!copyAll(source, database, layout, protection, write, step, checksumsMade)) return false;
  const copy::Header& header = database.header;
  if (!target.file().writeAt(0, header.data(), header.size())) target.failWriting();
  std::ranges::copy(header, front.begin());
  written->front().digest = support::digestOf(front.data(), front.size());
  return true;
}

bool holdsWhatWasWritten(const ByteSource& copy, const std::vector<WrittenPiece>& written,
                         const std::function<void()>& step) {
  std::vector<unsigned char> bytes;
  const WrittenPiece& last = written.back();
  if (copy.size() != last.position + static_cast<int64_t>(last.size)) return false;
  for (const WrittenPiece& each : written) {
    step();
    bytes.resize(each.size);
    if (copy.readAt(each.position, bytes.data(), each.size) != each.size) return false;
    if (support::digestOf(bytes.data(), each.size) != each.digest) return false;
  }
  return true;
}

}  // namespace qvdbase::upkeep

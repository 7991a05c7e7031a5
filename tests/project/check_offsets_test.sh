#!/usr/bin/env bash
# Plants lines that define an offset of the file, one at a time, in a small tree of its own, and
# expects the offset check to name each of them; a tree without any passes.
#
# Usage: check_offsets_test.sh CHECK-OFFSETS
set -euo pipefail

check=$1
tree=$(mktemp -d)
trap 'rm -rf -- "$tree"' EXIT
failures=0

# plant FILE LINE...: writes the lines as the whole of FILE.
plant() {
  local file=$1
  shift
  mkdir -p -- "$tree/$(dirname -- "$file")"
  printf '%s\n' "$@" >"$tree/$file"
}

# freshTree: what is allowed, and what only looks like an offset.
freshTree() {
  rm -rf -- "$tree"
  plant src/format/layout.h 'inline constexpr int64_t kDirectoryPos = 22;' \
    'return kDirectoryPos + index * kSlotImageSize;'
  plant src/QVDbase/header.cpp 'int read(int16_t db, int16_t* slotCount, uint16_t* slotSize);' \
    'myFileSeek(db, slotPos + slot::kTableID, kFromStart);' \
    'static_assert(record::kNextRecordPos == record::kPrevRecordPos + 8);' \
    '// a header has 22 bytes' '/* kDirectoryPos + 32 * 144' '   = 4630 */' \
    'fail("the header alone has 22.");'
  plant src/recovery/survey/survey.cpp 'const int64_t end = directoryEnd(slotCount, stride);' \
    'constexpr int64_t kLargestPosition = std::numeric_limits<int64_t>::max();' \
    'char bytes_[kMaxNameBytes + 1];' 'const auto next = slots_[index + 1];'
  plant tools/qvdb/commands/stat.cpp 'uint64_t live = kNewFileSize;' 'const int width = 1022;'
}

# refuses FILE LINE: the check must fail on a fresh tree with this line, and name the file.
refuses() {
  freshTree
  plant "$1" 'int before;' "$2"
  if output=$("$check" "$tree"); then
    echo "not caught: $1: $2"
    failures=$((failures + 1))
  elif ! grep -qF -- "$1:2: " <<<"$output"; then
    echo "caught without naming $1: $output"
    failures=$((failures + 1))
  fi
}

freshTree
"$check" "$tree" || { echo "a sound tree is refused"; failures=1; }

# Numbers of the format.
refuses src/recovery/survey/open_file.h 'static constexpr size_t kWatchedSize = 4630;'
refuses src/recovery/survey/open_file.h "static constexpr size_t kWatchedSize = 4'630u;"
refuses tools/qvdb/commands/stat.cpp 'constexpr uint64_t kDirectoryEnd = 22 + 32 * 144;'
refuses tools/qvdb/commands/stat.cpp 'constexpr uint64_t kRecordOverhead = 55 + 1;'
refuses src/QVDbase/lifecycle.cpp 'writeUint16(db, 144);'
refuses src/QVDbase/lifecycle.cpp '/* the header */ myFileSeek(db, 22, kFromStart);'

# Literal offsets.
refuses src/QVDbase/record_find.cpp 'myFileSeek(db, recordPos + 39, kFromStart);'
refuses src/recovery/survey/chains.cpp 'const auto size = loadBigEndian<uint16_t>(bytes + 1);'
refuses src/recovery/survey/chains.cpp 'source.readAt(block.position + 51, bytes, 4);'
refuses src/recovery/survey/directory.cpp 'return s.image[1] == kSlotFiller;'
refuses src/upkeep/live_copy.cpp 'std::memcpy(header.data() + 6, id, kIdentifierSize);'
refuses src/objects/database.cpp 'return header[16] != 0;  // the table count'

# Arithmetic on the directory.
refuses src/objects/database.cpp 'return kDirectoryPos + uint64_t{kNewSlotCount} * kSlotImageSize;'
refuses src/upkeep/live_database.cpp 'window_.at(origin + format::kDirectoryPos, size);'
refuses src/upkeep/live_database.cpp 'const int64_t place = first + i * kSlotImageSize;'
refuses src/upkeep/live_database.cpp 'const int64_t place = first + i * database->slotSize;'
refuses src/recovery/survey/directory.cpp 'int64_t end() const { return first + stride * slotCount; }'

# Constants.
refuses src/maintenance/renumber.cpp 'constexpr int64_t kIdentifierPos = 6;'
refuses src/maintenance/renumber.cpp '  inline constexpr int kNameOffset{16};'
refuses tools/qvdb/commands/touch.cpp 'constexpr int64_t kTimePosition = record::kNextRecordPos - sizeof(Time);'

exit "$failures"

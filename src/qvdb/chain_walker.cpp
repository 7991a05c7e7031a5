// One forward walk along a table's chain of records.
#include "qvdb/chain_walker.h"

#include "QVDbase/record_find.h"
#include "format/block_heads.h"
#include "support/file_transfers.h"

namespace qvdb::detail {

namespace {

bool decodeHead(const unsigned char* bytes, const unsigned char* tableID, recordPart1* header) {
  qvdbase::decodeRecordHead(bytes, header);
  return qvdbase::isRecordOf(bytes, tableID);
}

}  // namespace

bool readHead(std::int16_t db, std::int64_t position, const unsigned char* tableID,
              recordPart1* header) {
  const unsigned char* view = qvdbase::viewFile(db, position, qvdbase::record::kData);
  if (view == nullptr) return qvdbase::readRecordHeaderAt(db, position, tableID, header);
  return decodeHead(view, tableID, header);
}

ChainWalker::Step ChainWalker::damaged(const char* how) {
  damage_ = how;
  return Step::damaged;
}

ChainWalker::Step ChainWalker::next(std::int16_t db, recordPart1* header, std::int64_t* recordPos,
                                    const unsigned char* head) {
  if (number_ == slot_.recordCount) return Step::end;
  if (nextPos_ == 0 && hasChanged_) return Step::end;
  ++number_;
  if (nextPos_ == 0) return damaged("the chain ends before it");
  if (loop_.visited(nextPos_)) return damaged("the chain comes round to an earlier record");
  const bool isRecord = head != nullptr ? decodeHead(head, slot_.tableID, header)
                                        : readHead(db, nextPos_, slot_.tableID, header);
  if (!isRecord) {
    return damaged("the chain leads to a place where no record of this table stands");
  }
  *recordPos = nextPos_;
  nextPos_ = header->nextRecordPos;
  return Step::record;
}

bool ChainWalker::resumeBehind(std::int16_t db, std::int64_t recordPos, std::uint32_t number) {
  recordPart1 header;
  if (!qvdbase::readRecordHeaderAt(db, recordPos, slot_.tableID, &header)) return false;
  nextPos_ = header.nextRecordPos;
  number_ = number;
  hasChanged_ = true;
  loop_ = qvdbase::LoopDetector();
  return true;
}

}  // namespace qvdb::detail

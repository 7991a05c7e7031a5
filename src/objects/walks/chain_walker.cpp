// One walk along a table's chain of records.
#include "objects/walks/chain_walker.h"

#include "QVDbase/record_find.h"
#include "support/file_transfers.h"

using namespace qvdbase;

namespace qvdb::detail {

namespace {

bool decode(const unsigned char* head, const unsigned char* tableID, recordPart1* header) {
  format::decodeRecordHead(head, header);
  return format::isRecordOf(head, tableID);
}

// Not inline: most headers lie in the window that was used last.
__attribute__((noinline)) bool readHeadElsewhere(int16_t db, int64_t position,
                                                 const unsigned char* tableID,
                                                 recordPart1* header) {
  const unsigned char* view = support::viewFile(db, position, format::record::kData);
  if (view == nullptr) return engine::readRecordHeaderAt(db, position, tableID, header);
  return decode(view, tableID, header);
}

}  // namespace

bool readHead(int16_t db, int64_t position, const unsigned char* tableID, recordPart1* header) {
  const platform::OpenFile* file = platform::findOpenFile(db);
  const unsigned char* view =
      file == nullptr ? nullptr : platform::viewServed(*file, position, format::record::kData);
  return view != nullptr ? decode(view, tableID, header)
                         : readHeadElsewhere(db, position, tableID, header);
}

ChainWalker::Step ChainWalker::next(int16_t db, recordPart1* header, int64_t* recordPos) {
  const Step step = arrive();
  if (step != Step::record) return step;
  if (!readHead(db, nextPos_, slot_.tableID, header)) return damaged(kNoRecord);
  *recordPos = nextPos_;
  goOnTo(linkOf(*header));
  return Step::record;
}

bool ChainWalker::resumeAfter(int16_t db, int64_t recordPos, uint32_t number) {
  recordPart1 header;
  if (!engine::readRecordHeaderAt(db, recordPos, slot_.tableID, &header)) return false;
  resumeAt(linkOf(header), number);
  return true;
}

}  // namespace qvdb::detail

// What the three packs have in common: the two that keep the record identifiers, and the one that
// renews them.
//
// A pack runs through these steps, each of which ends it when it fails:
//   1. the source's directory numbers; the destination is created
//   2. the header is copied, then the whole directory, with every slot's record fields zeroed
//   3. per table in use: the current table-data block, then the records along their chain, each
//      appended to the destination as an ordinary record
//   4. both files are closed
// What a failure leaves is cleaned up at one place, fail().
//
// The class holds the steps. Where the packs do one thing in different ways there is a virtual
// function, and the packs' overrides of it are the complete list of their differences.
#pragma once

#include <qvdbase/qvdbase.h>

#include <cstdint>
#include <optional>

#include "QVDbase/header.h"
#include "QVDbase/position.h"
#include "format/layout.h"

namespace qvdbase::maintenance {

// A caller's progress function, called as function(userData, percent, argument); may be null.
struct PackProgress {
  QVProgressFunction function;
  int userData;
  void* argument;
};

// Where the caller is given the file numbers and the status. The status is set to kKept when the
// pack is called. Its value at the end decides whether an unfinished destination is emptied.
struct PackOutputs {
  static constexpr int kKept = 100;  // the destination does not exist, or is to be kept
  static constexpr int kEmptied = 0;

  uint16_t* srcRef;
  uint16_t* dstRef;
  int* status;
};

// PackOneDB2NewW, for callers whose progress function needs its argument.
int packToNewFile(const QVWCHAR* srcPath, const QVWCHAR* dstPath, const PackProgress& progress);

class PackSteps {
 public:
  PackSteps(const QVWCHAR* dstPath, PackProgress progress, PackOutputs out, int16_t src = 0)
      : src_(src), out_(out), dstPath_(dstPath), progress_(progress) {}
  PackSteps(const PackSteps&) = delete;
  PackSteps& operator=(const PackSteps&) = delete;

  // Opens the source by its path, packs it and returns the result.
  int run(const QVWCHAR* srcPath);

  // The same with the open source that the pack was made with. Whatever ends the steps early, the
  // cancellation of the thread included, no file stays open that they opened.
  int run();

 protected:
  virtual ~PackSteps() = default;

  int64_t headerLength() const { return headerLength_; }

  // Calls the progress function, if there is one. False when it asks to stop. Everything written
  // before is with the operating system: each step sees to it.
  [[nodiscard]] bool report(uint32_t percent);

  // ---- What the packs do differently, and how it is done unless one of them says otherwise.

  [[nodiscard]] virtual bool createDestination();
  // Last chance to change the header's copy.
  virtual void adjustHeader(unsigned char*) {}
  // Writes a slot of the destination's directory; its record fields are zeroed already.
  virtual bool writeDirectorySlot(const tablePart1& slot);
  [[nodiscard]] virtual bool copyTables();
  // Reads a slot of either file, at its position.
  virtual bool readTableSlot(int16_t file, tablePart1* slot);
  // Writes the slot, at its position, once the table's data is copied. False ends the pack.
  virtual bool rewriteSlotWithData(const tablePart1& slot);
  // Called when the walk along a table's chain begins, and after each step to a next record.
  virtual bool beginRecords(const tablePart1&) { return true; }
  virtual void steppedOn() {}
  // Appends one record, by default under its own identifier and times; *working is the slot of the
  // destination at slotPos.
  virtual bool appendRecord(tablePart1* working, int64_t slotPos, const recordPart1& source,
                            const unsigned char* payload);
  // Progress after each record, with the percent worked out, and after each table.
  virtual bool reportRecord(uint32_t percent) { return report(percent); }
  virtual bool reportTable() { return true; }
  // Ends the call's scope: false when a write could not be completed.
  [[nodiscard]] virtual bool completeDestination();

  int16_t src_;
  int16_t dst_ = 0;
  engine::DirectoryNumbers directory_{};
  PackOutputs out_;

 private:
  bool fill();
  bool finish();
  // The one way out of a pack that failed: both files are closed, the destination is emptied.
  void fail();
  // The numbers stay in src_ and dst_: a failure at the very last step closes them once more.
  void closeSource();
  void closeDestination();
  bool readSourceDirectory();
  bool copyHeader();
  bool copyDirectory();
  bool copyTable();
  bool copyTableData(const tablePart1& slot, int64_t slotPos);
  bool copyBlock(int64_t blockPos, int64_t length, int64_t* newBlockPos);
  bool copyRecords(const tablePart1& slot, int64_t slotPos);
  bool completeRecords();
  bool copyRecord(tablePart1* working, int64_t slotPos, recordPart1* header);
  static void close(int16_t file, std::optional<platform::Turn>& turn);
  bool seekBoth(int64_t srcPos, int64_t dstPos);
  uint32_t percentOfRecords() const;

  const QVWCHAR* dstPath_;
  PackProgress progress_;
  // The turns of the files that the pack has opened, for as long as they are open.
  std::optional<platform::Turn> srcTurn_;
  std::optional<platform::Turn> dstTurn_;
  platform::TransferScope scope_;
  bool ownsSource_ = false;
  int64_t headerLength_ = 0;
  uint32_t totalRecords_ = 0;
  uint32_t copiedRecords_ = 0;
  bool bufferHeld_ = false;  // while one of the copies is in memory, for fail()
};

}  // namespace qvdbase::maintenance

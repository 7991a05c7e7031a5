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
// The class holds the steps that are the same; each pack calls them in its order. Where the packs
// do one thing in different ways there is a virtual function, and the packs' overrides of it are
// the complete list of their differences.
#pragma once

#include <qvdbase/qvdbase.h>

#include <cstdint>
#include <exception>

#include "QVDbase/header.h"
#include "QVDbase/position.h"
#include "format/layout.h"
#include "platform/host/thread_cancelled.h"

namespace qvdbase::maintenance {

// A caller's progress function, called as function(userData, percent, argument); may be null.
struct PackProgress {
  QVProgressFunction function;
  int userData;
  void* argument;
};

class PackSteps {
 public:
  PackSteps(const PackSteps&) = delete;
  PackSteps& operator=(const PackSteps&) = delete;

 protected:
  PackSteps(const QVWCHAR* dstPath, PackProgress progress)
      : dstPath_(dstPath), progress_(progress) {}
  virtual ~PackSteps() = default;

  // ---- The steps, in the order in which they are taken.

  // Opens the source by its path; the pack that gets an open source sets src_ instead.
  [[nodiscard]] bool openSource(const QVWCHAR* srcPath);
  [[nodiscard]] bool readSourceDirectory();
  [[nodiscard]] bool createDestination();
  [[nodiscard]] bool copyHeader();
  [[nodiscard]] bool copyDirectory();
  [[nodiscard]] bool copyTables();
  // Ends the call's scope: false when a write could not be completed.
  [[nodiscard]] bool completeDestination();
  // The numbers stay in src_ and dst_: a failure at the very last step closes them once more.
  void closeSource();
  void closeDestination();

  int64_t headerLength() const { return headerLength_; }

  // Calls the progress function, if there is one. False when it asks to stop. Everything written
  // before is with the operating system: each step sees to it.
  [[nodiscard]] bool report(uint32_t percent);

  // Takes the steps of a pack that has opened its source, and returns its result. Whatever ends
  // them early, the cancellation of the thread included, no file stays open that they opened.
  template <typename Steps>
  int attempt(Steps steps) {
    try {
      if (steps()) return 1;
    } catch (platform::ThreadCancelled&) {
      fail();
      throw;
    } catch (const std::exception&) {
      // No memory, which is a failure like the others.
    }
    fail();
    return 0;
  }

  // ---- What the packs do differently, and how it is done unless one of them says otherwise.

  // Last chance to change the header's copy.
  virtual void adjustHeader(unsigned char*) {}
  // Writes a slot of the destination's directory; its record fields are zeroed already.
  virtual bool writeDirectorySlot(const tablePart1& slot);
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
  // On failure: how the source is released, whether the destination is emptied, and what is
  // reported when the header's copy, a table-data block or a payload was in memory at that moment.
  virtual void releaseSource() { closeSource(); }
  virtual bool emptiesDestination() { return true; }
  virtual void failedWithBuffer() {}

  int16_t src_ = 0;
  int16_t dst_ = 0;
  engine::DirectoryNumbers directory_{};

 private:
  // The one way out of a pack that failed: both files are closed, the destination is emptied.
  void fail();
  bool copyTable();
  bool copyTableData(const tablePart1& slot, int64_t slotPos);
  bool copyBlock(int64_t blockPos, int64_t length, int64_t* newBlockPos);
  bool copyRecords(const tablePart1& slot, int64_t slotPos);
  bool completeRecords();
  bool copyRecord(tablePart1* working, int64_t slotPos, recordPart1* header);
  bool seekBoth(int64_t srcPos, int64_t dstPos);
  uint32_t percentOfRecords() const;

  const QVWCHAR* dstPath_;
  PackProgress progress_;
  engine::CallScope scope_;
  int64_t headerLength_ = 0;
  uint32_t totalRecords_ = 0;
  uint32_t copiedRecords_ = 0;
  bool bufferHeld_ = false;  // while one of the copies is in memory, for fail()
};

}  // namespace qvdbase::maintenance

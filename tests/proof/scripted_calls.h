// The script: one call, or several, of every C function that the library exports, each with what it
// needs beforehand and how to see whether it succeeded.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "kit/bytes.h"
#include "kit/recorded_calls.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {

// The files that a call works on, made again for each attempt: source.qvd, which most calls find
// open as `db`; bare.qvd, a database without tables; old.qvd, a file that may be overwritten.
class Workbench {
 public:
  static constexpr uint64_t kNotes = 0x1101;       // records 0xA1 to 0xA4, table data
  static constexpr uint64_t kCategories = 0x2202;  // record 0xC1
  static constexpr uint64_t kRecords = 0x3303;     // records 0xE1 to 0xE3
  static constexpr int64_t kPosition = 77;         // where `db` is before the call

  // Removes everything, and writes the files.
  void reset();
  const QVWCHAR* wide(const std::string& name) { return folder.wide(name); }
  // The files that are there, by their names (without folders).
  std::vector<std::pair<std::string, Bytes>> files() const;

  TempFolder folder{TempFolder::inMemory()};
  int16_t db = 0;
};

struct ScriptedCall {
  std::string symbol;
  std::string variant;
  bool wantsHandle = true;  // `db` is opened before
  // Makes the call, checks what it left in its outputs, and returns whether it succeeded.
  std::function<bool(Workbench&)> call;

  // What is stated of the call besides:
  int64_t positionAfter = Workbench::kPosition;  // when it succeeded
  bool failureMayMove = false;                   // a failure need not restore the position
  bool failureLeavesOpen = false;                // a failure may leave one file open
  bool keepsHandle = true;                       // `db` is open afterwards
  bool successLeavesOpen = false;                // it returns a file
  // Failures that the call passes over: it continues without what it wanted, and reports success.
  std::set<Call> passesOver = {};
  // A failed read is taken for damage, and mended: what is written then is not the beginning of
  // what would have been written.
  bool takesErrorForDamage = false;
};

// All of them.
const std::vector<ScriptedCall>& scriptedCalls();

}  // namespace qvdbase::test

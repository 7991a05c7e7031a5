// Collecting findings: what the parts of the checker report to.
#pragma once

#include <qvdbase/qvdb/check.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "recovery/survey/survey.h"
#include "recovery/survey/words.h"

namespace qvdbase::check {

// What a finding is about, beside its text.
struct About {
  const survey::Slot* slot = nullptr;
  uint64_t tableID = 0;  // taken from the slot when there is one
  uint64_t record = 0;
  int64_t offset = -1;
};

// About a field of a slot, or of one of the blocks of its table.
inline About inSlot(const survey::Slot& slot, int field = 0) {
  return {.slot = &slot, .offset = slot.position + field};
}
inline About inBlock(const survey::Slot* slot, const survey::Block& block, int64_t field = 0) {
  return {.slot = slot, .record = block.recordID, .offset = block.position + field};
}

// What is checked, and what was found.
class Check {
 public:
  Check(const survey::ByteSource& of, const survey::Survey& made, uint64_t mostAlike)
      : source(of), survey(made), mostAlike_(mostAlike) {}

  const survey::ByteSource& source;
  const survey::Survey& survey;

  void add(qvdb::Severity severity, const char* code, const About& about, std::string message);

  // The same, with a message of several parts, which are texts and numbers.
  template <typename... Parts>
  void error(const char* code, const About& about, Parts... message) {
    add(qvdb::Severity::error, code, about, survey::joined(std::move(message)...));
  }
  template <typename... Parts>
  void warning(const char* code, const About& about, Parts... message) {
    add(qvdb::Severity::warning, code, about, survey::joined(std::move(message)...));
  }
  template <typename... Parts>
  void information(const char* code, const About& about, Parts... message) {
    add(qvdb::Severity::information, code, about, survey::joined(std::move(message)...));
  }

  uint64_t count(qvdb::Severity severity) const { return counts_[static_cast<size_t>(severity)]; }

  // In the order in which they came; of those that are alike, the last one reported counts the
  // rest.
  const std::vector<qvdb::Finding>& all() const { return findings_; }

 private:
  struct Alike {
    uint64_t count = 0;
    size_t last = 0;
  };

  uint64_t mostAlike_;
  uint64_t counts_[3] = {};
  std::vector<qvdb::Finding> findings_;
  std::map<std::tuple<std::string, int, qvdb::Severity>, Alike> alike_;
};

}  // namespace qvdbase::check

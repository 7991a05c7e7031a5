// Applying a patch. The patched database is made beside the old one, whose name it gets in one step
// when every line has been applied; until then the old one is only read.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace qvdb::tool {

class Patcher {
 public:
  // Keeps other writers out of the database from here on. Throws Error, Failure.
  Patcher(const std::string& path, bool sync);
  ~Patcher();
  Patcher(const Patcher&) = delete;
  Patcher& operator=(const Patcher&) = delete;

  // Takes the next line. Throws BadLine for one that makes no sense, or does not fit the database.
  void take(std::string_view line);

  // After the last line: the database is what the patch says from here on, or, when this throws,
  // what it was.
  void finish();

  // How many records were added, changed, removed and moved.
  uint64_t operations() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qvdb::tool

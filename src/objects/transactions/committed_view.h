// Reading what is committed while it is not in its place in the file yet. Operations that read lay
// it over the file, in memory.
#pragma once

#include <cstdint>
#include <memory>

#include "intents/missing_patches.h"
#include "platform/transfer/stage.h"

namespace qvdb::detail {

class Operation;

// Of a database that is not open exclusively: what a crash has left, and what another opener has
// committed, which nothing is changed of.
class CommittedView {
 public:
  // At the beginning of a look, in which no other opener of this layer changes the file in place.
  // Throws cannot_read.
  void begin(const Operation& operation);
  // At its end; no effect where there was no beginning.
  void end() noexcept;

 private:
  qvdbase::intents::MissingPatches missing_;
  std::unique_ptr<qvdbase::platform::Stage> stage_;
  int16_t file_ = 0;  // whose transfers use the stage
};

}  // namespace qvdb::detail

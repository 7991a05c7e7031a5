// A file as it is once the transactions are completed that a crash has left committed but not in
// place: for those who only look at it.
#pragma once

#include <optional>
#include <vector>

#include "intents/recovery.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/patched_source.h"

namespace qvdbase::survey {

class CompletedSource : public ByteSource {
 public:
  // The source must outlive the object. Where nothing is open, 24 bytes of it are read now.
  explicit CompletedSource(const ByteSource& source);
  CompletedSource(const CompletedSource&) = delete;
  CompletedSource& operator=(const CompletedSource&) = delete;

  int64_t size() const override { return source_.size(); }
  size_t readAt(int64_t position, void* buffer, size_t count) const override;
  std::optional<platform::FileHole> nextHole(int64_t position) const override {
    return source_.nextHole(position);
  }

  // What is laid over the source, and why.
  const intents::RecoveryPlan& plan() const { return plan_; }

 private:
  const ByteSource& source_;
  intents::RecoveryPlan plan_;
  std::vector<Patch> patches_;
  std::optional<PatchedSource> patched_;  // where there are patches
};

}  // namespace qvdbase::survey

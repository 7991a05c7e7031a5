// Laying the plan of a recovery over a source.
#include "recovery/survey/completed_source.h"

namespace qvdbase::survey {
namespace {

class PlanReader : public intents::Reader {
 public:
  explicit PlanReader(const ByteSource& source) : source_(source) {}
  int64_t size() const override { return source_.size(); }
  bool read(int64_t position, void* buffer, size_t count) const override {
    return source_.readAll(position, buffer, count);
  }

 private:
  const ByteSource& source_;
};

}  // namespace

CompletedSource::CompletedSource(const ByteSource& source)
    : source_(source), plan_(intents::plan(PlanReader(source))) {
  for (const intents::PlannedWrite& write : plan_.writes) {
    patches_.push_back({write.position, write.bytes});
  }
  if (!patches_.empty()) patched_.emplace(source_, patches_, source_.size());
}

size_t CompletedSource::readAt(int64_t position, void* buffer, size_t count) const {
  return patched_ ? patched_->readAt(position, buffer, count)
                  : source_.readAt(position, buffer, count);
}

}  // namespace qvdbase::survey

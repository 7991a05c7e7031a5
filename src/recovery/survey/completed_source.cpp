// Laying the plan of a recovery over a source.
#include "recovery/survey/completed_source.h"

#include "format/intent.h"

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

// The mark that recovery leaves in an intent.
Patch contradictionOf(int64_t intent) {
  return {intent + format::record::kData + format::intent::kState, {format::kIntentContradicted}};
}

}  // namespace

CompletedSource::CompletedSource(const ByteSource& source)
    : source_(source), plan_(intents::plan(PlanReader(source))) {
  for (const intents::PlannedWrite& write : plan_.writes) {
    patches_.push_back({write.position, write.bytes});
  }
  for (const intents::FoundIntent& intent : plan_.intents) {
    if (plan_.contradicts(intent)) patches_.push_back(contradictionOf(intent.position));
  }
  if (!patches_.empty()) patched_.emplace(source_, patches_, source_.size());
}

size_t CompletedSource::readAt(int64_t position, void* buffer, size_t count) const {
  return patched_ ? patched_->readAt(position, buffer, count)
                  : source_.readAt(position, buffer, count);
}

}  // namespace qvdbase::survey

// What the places of a file say about the intents of a run: which were committed, which have left
// traces, which tables another program has changed, and what is to be written.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "intents/recovery.h"
#include "intents/run.h"

namespace qvdbase::intents {

// All that the run says about the same bytes of the file. Guards by hash are no places.
struct Place {
  struct Use {
    size_t intent;
    const format::IntentEntry* entry;
  };

  int64_t position = 0;
  format::PlaceBytes now;  // what is there
  std::vector<Use> uses;   // in the order of the run
};

// A part of a place in one sector: what a device writes as one, or a byte, where it is judged by
// bytes.
struct Part {
  size_t begin;
  size_t end;
};

class Judgement {
 public:
  // All of them must outlive the object.
  Judgement(const FileBytes& file, const std::vector<RunIntent>& run, Judging judging);

  // How many intents of the run were committed, counted from the first.
  size_t committed() const { return committed_; }

  // The plan for the intents that were committed. `plan` has its intents already.
  void decide(RecoveryPlan* plan) const;

 private:
  struct Verdict {
    std::set<int> contradicted;
    std::vector<std::pair<const Place*, const format::IntentEntry*>> latest;  // in order
  };

  using Values = std::vector<const format::PlaceBytes*>;
  // What a sector says that may not have arrived: as much as any other, or nothing.
  enum class Missing { counts, isNoSign };

  void collectPlaces();
  std::vector<Part> partsOf(const Place& place) const;
  bool isOneOf(const Place& place, const Values& values) const;
  bool mayBeMissing(const Place& place, const Part& part) const;
  bool showsNew(const Place& place, size_t first, Missing missing) const;
  bool isVisible(size_t first, Missing missing) const;
  bool isWhole(size_t intent) const;
  std::set<int> tracesOfUncommitted() const;
  int slotOf(const Place& place) const;
  bool isReplacedDataChanged(const format::IntentEntry& entry) const;

  Verdict judge(size_t upTo) const;
  std::set<int> changedByOthers() const;
  std::set<int> newTables() const;
  void lookAround(size_t upTo, Verdict* verdict) const;

  const FileBytes& file_;
  const std::vector<RunIntent>& run_;
  const Judging judging_;
  size_t committed_ = 0;
  std::map<std::pair<int64_t, size_t>, Place> places_;  // by position and length
};

}  // namespace qvdbase::intents

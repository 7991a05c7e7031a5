#include "figures/measure.h"

#include <algorithm>
#include <chrono>

#include "figures/statistics.h"

namespace bench {
namespace {

void visit(const Participant& participant, const Plan& plan, Measured* counted) {
  participant.beginVisit(plan.warmUpTurns + plan.turns);
  for (size_t i = 0; i < plan.warmUpTurns; ++i) participant.turn();
  for (size_t i = 0; i < plan.turns; ++i) {
    const Sample sample = participant.turn();
    if (counted == nullptr) continue;
    counted->processor.push_back(sample.processor);
    counted->wall.push_back(sample.wall);
  }
  participant.endVisit();
}

// Visits those of the participants that are named by their numbers.
std::vector<Measured> attempt(const std::vector<Participant>& participants,
                              std::vector<size_t> numbers, const Plan& plan,
                              std::mt19937_64& random) {
  std::vector<Measured> result(participants.size());
  for (size_t i = 0; i < plan.warmUpVisits + plan.visits; ++i) {
    std::shuffle(numbers.begin(), numbers.end(), random);
    for (const size_t number : numbers) {
      visit(participants[number], plan, i < plan.warmUpVisits ? nullptr : &result[number]);
    }
  }
  return result;
}

void keepTheSteadier(Measured& kept, Measured&& other) {
  const size_t attempts = kept.attempts + 1;
  if (kept.attempts == 0 || spreadOf(other.processor) < spreadOf(kept.processor)) {
    kept = std::move(other);
  }
  kept.attempts = attempts;
}

}  // namespace

std::vector<Measured> measure(const std::vector<Participant>& participants, const Plan& plan,
                              std::mt19937_64& random) {
  const auto start = std::chrono::steady_clock::now();
  std::vector<Measured> kept(participants.size());
  std::vector<size_t> pending(participants.size());
  for (size_t i = 0; i < pending.size(); ++i) pending[i] = i;
  for (size_t i = 0; i < plan.attempts && !pending.empty(); ++i) {
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    if (i > 0 && spent.count() >= plan.seconds) break;
    std::vector<Measured> latest = attempt(participants, pending, plan, random);
    for (const size_t number : pending) keepTheSteadier(kept[number], std::move(latest[number]));
    std::erase_if(pending, [&](size_t number) { return isSteady(kept[number].processor); });
  }
  return kept;
}

}  // namespace bench

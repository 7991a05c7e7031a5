// Workloads that add, change and remove single records. What they do is drawn before the time
// begins.
#include "workloads/workload.h"

namespace bench {
namespace {

template <typename Draw>
std::vector<Held> draw(Filled& f, Draw draw) {
  std::vector<Held> drawn(changesOf(f.count()));
  for (Held& record : drawn) record = draw();
  return drawn;
}

void write(Filled& f, Turn& turn, const std::vector<Held>& drawn) {
  size_t written = 0;
  turn.timed(drawn.size(), [&] {
    for (const Held& record : drawn) written += f.store().update(record.key, f.valueOf(record));
  });
  if (written != drawn.size()) failed(f.kind().name + ": records to write are missing");
}

}  // namespace

void append(Filled& f, Turn& turn) {
  std::vector<Held> added = draw(f, [&] { return Held{0, f.willAdd(), 0}; });
  turn.timed(added.size(), [&] {
    for (Held& record : added) record.key = f.store().append(f.valueOf(record.stamp));
  });
  for (const Held& record : added) f.hasAdded(record.key, record.stamp);
}

void update(Filled& f, Turn& turn) {
  write(f, turn, draw(f, [&] { return f.willUpdate(f.anyNumber()); }));
}

void grow(Filled& f, Turn& turn) {
  write(f, turn, draw(f, [&] { return f.willGrow(); }));
}

void remove(Filled& f, Turn& turn) {
  const std::vector<Held> drawn = draw(f, [&] { return f.willRemove(); });
  size_t removed = 0;
  turn.timed(drawn.size(), [&] {
    for (const Held& record : drawn) removed += f.store().remove(record.key);
  });
  if (removed != drawn.size()) failed(f.kind().name + ": records to remove are missing");
}

}  // namespace bench

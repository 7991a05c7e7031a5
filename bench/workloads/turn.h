// One turn of a workload: it prepares what it needs, runs the operations inside timed(), and looks
// at what has come of them afterwards.
#pragma once

#include <map>
#include <string>

#include "figures/measure.h"

namespace bench {

// The clocks: the processor time of all threads, and of child processes that have ended; and the
// time that passes. In nanoseconds.
struct Clocks {
  double processor = 0;
  double wall = 0;

  static Clocks now();
};

class Turn {
 public:
  // Runs the body, which carries out so many operations. Several times in one turn add up.
  template <typename Body>
  void timed(size_t operations, Body body) {
    const Clocks start = Clocks::now();
    body();
    const Clocks end = Clocks::now();
    processor_ += end.processor - start.processor;
    wall_ += end.wall - start.wall;
    operations_ += static_cast<double>(operations);
  }

  // After timed(0, ...), for a body that has measured itself: how many operations it has carried
  // out, and in which time.
  void did(size_t operations, double wall) {
    operations_ = static_cast<double>(operations);
    wall_ = wall;
  }

  // What else was seen, of which the last turn counts.
  void note(const std::string& name, double value) { notes_[name] = value; }

  Sample sample() const;
  const std::map<std::string, double>& notes() const { return notes_; }

 private:
  double processor_ = 0;
  double wall_ = 0;
  double operations_ = 0;
  std::map<std::string, double> notes_;
};

}  // namespace bench

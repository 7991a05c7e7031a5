// How many looks at a file last, counted by several threads at once. They have one lock together,
// which the first of them takes and the last one gives up; whoever does so keeps the number
// meanwhile, and the others wait.
//
// Threads whose looks overlap without an end would keep a writer out for ever. So only some may
// join looks that last; the next one keeps the number, to find out whether a writer waits.
#pragma once

#include <atomic>
#include <cstdint>

namespace qvdbase::platform {

class LookCount {
 public:
  // How many looks join others before one has to find out.
  static constexpr uint32_t kMostJoins = 64;

  explicit LookCount(uint32_t& number) : number_(number) {}

  // Adds a look to those that last. False where it cannot join any: then the thread keeps the
  // number and has to settle it.
  bool join() {
    return change([](uint32_t found) {
      const bool joins = (found & kLooks) != 0 && found / kOneJoin < kMostJoins;
      return joins ? found + kOneJoin + 1 : found | kKept;
    });
  }
  // How many lasted when it was kept.
  uint32_t lasting() const { return found_ & kLooks; }
  // The look has begun, or it has not.
  void settle(bool hasBegun) { store(hasBegun ? lasting() + 1 : found_); }

  // Takes a look away from those that last. False for the last one: then the thread keeps the
  // number until it is empty. True where there is none.
  bool leave() {
    return change([](uint32_t found) {
      const uint32_t looks = found & kLooks;
      if (looks == 0) return found;
      return looks > 1 ? found - 1 : found | kKept;
    });
  }
  void empty() { store(0); }

 private:
  static constexpr uint32_t kLooks = 0xffff;  // more than there are file numbers
  static constexpr uint32_t kOneJoin = kLooks + 1;
  static constexpr uint32_t kKept = uint32_t{1} << 31;

  // False when the number is kept now.
  template <typename Next>
  bool change(Next next) {
    found_ = number_.load();
    for (;;) {
      const uint32_t wanted = next(found_);
      if ((found_ & kKept) != 0) {
        number_.wait(found_);
        found_ = number_.load();
      } else if (number_.compare_exchange_weak(found_, wanted)) {
        return (wanted & kKept) == 0;
      }
    }
  }

  void store(uint32_t number) {
    number_.store(number);
    number_.notify_all();
  }

  std::atomic_ref<uint32_t> number_;
  uint32_t found_ = 0;
};

}  // namespace qvdbase::platform

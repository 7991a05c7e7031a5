// A store that is filled and open, and what its records hold: what workloads draw their operations
// from, and compare with what they read.
#pragma once

#include <random>

#include "figures/figure.h"
#include "store.h"
#include "workloads/turn.h"

namespace bench {

struct Held {
  Key key = 0;
  uint32_t stamp = 0;
  uint32_t size = 0;
};

class Filled {
 public:
  // Makes an empty store in a new folder of `scratch`, which is removed with this object.
  Filled(const StoreKind& kind, Size size, const std::filesystem::path& scratch);
  ~Filled();
  Filled(const Filled&) = delete;
  Filled& operator=(const Filled&) = delete;

  const StoreKind& kind() const { return kind_; }
  Size size() const { return size_; }
  Store& store() { return *store_; }
  const std::filesystem::path& folder() const { return folder_; }

  // Makes it again, empty.
  void empty();
  // Fills the empty store with all records in the way that it recommends, which is timed.
  void load(Turn& turn);
  // Makes it again, with all records in order, and waits until the device has it.
  void refill();
  // Refills when it is empty, or when these changes with the earlier ones are more than half as
  // many as there are records.
  void provideFor(size_t changes);

  // ---- Its records

  size_t count() const { return records_.size(); }
  const Held& at(size_t number) const { return records_[number]; }
  size_t anyNumber() { return random_() % records_.size(); }
  std::mt19937_64& random() { return random_; }

  // Notes what an operation is going to do, and returns what it needs for that.
  Held willUpdate(size_t number);  // with a value of the same size
  Held willGrow();                 // a record that has not grown yet, half as large again
  Held willRemove();               // any record
  uint32_t willAdd() { return nextStamp_++; }
  void hasAdded(Key key, uint32_t stamp);

  // The value with this stamp, valid until the next call.
  std::span<const char> valueOf(const Held& record);
  std::span<const char> valueOf(uint32_t stamp) { return base_.of(stamp); }

  // Half as many changes as there are records, as an application makes them in the course of time:
  // it adds, removes and enlarges one after the other.
  void change();

  // ---- Whether it is right

  // Throws unless what was seen in a walk over all records is what they hold.
  void verifyKeys(const Walked& seen) const;
  void verifyValues(const Walked& seen) const;
  // Reads the newest and some other records, and throws unless each has its value.
  void verifySample();

  // Bytes of the device that the store occupies.
  uint64_t bytesOnDisk() const;

 private:
  void create();
  void destroy();
  void verify(size_t number);

  const StoreKind& kind_;
  Size size_;
  std::filesystem::path folder_;
  std::unique_ptr<Store> store_;
  std::vector<Held> records_;
  Values base_;
  Values grown_;
  uint32_t nextStamp_ = 1;
  size_t changes_ = 0;
  std::mt19937_64 random_{1};
};

}  // namespace bench

// A key-value store under measurement: our library or one of its peers, reduced to what the
// workloads need. Every store gives the same guarantee: when a call has returned, ending the
// process at once loses nothing of it; nothing is synced to the device, unless it is opened so.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "workloads/values.h"

namespace bench {

using Key = uint64_t;

// What a walk has seen. It copies each value, as an application that uses values does.
class Walked {
 public:
  void key(Key added) {
    ++records;
    keys += added;
  }
  void value(const void* data, size_t size) {
    const auto* from = static_cast<const char*>(data);
    copy_.assign(from, from + size);
    ++records;
    bytes += size;
    stamps += stampOf(copy_);
  }

  uint64_t records = 0;
  uint64_t keys = 0;    // their sum
  uint64_t bytes = 0;   // of all values
  uint64_t stamps = 0;  // their sum

 private:
  Bytes copy_;
};

class Store {
 public:
  virtual ~Store() = default;

  // Creates the store in a folder that exists and is empty; or opens the one that is there.
  virtual void open(const std::filesystem::path& folder) = 0;
  virtual void close() = 0;

  // Opens the store that is there so that the device has each operation when its call returns, as
  // the store's manual recommends.
  virtual void openDurably(const std::filesystem::path&) {}
  // Carries out the operations of `body` as one transaction.
  virtual void inTransaction(const std::function<void()>&) {}

  // Called before operations, outside the time: whether they look records up by their keys. Ours
  // makes its index then, or drops it.
  virtual void expectLookups(bool /*areExpected*/) {}

  // Adds a record under the next key and returns it. Stores that make their own keys do so. Those
  // with kThreads can be asked by several threads at once.
  virtual Key append(std::span<const char> value) = 0;
  // Adds as many records as `keys` takes, the values with the stamps from `stamp` on, in the way
  // that the store recommends for many.
  virtual void appendMany(Values& values, uint32_t stamp, std::span<Key> keys) = 0;

  // Walks all records: their keys; their values.
  virtual Walked scanKeys() = 0;
  virtual Walked scanValues() = 0;

  // Stores in the order of the records: the values of up to `count` records after the one with this
  // key; of the `count` records that were added last.
  virtual Walked valuesAfter(Key, size_t /*count*/) { return {}; }
  virtual Walked lastValues(size_t /*count*/) { return {}; }

  // Reads a value, or reports that there is no such record.
  virtual bool get(Key key, Bytes* value) = 0;
  virtual bool update(Key key, std::span<const char> value) = 0;
  virtual bool remove(Key key) = 0;

  // Stores with names: each record has a key of the user's own, nameOf() its value, which no other
  // record has. Adding in any way enters it.
  //
  // Adds a record, or reports that there is one of that name.
  virtual bool addNamed(std::span<const char> /*value*/, Key* /*key*/) { return false; }
  // Reads the value of the record with a name, or reports that there is none.
  virtual bool getNamed(const std::string& /*name*/, Bytes* /*value*/) { return false; }
  // The values of the records whose names begin so, in the order of these.
  virtual Walked valuesNamed(const std::string& /*beginning*/) { return {}; }
  // The memory that is taken up for names, where that is known: in bytes.
  virtual size_t memoryOfNames() { return 0; }

  // Gives dead space back, and leaves the store open.
  virtual void compact() {}

  // Reads the whole store, which is closed, to see that it is sound.
  virtual void inspect() {}
};

[[noreturn]] inline void failed(const std::string& what) {
  throw std::runtime_error(what);
}

// What a store can do, as a sum; every one can add records and walk over all of them.
enum Ability : unsigned {
  kLookUp = 1,       // by key, in less time than a walk takes
  kOrdered = 2,      // walks in the order of its records from any of them
  kCompact = 4,      // gives dead space back
  kInspect = 8,      // sees whether it is sound
  kSideBySide = 16,  // is read by several threads and processes of ours
  kChain = 32,       // looks records up by walking
  kTransact = 64,    // makes several operations one, which see each other
  kDurable = 128,    // waits for the device
  kNames = 256,      // by a second key of the user's own; such stores do nothing else
  kOpens = 512,      // is another one that differs where it is opened; does nothing else
  kThreads = 1024,   // is written to by several threads, each commit on the device; see append()
};

struct StoreKind {
  std::string name;
  std::string summary;
  unsigned abilities;
  std::unique_ptr<Store> (*make)(size_t expectedRecords);
};

// All of them; ours first.
const std::vector<StoreKind>& storeKinds();

// One for each source in stores/. Hash stores get as many buckets as their manuals recommend for
// the number of records that is expected.
std::unique_ptr<Store> makeQvdbaseC(size_t);          // the C interface alone
std::unique_ptr<Store> makeQvdbaseLayer(size_t);      // the C++ layer, with an index
std::unique_ptr<Store> makeQvdbaseCached(size_t);     // the same with a cache
std::unique_ptr<Store> makeQvdbaseChecksums(size_t);  // with checksums instead
std::unique_ptr<Store> makeQvdbaseKept(size_t);       // with the index kept beside the file
std::unique_ptr<Store> makeQvdbaseNames(size_t);      // with names in memory
std::unique_ptr<Store> makeQvdbaseNamesCached(size_t);
std::unique_ptr<Store> makeQvdbaseNamesKept(size_t);
std::unique_ptr<Store> makeSqliteWal(size_t);
std::unique_ptr<Store> makeSqliteRollback(size_t);
std::unique_ptr<Store> makeSqliteNames(size_t);
std::unique_ptr<Store> makeLmdb(size_t);
std::unique_ptr<Store> makeLmdbWritemap(size_t);
std::unique_ptr<Store> makeLmdbNames(size_t);
std::unique_ptr<Store> makeLevelDb(size_t);
std::unique_ptr<Store> makeRocksDb(size_t);
std::unique_ptr<Store> makeTkrzw(size_t expectedRecords);
std::unique_ptr<Store> makeTokyoCabinet(size_t expectedRecords);
std::unique_ptr<Store> makeGdbm(size_t);
std::unique_ptr<Store> makeBerkeleyDb(size_t);

// Keys as ordered stores want them: most significant byte first.
struct KeyBytes {
  explicit KeyBytes(Key key) {
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<char>(key >> (56 - 8 * i) & 0xFF);
  }
  std::string_view view() const { return {bytes, sizeof bytes}; }
  char bytes[8];
};

inline Key keyOf(const void* bytes) {
  const auto* from = static_cast<const unsigned char*>(bytes);
  Key key = 0;
  for (int i = 0; i < 8; ++i) key = key << 8 | from[i];
  return key;
}

}  // namespace bench

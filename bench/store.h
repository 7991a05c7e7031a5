// A key-value store under measurement: our library or one of its peers, reduced to what the
// workloads need. Every store gives the same guarantee: when a call has returned, ending the
// process at once loses nothing of it; nothing is synced to the device.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

using Key = uint64_t;
using Bytes = std::vector<char>;

class Store {
 public:
  virtual ~Store() = default;

  // Creates the store in a folder that exists and is empty; or opens the one that is there.
  virtual void open(const std::filesystem::path& folder) = 0;
  virtual void close() = 0;

  // Adds a record under the next key and returns it. Stores that make their own keys do so.
  virtual Key append(std::span<const char> value) = 0;
  // Adds `count` records of this value in the way that the store recommends for many.
  virtual void appendMany(size_t count, std::span<const char> value, std::vector<Key>* keys) = 0;

  // Walks all records: a sum over the keys; the sum of the bytes of all values.
  virtual uint64_t scanKeys() = 0;
  virtual uint64_t scanValues() = 0;

  // Reads the values of the records that were added last; their bytes.
  virtual uint64_t lastValues(size_t /*count*/) { return 0; }

  virtual bool get(Key key, Bytes* value) = 0;
  virtual bool update(Key key, std::span<const char> value) = 0;
  virtual bool remove(Key key) = 0;

  // The read of one record right after opening: the first one.
  virtual void firstRead(Key first, Bytes* value) {
    if (!get(first, value)) throw std::runtime_error("the first record is not there");
  }

  // Gives dead space back; false when the store cannot.
  virtual bool compact() = 0;

  // Reads the whole store, which is closed, to see that it is sound. Only ours is asked.
  virtual void inspect() {}
};

[[noreturn]] inline void failed(const std::string& what) {
  throw std::runtime_error(what);
}

struct StoreKind {
  std::string name;
  std::function<std::unique_ptr<Store>()> make;
};

// All of them; ours first.
const std::vector<StoreKind>& storeKinds();

// One for each source in stores/.
std::unique_ptr<Store> makeQvdbaseC();      // the C interface alone
std::unique_ptr<Store> makeQvdbaseIndex();  // the C++ layer, with an index
std::unique_ptr<Store> makeSqliteWal();
std::unique_ptr<Store> makeSqliteRollback();
std::unique_ptr<Store> makeLmdb();
std::unique_ptr<Store> makeLmdbWritemap();
std::unique_ptr<Store> makeLevelDb();
std::unique_ptr<Store> makeRocksDb();
std::unique_ptr<Store> makeTkrzw();
std::unique_ptr<Store> makeTokyoCabinet();
std::unique_ptr<Store> makeGdbm();
std::unique_ptr<Store> makeBerkeleyDb();

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

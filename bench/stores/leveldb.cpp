// LevelDB.
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "stores/log_structured.h"

namespace bench {
namespace {

struct Api {
  using Options = leveldb::Options;
  using Database = leveldb::DB;
  using WriteOptions = leveldb::WriteOptions;
  using WriteBatch = leveldb::WriteBatch;
  using Iterator = leveldb::Iterator;
  using Slice = leveldb::Slice;
  using Status = leveldb::Status;
  static constexpr const char* kName = "leveldb";
  static constexpr auto kNoCompression = leveldb::kNoCompression;

  static void compactAll(Database& database) { database.CompactRange(nullptr, nullptr); }
};

}  // namespace

std::unique_ptr<Store> makeLevelDb(size_t) {
  return std::make_unique<LogStructuredStore<Api>>();
}

}  // namespace bench

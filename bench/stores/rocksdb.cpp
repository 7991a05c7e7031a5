// RocksDB.
#include <rocksdb/db.h>
#include <rocksdb/write_batch.h>

#include "stores/log_structured.h"

namespace bench {
namespace {

struct Api {
  using Options = rocksdb::Options;
  using Database = rocksdb::DB;
  using WriteOptions = rocksdb::WriteOptions;
  using WriteBatch = rocksdb::WriteBatch;
  using Iterator = rocksdb::Iterator;
  using Slice = rocksdb::Slice;
  using Status = rocksdb::Status;
  static constexpr const char* kName = "rocksdb";
  static constexpr auto kNoCompression = rocksdb::kNoCompression;

  static void compactAll(Database& database) { database.CompactRange({}, nullptr, nullptr); }
};

}  // namespace

std::unique_ptr<Store> makeRocksDb(size_t) {
  return std::make_unique<LogStructuredStore<Api>>();
}

}  // namespace bench

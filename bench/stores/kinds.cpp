// The stores that are measured side by side.
#include "store.h"

namespace bench {

const std::vector<StoreKind>& storeKinds() {
  static constexpr unsigned kHash = kLookUp | kCompact;
  static constexpr unsigned kTree = kHash | kOrdered;
  static constexpr unsigned kSingle = kTree | kTransact | kDurable;
  static const std::vector<StoreKind> kinds{
      {"qvdbase", "our C++ layer, open exclusively, with an index",
       kSingle | kInspect | kSideBySide | kThreads, makeQvdbaseLayer},
      {"qvdbase-cache", "the same with a cache that takes the whole file", kTree | kTransact,
       makeQvdbaseCached},
      {"qvdbase-checksums", "the first with checksums of all payloads", kTree,
       makeQvdbaseChecksums},
      {"qvdbase-kept", "the first with its index kept beside the file", kOpens, makeQvdbaseKept},
      {"qvdbase-c", "our C interface alone", kChain, makeQvdbaseC},
      {"qvdbase-keys", "our C++ layer with a KeyIndex in memory", kNames, makeQvdbaseNames},
      {"qvdbase-keys-cache", "the same with a cache that takes the whole file", kNames,
       makeQvdbaseNamesCached},
      {"qvdbase-keys-kept", "the one before without it, kept beside the file", kNames,
       makeQvdbaseNamesKept},
      {"sqlite-wal", "SQLite with a write-ahead log", kSingle, makeSqliteWal},
      {"sqlite-rollback", "SQLite with a rollback journal", kSingle, makeSqliteRollback},
      {"lmdb", "LMDB", kSingle | kThreads, makeLmdb},
      {"lmdb-writemap", "LMDB with a writable map", kTree | kTransact, makeLmdbWritemap},
      {"leveldb", "LevelDB", kTree | kDurable | kThreads, makeLevelDb},
      {"rocksdb", "RocksDB", kTree | kDurable | kThreads, makeRocksDb},
      {"tkrzw", "tkrzw's hash database", kHash, makeTkrzw},
      {"tokyocabinet", "Tokyo Cabinet's hash database", kHash, makeTokyoCabinet},
      {"gdbm", "GDBM", kHash, makeGdbm},
      {"berkeleydb", "Berkeley DB's B-tree", kTree | kDurable, makeBerkeleyDb},
      {"sqlite-wal-keys", "SQLite with a unique index of a column", kNames, makeSqliteNames},
      {"lmdb-keys", "LMDB with a second database, of names and keys", kNames, makeLmdbNames},
  };
  return kinds;
}

}  // namespace bench

// The stores that are measured side by side.
#include "store.h"

namespace bench {

const std::vector<StoreKind>& storeKinds() {
  static const std::vector<StoreKind> kinds{
      {"qvdbase", makeQvdbaseIndex},
      {"qvdbase-c", makeQvdbaseC},
      {"sqlite-wal", makeSqliteWal},
      {"sqlite-rollback", makeSqliteRollback},
      {"lmdb", makeLmdb},
      {"lmdb-writemap", makeLmdbWritemap},
      {"leveldb", makeLevelDb},
      {"rocksdb", makeRocksDb},
      {"tkrzw", makeTkrzw},
      {"tokyocabinet", makeTokyoCabinet},
      {"gdbm", makeGdbm},
      {"berkeleydb", makeBerkeleyDb},
  };
  return kinds;
}

}  // namespace bench

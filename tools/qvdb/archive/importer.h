// Stores a tree of files as records of a table.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "archive/file_tree.h"
#include "archive/found_file_opener.h"
#include "archive/import_batch.h"
#include "archive/import_names.h"

namespace qvdb::tool {

// The order of the work decides what an interruption leaves. First everything is checked. Then the
// names of all new files are stored, with the identifiers that their records are going to have, and
// then the records, one by one. So no record is ever without its name. Names without records are
// ignored by everything that reads them, and a new import of the same files adds the records. An
// import that is interrupted by Ctrl-C removes such names before it ends. A file that has
// disappeared since it was listed is left out, with a line on standard error.
class Importer {
 public:
  // `names` is the list that the table has. Where `table` is none, run() makes it, as `newTable`.
  // With `compress` files are compressed; throws Failure where that is not possible.
  Importer(Database& database, Table& table, const FileTree& tree, ImportedFiles names,
           std::string newTable = {}, bool compress = false);

  // Throws Failure when the table has a file already that is not to be replaced, or one of another
  // kind under its name. Changes nothing.
  void check(bool replace);

  // Stores everything. Throws Failure; its message says how many files are stored.
  void run();

  std::string summary() const;

 private:
  bool isReplaced(size_t place);
  void loadRecords();
  void prepareToCompress();
  void makeTable();
  void storeAll();
  void store(size_t place);
  void storeIfThere(size_t place);
  void storeFile(size_t place);
  void replaceRecords(const std::vector<Record>& old, size_t place, const Descriptor& file,
                      uint64_t size);
  std::string stop();
  uint64_t filesBetween(size_t from, size_t to) const;

  Database& database_;
  Table& table_;
  const std::string newTable_;
  const FileTree& tree_;
  ImportNames names_;
  const bool compress_;
  PayloadEncoder encoder_;
  ImportBatch batch_;
  FoundFileOpener opener_;
  bool areRecordsLoaded_ = false;
  // Those of the names that the table has: of each identifier all, in the order of the table.
  std::unordered_map<Id, std::vector<Record>> records_;
  std::vector<std::byte> buffer_;
  size_t at_ = 0;  // the file that is being stored
  uint64_t files_ = 0;
  uint64_t disappeared_ = 0;
  uint64_t folders_ = 0;
  uint64_t links_ = 0;
  uint64_t bytes_ = 0;
};

}  // namespace qvdb::tool

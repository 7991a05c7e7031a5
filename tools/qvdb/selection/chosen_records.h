// The records, and the entries of a list of imported files, that the words of a command mean.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "archive/imported_files.h"
#include "command_line/command.h"
#include "selection/name_choice.h"

namespace qvdb::tool {

inline constexpr const char* kRecordsHelp =
    "Records: identifiers or, in a table of imported files, names of files, folders with all that "
    "is below them, and patterns of names. Write ./NAME for a name that looks like a number.";

// The names of a list that are in use. The list must outlive this, and stay as it is.
class ListedNames {
 public:
  explicit ListedNames(const ImportedFiles& files) : choice_(namesOf(files, &places_)) {}

  // The places in the list of what a word means, as NameChoice says.
  std::vector<size_t> find(const std::string& word) const;

 private:
  static std::vector<ChoosableName> namesOf(const ImportedFiles& files,
                                            std::vector<size_t>* places);

  std::vector<size_t> places_;
  NameChoice choice_;
};

// What the words of a command mean. Each is an identifier, else a name or a pattern as NameChoice
// says.
struct Chosen {
  std::vector<Record> records;  // each once, in the order of the words
  std::vector<size_t> entries;  // of the list of imported files, of all kinds
  uint64_t withoutRecord = 0;   // files below folders, or that match a pattern, without a record
};

// All is found in one walk. Throws Failure for a word that means nothing, and when a record that
// was named does not exist.
Chosen chooseRecords(const Database& database, const Table& table,
                     const std::vector<std::string>& words);

// The same for commands that only read records. A line on standard error reports files without a
// record. Throws Failure when there is no record at all, but only folders and symbolic links.
Chosen chooseSomeRecords(const Database& database, const Table& table,
                         const std::vector<std::string>& words);

// The options of commands that do something with records.
struct RecordOptions {
  std::string file;
  std::string table;
  std::vector<std::string> records;
};
void defineRecords(Arguments& arguments, RecordOptions& options);

// Those that also change them.
struct RecordChange : RecordOptions {
  bool noSync = false;
};
void defineRecords(Arguments& arguments, RecordChange& options);

}  // namespace qvdb::tool

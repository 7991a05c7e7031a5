// The records that the words of a command mean.
#include "selection/chosen_records.h"

#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "commands/locate.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

struct ChosenNames {
  std::vector<Id> records;            // each once, in the order of the words
  std::unordered_set<Id> named;       // those that were named one by one, so that they must exist
  std::vector<size_t> entries;        // of the list, of all kinds
  std::optional<ImportedFiles> list;  // where a word is no identifier
};

// Throws Failure for a word that means nothing in the table.
ChosenNames chooseNames(const Database& database, const Table& table,
                        const std::vector<std::string>& words) {
  ChosenNames chosen;
  std::optional<ListedNames> names;
  std::unordered_set<Id> taken;
  std::unordered_set<size_t> entries;
  for (const std::string& word : words) {
    throwIfInterrupted();
    if (const auto id = parse_id(word)) {
      chosen.named.insert(*id);
      if (taken.insert(*id).second) chosen.records.push_back(*id);
      continue;
    }
    if (!names) {
      chosen.list = namesOfImported(database, table, word);
      names.emplace(*chosen.list);
    }
    const std::vector<size_t> found = names->find(word);
    if (found.empty()) throw noSuchName(database, table, *chosen.list, word);
    for (const size_t entry : found) {
      if (!entries.insert(entry).second) continue;
      chosen.entries.push_back(entry);
      const ImportedFile& file = chosen.list->list()[entry];
      if (file.kind == FileKind::file && taken.insert(file.record).second) {
        chosen.records.push_back(file.record);
      }
    }
    const ImportedFile& first = chosen.list->list()[found.front()];
    if (found.size() == 1 && first.kind == FileKind::file && first.name == nameIn(word)) {
      chosen.named.insert(first.record);
    }
  }
  return chosen;
}

}  // namespace

std::vector<ChoosableName> ListedNames::namesOf(const ImportedFiles& files,
                                                std::vector<size_t>* places) {
  std::vector<ChoosableName> names;
  for (size_t i = 0; i < files.list().size(); ++i) {
    const ImportedFile& file = files.list()[i];
    if (file.kind == FileKind::removed) continue;
    names.push_back({file.name, file.kind == FileKind::folder});
    places->push_back(i);
  }
  return names;
}

std::vector<size_t> ListedNames::find(const std::string& word) const {
  std::vector<size_t> found = choice_.find(word);
  for (size_t& place : found) place = places_[place];
  return found;
}

Chosen chooseRecords(const Database& database, const Table& table,
                     const std::vector<std::string>& words) {
  const ChosenNames names = chooseNames(database, table, words);
  std::unordered_map<Id, std::optional<Record>> wanted;
  for (const Id id : names.records) wanted.emplace(id, std::nullopt);
  size_t missing = wanted.size();
  auto records = table.records();
  for (auto record = records.begin(); missing > 0 && record != records.end(); ++record) {
    throwIfInterrupted();
    const auto found = wanted.find(record->id());
    if (found == wanted.end() || found->second) continue;  // the first of several counts
    found->second = *record;
    --missing;
  }
  Chosen chosen;
  chosen.entries = names.entries;
  for (const Id id : names.records) {
    if (wanted[id]) {
      chosen.records.push_back(*wanted[id]);
    } else if (names.named.contains(id)) {
      throw noSuchRecord(database, table, id);
    } else {
      ++chosen.withoutRecord;
    }
  }
  return chosen;
}

Chosen chooseSomeRecords(const Database& database, const Table& table,
                         const std::vector<std::string>& words) {
  Chosen chosen = chooseRecords(database, table, words);
  const std::string path = database.path().native();
  if (const uint64_t count = chosen.withoutRecord) {
    complain(path + ": " + counted(count, "name has no record", "names have no record") +
             " any more");
  }
  if (!chosen.records.empty()) return chosen;
  throw Failure(path + ": '" + words.front() + "' in table '" + table.name() +
                "' is a folder or a symbolic link without a record; 'qvdb export' writes it");
}

void defineRecords(Arguments& arguments, RecordOptions& options) {
  arguments.argument("FILE", options.file, kFileHelp);
  arguments.argument("TABLE", options.table, kTableHelp);
  arguments.arguments("RECORD", options.records, 1, kRecordsHelp);
}

void defineRecords(Arguments& arguments, RecordChange& options) {
  defineRecords(arguments, static_cast<RecordOptions&>(options));
  arguments.noSync(options.noSync);
}

}  // namespace qvdb::tool

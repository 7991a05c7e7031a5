// A folder that was imported, as it was at an earlier time.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "archive/imported_files.h"
#include "compression/coded_payload.h"

namespace qvdb::tool {

// A file, folder or link of that time, and of a file what it held.
struct FileAt {
  ImportedFile file;
  std::optional<FoundBlock> version;
  std::optional<Record> record;  // where the version is the one in use
};

// The list of names says what was there, and the versions of the records in the file what it held.
class FolderAt {
 public:
  // Throws Failure when the list had nothing at that time.
  FolderAt(const Database& database, const Table& table, const ImportedFiles& files, int64_t time);

  // Keeps what these words mean, as NameChoice says, in the order of the words; all for none.
  // Returns a word that means nothing, where there is one; then all is kept.
  std::optional<std::string> choose(const std::vector<std::string>& words);

  // Finds what the files held, and leaves those out of which it is lost. `table` is the name or
  // identifier that was given. Throws Error; Interrupted.
  void findContents(const std::string& table);

  const std::vector<FileAt>& entries() const { return entries_; }

  // Reports on standard error what was left out, and what the file cannot say. Returns whether
  // everything is there, as far as the file says.
  bool report() const;

 private:
  void addLive();

  const Database& database_;
  const Table& table_;
  const int64_t time_;
  const int64_t knownSince_;
  const bool isComplete_;
  std::vector<FileAt> entries_;
  std::vector<std::string> lost_;      // names of files
  std::vector<std::string> doubtful_;  // of those that may have been changed in place
};

// What a file of that time held, read in pieces as Record::read does.
class ContentsAt {
 public:
  // `key` is that of the table's list.
  ContentsAt(std::string path, const ListKey& key) : path_(std::move(path)), key_(key) {}

  // `file` has a version, and stays as it is while it is read.
  size_t read(const FileAt& file, uint64_t offset, std::span<std::byte> buffer);

 private:
  size_t readStored(const FileAt& file, uint64_t offset, std::span<std::byte> buffer);

  const std::string path_;
  const ListKey key_;
  const FileAt* of_ = nullptr;
  std::optional<CodedPayload> contents_;
  std::vector<std::byte> payload_;
};

}  // namespace qvdb::tool

// A database file opened to be looked at, with failures reported as the C++ layer reports them.
#pragma once

#include <qvdbase/qvdb/file_writer.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "platform/handles/read_only_file.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/completed_source.h"

namespace qvdbase::survey {

class OpenedFile {
 public:
  // Throws qvdb::Error, in the name of `operation`: no_such_file, not_a_file, access_denied,
  // cannot_open, path_not_reachable.
  OpenedFile(const std::filesystem::path& path, const char* operation);

  // The file that this process has open for writing under that number, whatever its name leads to
  // by now. Throws cannot_open.
  OpenedFile(int16_t file, const std::filesystem::path& path, const char* operation);

  // With what committed transactions have not put into place yet laid over it.
  const ByteSource& source() const { return *completed_; }
  // Which these are, as far as source() has them.
  const intents::RecoveryPlan& openTransactions() const { return completed_->plan(); }
  // The bytes as they are in the file.
  const ByteSource& rawSource() const { return *source_; }
  const platform::ReadOnlyFile& file() const { return file_; }

  // Makes sure that every write from now on shows in hasChanged(), which may take a moment for a
  // file that was written just now. To be called before source() is.
  void watch();

  // The same of the file as it is now: source() is then of another size, perhaps. Throws
  // cannot_read.
  void watchAnew(const std::filesystem::path& path, const char* operation);

  // Whether the file was written to since it was opened here: its size, its times, or the
  // bytes of its header and directory are others.
  bool hasChanged() const;

  // Throws in_use when it has.
  void requireUnchanged(const std::filesystem::path& path, const char* operation) const;

  // Who may do what with it, for files that are made from it; of a device, what its owner may.
  // Throws cannot_read.
  platform::FileAccess access(const std::filesystem::path& path, const char* operation) const;

  // Whether another process has it open for writing, or had when it was opened here.
  bool isLockedByOthers() const { return wasLocked_ || file_.isLockedByOthers(); }

  // Who has it open for writing now. One that has closed it meanwhile is not known.
  qvdb::FileWriter writer() const;

 private:
  void begin(const std::filesystem::path& path, const char* operation);
  bool look();

  platform::ReadOnlyFile file_;
  bool wasLocked_ = false;
  platform::FileStamp stamp_;
  std::optional<FileSource> source_;
  std::optional<CompletedSource> completed_;
  std::vector<unsigned char> watched_;
};

}  // namespace qvdbase::survey

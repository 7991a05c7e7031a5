// qvdb::OutputFile: an ordinary file made from what a database holds, which appears under its name
// when it is complete, or not at all.
//
//   qvdb::OutputFile file("letter.pdf", database.path());
//   file.write(payload);
//   file.place();
//
// Until then it is a temporary file in the folder of its target, which the object removes at its
// end. A process that is killed leaves it, under a name that begins with ".qvdb-" and ends in
// ".tmp".
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace qvdb {

// How an output file is made.
struct OutputOptions {
  // Whether a file that exists is replaced. The new one then gets its owner, group and
  // permissions, and a file with several hard links is refused.
  bool overwrite = false;
  bool create_folders = false;  // whether missing folders in the path are created
  // Whether place() waits until the device has the file before it gets its name, and then until the
  // device has the name.
  bool sync = true;
};

// A file that is being written.
class QVDBASE_API OutputFile {
 public:
  // Begins the file at `target`; symbolic links are followed. It gets permissions, access list and
  // group of `source`, the database that it is made from, and its owner where the system allows
  // that, unless it replaces a file. Where the group cannot be kept, its rights are removed.
  //
  // Throws Error: path_not_reachable; file_exists; not_a_file; in_use when a file to be replaced is
  // locked, as an open database is; bad_argument when it has several hard links, or is `source`;
  // access_denied; disk_full; cannot_open; cannot_read; cannot_write.
  OutputFile(const std::filesystem::path& target, const std::filesystem::path& source,
             const OutputOptions& options = {});

  // Begins the entry `name` of a folder. Only its owner can read and write the file until the
  // caller gives it other permissions. A symbolic link of that name is not followed, but replaced.
  // place() does not wait for the name here: sync the folder once, after all its files.
  //
  // folder  an open descriptor of the folder; stays the caller's
  // path    for messages
  //
  // Throws Error as the form above.
  OutputFile(int folder, const std::string& name, const std::filesystem::path& path,
             const OutputOptions& options = {});

  ~OutputFile();                            // removes a file that was not placed
  OutputFile(OutputFile&& other) noexcept;  // takes the file; the other one has none then
  // Removes this one's file if it was not placed, and takes the other one's.
  OutputFile& operator=(OutputFile&& other) noexcept;

  // Appends bytes. Throws Error: disk_full, cannot_write.
  void write(std::span<const std::byte> bytes);

  // The file's descriptor, for setting permissions and times. It stays this object's: do not close
  // it.
  int descriptor() const noexcept;

  // Gives the finished file its name. Throws Error: file_exists and in_use when another file has
  // got the name meanwhile, disk_full, cannot_write.
  void place();

 private:
  class State;
  std::unique_ptr<State> state_;
};

struct CheckReport;  // qvdb/check.hpp
struct Finding;

// Checks a file that is being written and should be a database, as check() does one that has a
// name: before place() gives it to it. The visitor, which may be empty, gets every finding. Nothing
// is thrown but what the visitor throws, and std::bad_alloc; what cannot be read is a finding.
QVDBASE_API CheckReport check(const OutputFile& file,
                              const std::function<void(const Finding&)>& visitor = {});

}  // namespace qvdb

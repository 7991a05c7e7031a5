// qvdb::OutputFile: an ordinary file made from what a database holds, which appears under its name
// when it is complete, or not at all.
//
//   qvdb::OutputFile file("letter.pdf", database.path());
//   file.write(payload);
//   file.place();
//
// Until then it is a temporary file beside its place, which goes with the object. A process that is
// killed leaves it behind, under a name that begins with ".qvdb-" and ends in ".tmp".
#ifndef QVDBASE_QVDB_OUTPUT_FILE_HPP
#define QVDBASE_QVDB_OUTPUT_FILE_HPP

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

namespace qvdb {

struct OutputOptions {
  // Whether a file that is there already is replaced. The new one then gets its owner, group and
  // permissions, and a file with several hard links is refused.
  bool overwrite = false;
  bool create_folders = false;  // whether missing folders on the way are made
  // Whether place() waits until the device has the file before it gets its name, and then until the
  // device has the name.
  bool sync = true;
};

class QVDBASE_API OutputFile {
 public:
  // Begins the file at `target`; symbolic links are followed. It gets permissions, access list and
  // group of `source`, the database that it is made from, and its owner where the system allows
  // that, unless it replaces a file. Where the group cannot be kept, its rights go.
  //
  // Throws Error: path_not_reachable; file_exists; not_a_file; in_use when a file to be replaced is
  // locked, as an open database is; bad_argument when it has several hard links, or is `source`;
  // access_denied; disk_full; cannot_open; cannot_read; cannot_write.
  OutputFile(const std::filesystem::path& target, const std::filesystem::path& source,
             const OutputOptions& options = {});

  // Begins the entry `name` of a folder, by an open descriptor of it, which stays the caller's. The
  // file is its owner's alone until the caller gives it other permissions. A link that has the name
  // is no file to be written to, but one to be replaced. `path` is for messages. place() does not
  // wait for the name here: syncing the folder once, at the end, does that for all.
  OutputFile(int folder, const std::string& name, const std::filesystem::path& path,
             const OutputOptions& options = {});

  // Removes what was not placed.
  ~OutputFile();
  OutputFile(OutputFile&& other) noexcept;
  OutputFile& operator=(OutputFile&& other) noexcept;

  // Appends. Throws Error: disk_full, cannot_write.
  void write(std::span<const std::byte> bytes);

  // The file's descriptor, for giving it permissions and times; not to be closed.
  int descriptor() const noexcept;

  // Gives the finished file its name. Throws Error: file_exists and in_use when something else has
  // got the name meanwhile, disk_full, cannot_write.
  void place();

 private:
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace qvdb

#endif

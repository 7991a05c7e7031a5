// A folder of its own for every test: made under the system's temporary folder (TMPDIR, where that
// is set), removed with everything in it when the object goes.
//
//   TempFolder folder;
//   writeFile(folder / "a.qvd", bytes);
//   const int16_t db = OpenDBaseW(folder.wide("a.qvd"), 3);
//
// With QVDBASE_KEEP_FOLDERS set in the environment the folder of a test that failed is kept and its
// path printed.
#pragma once

#include <qvdbase/base.h>

#include <deque>
#include <filesystem>
#include <string>

#include "kit/wide.h"

namespace qvdbase::test {

class TempFolder {
 public:
  TempFolder();
  explicit TempFolder(const std::filesystem::path& under);
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  // Where files cost no more than memory, if the system has such a folder: for families of many
  // files.
  static std::filesystem::path inMemory();

  // The folder: an absolute path without symbolic links in it.
  const std::filesystem::path& path() const { return path_; }

  // A file or folder in it (which need not exist).
  std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }

  // The same as UTF-16 text.
  std::u16string u16(const std::filesystem::path& name) const { return (path_ / name).u16string(); }

  // The same as the library takes it. The pointer holds for the life of the folder.
  const QVWCHAR* wide(const std::filesystem::path& name);

 private:
  std::filesystem::path path_;
  std::deque<WideText> handedOut_;
};

}  // namespace qvdbase::test

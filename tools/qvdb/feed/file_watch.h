// Waiting until a file changes: the host reports it where it can, else it is looked at again and
// again.
#pragma once

#include <string>

namespace qvdb::tool {

class FileWatch {
 public:
  explicit FileWatch(std::string path);
  ~FileWatch();
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

  // Watches the file that has the name now. To be called before the file is looked at, so that no
  // change is missed.
  void begin();

  // Waits until the file may have changed, or been replaced; a moment only when `isBrief`. Not
  // every file system reports what other machines write, so it never waits long. Throws
  // Interrupted, and OutputClosed when standard output has no reader any more.
  void wait(bool isBrief);

 private:
  void forgetChanges();

  const std::string path_;
  int notifier_ = -1;
  int watched_ = -1;
};

}  // namespace qvdb::tool

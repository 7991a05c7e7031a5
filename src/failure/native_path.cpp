// From a path of the system to the 16-bit path that the file layer takes.
//
// The file layer cleans the names of folders: runs of blanks, tabs, double quotes and separators
// become one blank, blanks at both ends go. A folder whose name the cleaning changes cannot be
// reached; what would be reached is the folder of the cleaned name. So each name is given to the
// layer's own cleaning here, and must come back as it was. The name of the file itself is not
// cleaned, but a backslash in it separates.
#include "failure/native_path.h"

#include <qvdbase/QVWString.h>
#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <string>

#include "failure/failure.h"
#include "platform/paths/utf8_names.h"

using namespace qvdb;

namespace qvdbase::failure {
namespace {

using platform::kMaxPathCharacters;

class PathConverter {
 public:
  PathConverter(const std::filesystem::path& path, const char* operation)
      : given_(path), operation_(operation) {}

  std::vector<QVWCHAR> convert() {
    if (given_.empty()) refuse("it is empty");
    if (given_.native().find('\0') != std::string::npos) refuse("it holds a zero byte");
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(given_, error);
    if (error) refuse("the current folder is not known (" + error.message() + ")");
    if (!absolute.has_filename()) refuse("it names a folder, not a file");
    for (const auto& component : absolute.parent_path().relative_path()) {
      addFolder(component.native());
    }
    addFile(absolute.filename().native());
    if (result_.size() > kMaxPathCharacters) {
      refuse("as an absolute path it is longer than 2,047 characters");
    }
    result_.push_back(0);
    return std::move(result_);
  }

 private:
  void addFolder(const std::string& name) {
    std::vector<QVWCHAR> wide = characters(name);
    std::vector<QVWCHAR> cleaned = wide;
    QVWString().TrimPlus(cleaned.data());
    if (!std::equal(wide.begin(), std::find(wide.begin(), wide.end(), 0), cleaned.begin(),
                    std::find(cleaned.begin(), cleaned.end(), 0))) {
      refuse("the folder name '" + name +
             "' begins or ends with a blank or holds two blanks in a row, a tab, a double quote or "
             "a backslash; rename the folder, or go through a symbolic link with another name");
    }
    append(wide);
  }

  void addFile(const std::string& name) {
    const std::vector<QVWCHAR> wide = characters(name);
    if (std::find(wide.begin(), wide.end(), QVWCHAR{'\\'}) != wide.end()) {
      refuse("the file name holds a backslash");
    }
    append(wide);
  }

  void append(const std::vector<QVWCHAR>& name) {
    result_.push_back('/');
    result_.insert(result_.end(), name.begin(), name.end() - 1);
  }

  // Zero-terminated. No byte becomes more than one character.
  std::vector<QVWCHAR> characters(const std::string& name) const {
    std::vector<QVWCHAR> wide(name.size() + 1);
    if (!platform::utf16FromUtf8(name.data(), name.size(), wide.data(), wide.size())) {
      refuse("it is not valid UTF-8");
    }
    wide.resize(static_cast<size_t>(std::find(wide.begin(), wide.end(), 0) - wide.begin()) + 1);
    return wide;
  }

  [[noreturn]] void refuse(const std::string& why) const {
    throwError(given_, operation_, Reason::path_not_reachable,
               "the library cannot reach this path: " + why);
  }

  const std::filesystem::path& given_;
  const char* operation_;
  std::vector<QVWCHAR> result_;
};

}  // namespace

std::vector<QVWCHAR> nativePath(const std::filesystem::path& path, const char* operation) {
  return PathConverter(path, operation).convert();
}

}  // namespace qvdbase::failure

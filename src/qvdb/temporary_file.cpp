// Temporary names and the way from there to the file's own.
#include "qvdb/temporary_file.h"

#include <qvdbase/qvdb/id.hpp>

namespace qvdb::detail {

TemporaryFile::TemporaryFile(const std::filesystem::path& place)
    : place_(place.native()),
      path_((place.parent_path() / (".qvdb-" + to_string(new_id()).substr(2) + ".tmp")).native()) {}

TemporaryFile::~TemporaryFile() {
  if (!isPlaced_ && maker_.isOwn()) qvdbase::platform::removeFile(path_);
}

qvdbase::platform::Placing TemporaryFile::place(bool replaces) {
  const auto placing = qvdbase::platform::placeFile(path_, place_, replaces);
  isPlaced_ = placing == qvdbase::platform::Placing::done;
  return placing;
}

}  // namespace qvdb::detail

// The file in which the indexes of a database are kept: where it is, and opening it.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "objects/kept/kept_pages.h"
#include "objects/open_database.h"
#include "platform/handles/read_only_file.h"

namespace qvdb::detail {

// What a file at that place is.
enum class KeptPlace {
  empty,    // there is none, or one without a byte
  index,    // one that begins like such a file
  foreign,  // something else, which is not to be replaced
};

class KeptFile {
 public:
  // Beside the file that the path of the database leads to: of NAME.qvd it is NAME.qvdx, of any
  // other NAME it is NAME.qvdx too. Empty where that path cannot be followed.
  static std::string placeFor(const OpenDatabase& database);

  // Opens the file, without the turn of the database: opening a file takes that of the file.
  explicit KeptFile(std::string place);

  KeptPlace kind() const { return kind_; }
  const std::string& place() const { return place_; }

  // The file, for those who keep it open.
  std::shared_ptr<const void> held() const { return file_; }

  // Reads at any position; false for everything where there is no such file.
  KeptPages::ReadAt readAt() const;

  // Whether it belongs to the owner of the database, and no more users may write to it than to
  // that: who may write to it can make records seem absent.
  bool isTrustedBeside(const Operation& operation) const;

  // The index of that table, of that kind and name, or null.
  std::shared_ptr<KeptPages> open(const Operation& operation, qvdbase::format::kept::IndexKind kind,
                                  uint64_t table, std::string_view name) const;

 private:
  std::string place_;
  std::shared_ptr<qvdbase::platform::ReadOnlyFile> file_;
  KeptPlace kind_ = KeptPlace::empty;
};

}  // namespace qvdb::detail

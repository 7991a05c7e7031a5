// The target of an operation that makes a file: judged before the work, written under a temporary
// name beside its place, and put there in one step at the end.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/handles/file_access.h"
#include "platform/handles/held_file.h"
#include "platform/handles/new_file.h"
#include "platform/host/host_failure.h"

namespace qvdbase::products {

// The file that a path leads to: absolute, symbolic links followed as far as they exist.
std::filesystem::path resolved(const std::filesystem::path& path, const char* operation);

// What requireFolder() does with missing folders.
enum class Missing : uint8_t { fail, areCreated, areCreatedAndSynced };

// Makes sure that the folder of the file exists, and creates it and those in its path if asked to.
// Throws path_not_reachable when it does not exist, access_denied, cannot_write.
void requireFolder(const std::filesystem::path& file, const char* operation, Missing missing);

// Who may do what with the file, for a file that is made from it. Throws cannot_read, and why it
// cannot be opened.
qvdbase::platform::FileAccess accessOf(const std::filesystem::path& file, const char* operation);

// What becomes of a file that has the target's name already.
enum class Existing : uint8_t { isKept, isReplacedIfEmpty, isReplaced };

struct TargetRules {
  Existing existing = Existing::isKept;
  bool createFolders = false;
  bool mayBeReadOnly = false;  // a file that cannot be written is replaced, too
  qvdbase::platform::Waits waits = qvdbase::platform::Waits::forName;
  int16_t replacedFile =
      0;  // the number of the file that is replaced, where it is open exclusively
  qvdb::Remedy ifTaken = qvdb::Remedy::usual;  // when something has the name and is kept
};

class TargetFile {
 public:
  // Throws file_exists when the target is there and must not be replaced; not_a_file for a folder,
  // a device, or a link that leads nowhere; in_use when another process has it open for writing;
  // path_not_reachable; and bad_argument when it cannot be replaced for its hard links.
  TargetFile(const std::filesystem::path& target, const char* operation, const TargetRules& rules);

  // The entry `name` of an open folder. The file is begun at once, and only its owner may open it.
  // Whatever has the name is replaced, if the rules say so. Throws the same.
  TargetFile(int folder, const std::string& name, const std::filesystem::path& path,
             const char* operation, const TargetRules& rules);

  // As the caller named it.
  const std::filesystem::path& given() const { return given_; }

  // Whether a file is going to be replaced that this process also reads.
  bool isReadHere() const { return held_.isHeld() && held_.isReadHere(); }

  // Makes the file, empty. It gets the access of the file that it replaces, else that of its
  // source, if that is given, else what the process gives to new files. Throws.
  qvdbase::platform::NewFile& create(const qvdbase::platform::FileAccess* source);

  // For a routine that makes the file by its path: returns a path at which there is nothing, in a
  // folder that no other user can enter. Throws.
  const std::string& makePrivateFolder();
  // Takes over what the routine has made. Throws.
  void takeOver(const qvdbase::platform::FileAccess& source);

  // Valid once the file is made.
  qvdbase::platform::NewFile& file() { return *file_; }
  const qvdbase::platform::NewFile& file() const { return *file_; }

  // Puts the finished file in its place. Throws file_exists when the place was taken meanwhile,
  // in_use when what was to be replaced was replaced by others, disk_full, cannot_write.
  void place();

  // After a file could not be made: throws what the host answered, such as access_denied.
  [[noreturn]] void failMaking() const;

  // After a write that failed: throws what the host answered, such as disk_full, or cannot_write.
  [[noreturn]] void failWriting(
      const qvdbase::platform::WriteFailure& found = qvdbase::platform::findWriteFailure(0)) const;

 private:
  Missing missingFolders() const;
  void judge();
  void hold();
  void holdOpen();
  void refuseSeveralNames() const;
  void giveAccess(const qvdbase::platform::FileAccess* source);
  [[noreturn]] void fail(qvdb::Reason reason, const std::string& why,
                         qvdb::Remedy remedy = qvdb::Remedy::usual) const;

  std::filesystem::path given_;
  std::filesystem::path place_;
  const char* operation_;
  TargetRules rules_;
  bool isAnythingReplaced_ = false;
  qvdbase::platform::HeldFile held_;
  qvdbase::platform::FileAccess heldAccess_;
  std::unique_ptr<qvdbase::platform::PrivateFolder> private_;
  std::optional<qvdbase::platform::NewFile> file_;
};

}  // namespace qvdbase::products

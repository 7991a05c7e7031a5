// A file on its way to its place: it is made beside it under a temporary name, written at any
// position straight to the host, and then gets its own name in one step. So under that name there
// is never a part of it, whatever happens.
//
// One descriptor serves from the making to the end, and one of the folder: nothing is opened a
// second time by a name that others could meanwhile have given to a file of theirs. Until it is
// placed the file is locked, and only its owner can open it.
//
// A process that is killed leaves the temporary file: ".qvdb-", 16 digits, ".tmp".
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/handles/file_access.h"
#include "platform/handles/file_entries.h"
#include "platform/handles/held_file.h"
#include "platform/handles/read_only_file.h"
#include "platform/host/process_mark.h"
#include "platform/paths/directory.h"
#include "platform/paths/placing.h"
#include "platform/paths/private_folder.h"

namespace qvdbase::platform {

// What may have the name of the new file, and makes way.
struct Replaced {
  bool isAnything = false;         // whatever there is
  const HeldFile* file = nullptr;  // this file, which must be there still
};

// Who can open a new file before access is given to it.
enum class OpenTo : uint8_t {
  owner,
  allButMasked,  // whoever the process lets open its new files
};

// What placing waits for.
enum class Waits : uint8_t {
  no,
  forContents,  // the device has the file before it gets its name
  forName,      // and at the end it has the name, too
};

class NewFile {
 public:
  NewFile() = default;
  // Removes what was not placed, unless another process made it.
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  // Makes the file, empty, for this absolute path in the host's form. When it cannot be made,
  // the last failure of the host (host_failure.h) says why, here and below.
  bool create(const std::string& place, OpenTo openTo = OpenTo::owner);

  // The same in an open folder, of which the descriptor stays the caller's.
  bool createIn(int folder, const std::string& name);

  // Takes over the file `name` that was made in a private folder beside this place, with the
  // folder. False when there is no such file.
  bool takeOver(const std::string& place, std::unique_ptr<PrivateFolder> folder);

  // Gives it the access of another file: see giveAccess.
  bool setAccess(const FileAccess& access) { return giveAccess(descriptor(), access); }

  // True when all bytes were written.
  bool writeAt(int64_t position, const void* bytes, size_t count);

  // Makes its contents those of another file, without copying them. False where the host does not
  // do that, with nothing changed.
  bool shareContentsOf(const ReadOnlyFile& source);

  // Copies bytes of another file to the same position, within the host. Returns how many it has
  // copied, which may be none.
  size_t copyFrom(const ReadOnlyFile& source, int64_t position, size_t count);

  // Makes it so long: what was never written reads as zeros. False when the host refuses.
  bool setLength(int64_t length);

  // Puts the file in its place.
  Placing place(const Replaced& replaced, Waits waits);

  // Whether it has its name, also where the device may not have that.
  bool isPlaced() const { return isPlaced_; }

  // Takes its name away again, after nothing was replaced, if it still is this file's.
  void takeBack();

  // Makes the file one of the library's open files, opened exclusively, which closes it; it can
  // still be placed. False when no number is free.
  bool handOver(int16_t* file);

  // Its length, or 0 when the host does not report it.
  uint64_t size() const;

  // The folder of its place.
  const Directory& folder() const { return folder_; }

  // The kind of file system where its lock, before it is placed, keeps no other opener out, or
  // null.
  const char* fileSystemWithoutLocks() const;

  int descriptor() const { return descriptorOf(*entry_); }
  FileEntry* entry() const { return entry_; }

 private:
  bool createHere(OpenTo openTo);
  int temporaryFolder() const { return private_ ? private_->descriptor() : folder_.descriptor(); }
  Placing giveName(const Replaced& replaced);

  Directory folder_;
  std::unique_ptr<PrivateFolder> private_;  // where the file is until it is placed, if it has one
  std::unique_ptr<EntryName> name_;
  std::string temporary_;
  FileEntry* entry_ = nullptr;
  ProcessMark maker_;
  bool isHandedOver_ = false;
  bool isPlaced_ = false;
};

}  // namespace qvdbase::platform

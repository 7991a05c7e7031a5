// Making, writing and placing a new file.
#include "platform/handles/new_file.h"

#include "platform/handles/file_creation.h"
#include "platform/handles/lock_trial.h"
#include "platform/handles/open_files.h"
#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"
#include "platform/paths/host_path.h"
#include "platform/paths/placing.h"
#include "platform/paths/temporary_name.h"
#include "platform/transfer/plain_transfer.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::platform {
namespace {

constexpr mode_t kOwnersMode = 0600;
constexpr mode_t kUsualMode = 0666;  // less what the process masks out

}  // namespace

// The name goes first: while the lock is held no other opener can have begun to use the file. Where
// the host does not report whose name it is, it is taken for ours: it was made where nothing had
// it.
NewFile::~NewFile() {
  if (entry_ == nullptr) return;
  if (!isPlaced_ && maker_.isOwn() &&
      lookAtLink(temporaryFolder(), temporary_.c_str(), *entry_) != NameOf::anotherOrNone) {
    systemCalls().removeAt(temporaryFolder(), temporary_.c_str(), 0);
  }
  if (!isHandedOver_) leaveEntry(entry_, Sharing::exclusive);
}

bool NewFile::create(const std::string& place, OpenTo openTo) {
  name_ = walkToParent(place, &folder_);
  if (!name_) noteHostFailure();
  return name_ && createHere(openTo);
}

bool NewFile::createIn(int folder, const std::string& name) {
  name_ = std::make_unique<EntryName>(std::string_view(name));
  if (!name_->isValid()) return false;
  if (folder_.enterOpen(folder)) return createHere(OpenTo::owner);
  noteHostFailure();
  return false;
}

bool NewFile::createHere(OpenTo openTo) {
  const mode_t mode = openTo == OpenTo::owner ? kOwnersMode : kUsualMode;
  int descriptor = -1;
  const bool isMade = makeUnderTemporaryName(&temporary_, [&](const char* name) {
    descriptor = createOpenFile(folder_, EntryName(std::string_view(name)), mode);
    return descriptor >= 0;
  });
  if (isMade) entry_ = enterNewFile(descriptor);
  if (entry_ == nullptr) noteHostFailure();
  if (isMade && entry_ == nullptr) {
    systemCalls().removeAt(folder_.descriptor(), temporary_.c_str(), 0);
  }
  return entry_ != nullptr;
}

bool NewFile::takeOver(const std::string& place, std::unique_ptr<PrivateFolder> folder) {
  private_ = std::move(folder);
  temporary_ = PrivateFolder::kFileName;
  name_ = std::make_unique<EntryName>(std::string_view(place).substr(place.rfind('/') + 1));
  if (!name_->isValid() || !folder_.enterOpen(private_->parentDescriptor())) return false;
  entry_ = private_->joinFile();
  return entry_ != nullptr;
}

bool NewFile::writeAt(int64_t position, const void* bytes, size_t count) {
  if (bytesBelow(systemCalls().fileSizeLimit(), position, count) < count) {
    noteHostFailure(EFBIG);
    return false;
  }
  return writePlain(descriptor(), position, bytes, count) == count;
}

bool NewFile::shareContentsOf(const ReadOnlyFile& source) {
  return uninterrupted(
             [&] { return systemCalls().cloneFile(descriptor(), source.descriptor()); }) == 0;
}

// Within the limit of this process's files, where a write beyond would raise a signal.
size_t NewFile::copyFrom(const ReadOnlyFile& source, int64_t position, size_t count) {
  if (bytesBelow(systemCalls().fileSizeLimit(), position, count) < count) return 0;
  size_t done = 0;
  while (done < count) {
    const ssize_t copied = uninterrupted([&] {
      return systemCalls().copyRange(descriptor(), source.descriptor(),
                                     position + static_cast<off_t>(done), count - done);
    });
    if (copied <= 0) break;
    done += static_cast<size_t>(copied);
  }
  return done;
}

bool NewFile::setLength(int64_t length) {
  const auto size = static_cast<uint64_t>(length);
  if (length < 0 || size > systemCalls().fileSizeLimit()) {
    noteHostFailure(EFBIG);
    return false;
  }
  const bool isSet =
      uninterrupted([&] { return systemCalls().truncate(descriptor(), length); }) == 0;
  if (!isSet) noteHostFailure();
  return isSet;
}

uint64_t NewFile::size() const {
  const int64_t length = systemCalls().lengthOf(descriptor());
  return length > 0 ? static_cast<uint64_t>(length) : 0;
}

Placing NewFile::place(const Replaced& replaced, Waits waits) {
  if (isHandedOver_ && !flushTransfers()) return Placing::notStored;
  if (waits != Waits::no && !syncDescriptor(descriptor())) {
    noteHostFailure();
    return Placing::notStored;
  }
  const Placing placing = giveName(replaced);
  if (placing != Placing::done) return placing;
  isPlaced_ = true;
  private_.reset();
  if (waits != Waits::forName || syncFolder(folder_)) return Placing::done;
  return Placing::notNamed;
}

void NewFile::takeBack() {
  if (!isPlaced_) return;
  if (lookAtLink(folder_.descriptor(), name_->bytes(), *entry_) != NameOf::thisFile) return;
  systemCalls().removeAt(folder_.descriptor(), name_->bytes(), 0);
}

Placing NewFile::giveName(const Replaced& replaced) {
  const NamedIn from = {temporaryFolder(), temporary_.c_str()};
  // Whoever may write to the folder can give the name to another file; a look just before the step
  // cannot exclude that, but leaves hardly a moment for it.
  if (lookAtLink(from.folder, from.name, *entry_) != NameOf::thisFile) return Placing::failed;
  const NamedIn to = {folder_.descriptor(), name_->bytes()};
  if (!replaced.isAnything && replaced.file == nullptr) return renameWhereNothingIs(from, to);
  if (replaced.file != nullptr && !replaced.file->isNamed(folder_, *name_)) return Placing::changed;
  return renameOver(from, to);
}

const char* NewFile::fileSystemWithoutLocks() const {
  return platform::fileSystemWithoutLocks(*entry_, folder_,
                                          EntryName(std::string_view(temporary_)));
}

bool NewFile::handOver(int16_t* file) {
  isHandedOver_ = openEntry(entry_, Sharing::exclusive, file);
  return isHandedOver_;
}

}  // namespace qvdbase::platform

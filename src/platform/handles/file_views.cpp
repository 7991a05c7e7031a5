// Views of open files.
#include "platform/handles/file_views.h"

#include <atomic>
#include <new>

#include "platform/handles/open_files.h"
#include "platform/host/memory.h"

namespace qvdbase::platform {
namespace {

// The highest bit of an entry's `looks` says that a change is made or waits, the others count
// looks.
constexpr uint32_t kChange = uint32_t{1} << 31;

std::atomic_ref<uint32_t> looksAt(FileEntry& entry) {
  return std::atomic_ref(entry.viewLooks);
}

FileEntry* entryOf(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  return openFile != nullptr ? openFile->entry : nullptr;
}

FileEntry* newView(FileEntry* source) {
  void* memory = allocate(sizeof(FileEntry));
  if (memory == nullptr) return nullptr;
  auto* view = new (memory) FileEntry{};
  view->device = source->device;
  view->inode = source->inode;
  view->readWrite = -1;
  view->readOnly = descriptorOf(*source);
  view->openers = 1;
  view->source = source;
  view->turn = &reserveTurn();
  addReader(source);
  ++source->views;
  return view;
}

}  // namespace

bool openView(int16_t file, int16_t* view) {
  const Turn turn(file);
  FileEntry* source = entryOf(file);
  if (source == nullptr) return false;
  FileEntry* entry = newView(source->source != nullptr ? source->source : source);
  if (entry == nullptr) return false;
  if (openEntry(entry, Sharing::none, view)) return true;
  leaveEntry(entry, Sharing::none);
  return false;
}

void beginChange(FileEntry* entry) {
  noteHeld(Held::change);
  if (entry == nullptr || entry->views == 0) return;
  const std::atomic_ref looks = looksAt(*entry);
  uint32_t found = looks.fetch_or(kChange) | kChange;
  while (found != kChange) {
    looks.wait(found);
    found = looks.load();
  }
}

void endChange(FileEntry* entry) {
  noteGivenUp(Held::change);
  if (entry == nullptr || entry->views == 0) return;
  looksAt(*entry).fetch_and(~kChange);
  looksAt(*entry).notify_all();
}

void beginChange(int16_t file) {
  beginChange(entryOf(file));
}

void endChange(int16_t file) {
  endChange(entryOf(file));
}

void beginViewLook(int16_t view) {
  noteHeld(Held::change);
  const std::atomic_ref looks = looksAt(*entryOf(view)->source);
  uint32_t found = looks.load();
  for (;;) {
    if ((found & kChange) != 0) {
      looks.wait(found);
      found = looks.load();
    } else if (looks.compare_exchange_weak(found, found + 1)) {
      return;
    }
  }
}

void endViewLook(int16_t view) {
  noteGivenUp(Held::change);
  const std::atomic_ref looks = looksAt(*entryOf(view)->source);
  if (looks.fetch_sub(1) == (kChange | 1)) looks.notify_all();
}

}  // namespace qvdbase::platform

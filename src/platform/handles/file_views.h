// Views: numbers through which threads read a file of this process beside its other calls.
//
// A view has an entry and a turn of its own, so that its calls wait for none of the file's. It
// reads through the descriptor of the file's entry, which it keeps open, and takes no part in its
// lock.
//
// Bytes that are read beside a write can be new and old ones mixed. So changes of the file and
// looks through its views exclude each other: any number of looks, or one change, for which new
// looks wait. Whoever changes the file has its turn. Within a look no turn is waited for, and no
// other process: the change waits for the looks with the turn of the file.
#pragma once

#include <cstdint>

namespace qvdbase::platform {

struct FileEntry;

// Makes a view of an open file, at position 0; closeFile() ends it. False when no number is free,
// memory is short, or the number is not that of an open file.
bool openView(int16_t file, int16_t* view);

// Excludes looks, after those that have begun have come to their end. Not one inside the other.
void beginChange(int16_t file);
void endChange(int16_t file);
void beginChange(FileEntry* entry);
void endChange(FileEntry* entry);

// Excludes changes. The number is that of a view.
void beginViewLook(int16_t view);
void endViewLook(int16_t view);

}  // namespace qvdbase::platform

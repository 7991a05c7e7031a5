// What an update of a table from a tree of files has to change.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "archive/file_tree.h"
#include "archive/imported_files.h"
#include "selection/excluded.h"

namespace qvdb::tool {

// Takes out of the tree what the table has already, and notes the files of which only mode, times
// or fields are to be stored. Returns how many files are unchanged.
//
// A file is unchanged when its size and its time of last modification are those that are stored.
// A time says nothing about changes within the same moment as the one that was stored; so the
// contents are compared where the record was written less than three seconds after that time, or
// before it, as after a change of the clock.
//
// Throws Failure when a file that must be compared cannot be read; Interrupted.
uint64_t leaveOutUnchanged(const Table& table, const ImportedFiles& names, FileTree* tree);

// The entries of the list that are in the way of the tree: what has become a file, a folder or a
// link instead of another of these, with everything that was in it.
std::vector<size_t> entriesInTheWay(const ImportedFiles& names, const FileTree& tree);

// Throws Failure when the table has files below a root that is no folder any more, or is empty
// where `mirror` is set: it may be a folder where nothing is mounted, or a link to one. An update
// would delete all of them.
void refuseLostRoots(const ImportedFiles& names, const FileTree& tree, bool mirror);

// Throws Failure when a root means the contents of a folder, while all that the table has is below
// the name of that folder: it was imported without the '/' at its end, and a mirror would have all
// files twice and delete the first ones.
void refuseOtherTop(const ImportedFiles& names, const FileTree& tree);

// The entries of the list below the roots of the tree that are not in it, and not excluded either.
std::vector<size_t> entriesThatAreGone(const ImportedFiles& names, const FileTree& tree,
                                       const Excluded& excluded);

// Deletes the records of these entries, and then the entries. Where an interruption or a failure
// ends this early, all entries stay: names without records do no harm.
void removeEntries(Table& table, ImportedFiles& names, const std::vector<size_t>& entries);

}  // namespace qvdb::tool

// What a database is like, for the stamp of an index that is kept beside it.
#pragma once

#include <optional>

#include "format/index_pages.h"
#include "format/layout.h"
#include "objects/open_database.h"

namespace qvdb::detail {

// How a database is related to what a kept index was made of.
enum class Kinship {
  none,     // another file, or another state of this one: nothing in it is to be used
  changed,  // this file, later: records were added, changed or removed perhaps
  same,     // nothing was written to it since
};

// The stamp of the database now, within a look. Nothing where it cannot be taken: the host does not
// report it, or the directory is larger than those that the library makes. Throws as
// Operation::directory() does.
std::optional<qvdbase::format::kept::Stamp> stampNow(const Operation& operation);

// The part of the stamp that has the table's chain.
qvdbase::format::kept::Chain chainOf(const Operation& operation, const tablePart1& slot);

// Compares, within a look. `slot` is that of the table now.
Kinship kinshipOf(const Operation& operation, const qvdbase::format::kept::Head& head,
                  const qvdbase::format::kept::Stamp& now, const tablePart1& slot);

}  // namespace qvdb::detail

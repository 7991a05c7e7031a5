// Which identifiers 'qvdb renumber' would replace in categories.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <unordered_set>

#include "categories/category.h"

namespace qvdb::tool {

// What becomes of a record that a category lists.
enum class Reference {
  isRenewed,      // it gets the new identifier
  isMissing,      // QVrz_Record has no such record
  isNotReplaced,  // it is there, and renumber does not find its new identifier
  isKept,         // nothing is replaced, because QVrz_Record has no records
};

// The library remembers the new identifier of each record of QVrz_Record, in the order of the
// table, and counts with each step from one record to the next, in this table and in those after
// it. Only as many pairs as it counts are found: without a table of two records or more after
// QVrz_Record the pair of its last record is not. The records of a later table are remembered in
// the places of the first ones, unless they keep their identifiers.
class Renewal {
 public:
  // Walks over the tables. Throws Error where one is damaged.
  explicit Renewal(const Database& database);

  Reference reference(Id record) const;

 private:
  bool replaces_ = false;
  std::unordered_set<Id> records_;   // of QVrz_Record
  std::unordered_set<Id> replaced_;  // identifiers for which a new one is found
};

// Whether renumbering fails because of this category.
bool isRenewable(const Category& category, const Renewal& renewal);

}  // namespace qvdb::tool

// The categories of a database: the records of its table QVrz_Category.
#pragma once

#include <qvdbase/qvrzdb_sub.h>
#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qvdb::tool {

struct Category {
  Id record;
  bool isDecoded = false;  // false: the payload is shorter than its counts say
  bool isEmpty = false;    // the payload is too short to hold a category, and stays as it is
  Id id;
  std::string name;  // in UTF-8; unpaired surrogates are replaced
  uint32_t param = 0;
  Id related;
  std::vector<Id> first;
  std::vector<Id> second;  // records of QVrz_Record
  uint32_t extraLength = 0;
};

// Calls the function with every category, in the order of the records. Throws Error where the chain
// is damaged.
void forEachCategory(const Database& database, const Table& categories,
                     const std::function<void(const Category&)>& take);

}  // namespace qvdb::tool

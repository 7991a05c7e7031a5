// Which identifiers 'qvdb renumber' would replace in categories.
#include "categories/renewal.h"

#include <algorithm>

#include "format/category.h"
#include "streams/interrupt.h"

using namespace qvdbase::format;

namespace qvdb::tool {

Renewal::Renewal(const Database& database) {
  std::vector<Id> pairs;  // the old identifiers
  size_t counted = 0;
  for (const Table& table : database.tables()) {
    if (table.count() == 0) continue;
    const bool isRemembered = table.name() == kRecordTable;
    const bool keepsIdentifiers = table.name() == kInfoTable || table.name() == kCategoryTable;
    if (isRemembered) {
      replaces_ = true;
      pairs.clear();
      counted = 0;
    }
    size_t place = 0;
    RecordRange records = table.records();
    for (const Record& record : records) {
      throwIfInterrupted();
      if (place != 0) ++counted;  // the step that led here
      if (isRemembered) records_.insert(record.id());
      if (replaces_ && !keepsIdentifiers) {
        if (place == pairs.size()) pairs.emplace_back();
        pairs[place] = record.id();
      }
      ++place;
    }
  }
  pairs.resize(std::min(counted, pairs.size()));
  replaced_.insert(pairs.begin(), pairs.end());
}

Reference Renewal::reference(Id record) const {
  if (!replaces_) return Reference::isKept;
  if (replaced_.contains(record)) return Reference::isRenewed;
  return records_.contains(record) ? Reference::isNotReplaced : Reference::isMissing;
}

bool isRenewable(const Category& category, const Renewal& renewal) {
  if (category.isEmpty) return true;
  const auto isFound = [&](Id id) {
    const Reference reference = renewal.reference(id);
    return reference == Reference::isRenewed || reference == Reference::isKept;
  };
  return category.isDecoded && std::all_of(category.second.begin(), category.second.end(), isFound);
}

}  // namespace qvdb::tool

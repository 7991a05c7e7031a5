// Table::get_many: the payloads of many records, in the order in which they lie in the file.
//
// The records are taken in groups. Within a look, one read brings those that lie close together,
// and each is verified like one that is looked up alone; what was read is copied, so that the
// caller's function runs without any lock.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/table.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "format/layout.h"
#include "objects/indexes/table_index.h"
#include "objects/open_database.h"
#include "objects/record_search.h"
#include "objects/records.h"
#include "objects/sharing/looks.h"
#include "support/file_transfers.h"

using namespace qvdbase;

namespace qvdb {

namespace {

using detail::Operation;

// A read that passes over so many bytes costs no more than another one.
constexpr int64_t kWidestGap = 4096;
constexpr int64_t kLargestRead = 64 * 1024;
// What is copied before the caller's function gets it, about.
constexpr size_t kGroupRecords = 1024;
constexpr size_t kGroupBytes = 256 * 1024;

struct Wanted {
  size_t number = 0;     // of the identifier
  int64_t position = 0;  // where its record is, as far as the index knows; else 0
};

struct Loaded {
  size_t number = 0;
  bool isThere = false;
  size_t from = 0;  // of its payload in the bytes of the group
  size_t size = 0;
};

struct Group {
  std::vector<Loaded> records;
  std::vector<std::byte> bytes;

  bool isFull() const { return records.size() >= kGroupRecords || bytes.size() >= kGroupBytes; }
};

std::vector<Wanted> inFileOrder(const Operation& operation, Id table, std::span<const Id> ids) {
  std::vector<Wanted> wanted(ids.size());
  const auto index = detail::indexOf(operation.database(), table);
  for (size_t i = 0; i < ids.size(); ++i) {
    wanted[i].number = i;
    if (index != nullptr) wanted[i].position = index->map.find(ids[i].value).value_or(0);
  }
  std::stable_sort(wanted.begin(), wanted.end(),
                   [](const Wanted& a, const Wanted& b) { return a.position < b.position; });
  return wanted;
}

// Reads the records that lie close to the first of these, together with it. Returns how many these
// are.
size_t readTogether(int16_t db, std::span<const Wanted> wanted) {
  const int64_t first = wanted.front().position;
  size_t count = 1;
  if (first <= 0) return count;
  while (count < wanted.size() &&
         wanted[count].position - wanted[count - 1].position <= kWidestGap &&
         wanted[count].position - first <= kLargestRead) {
    ++count;
  }
  if (count == 1) return count;  // the lookup reads around it
  const int64_t from = std::max<int64_t>(0, first - kWidestGap);
  const int64_t length = wanted[count - 1].position - from + kWidestGap + format::record::kData;
  support::readAhead(db, from, static_cast<uint32_t>(length));
  return count;
}

void load(const Operation& operation, Id table, Id record, size_t number, Group* group) {
  Loaded loaded{.number = number, .isThere = false, .from = group->bytes.size(), .size = 0};
  engine::FoundRecord found;
  if (detail::locate(operation, table, record, &found) != detail::Located::no) {
    loaded.isThere = true;
    loaded.size = found.header.dataLength;
    detail::appendPayload(operation, table, detail::recordInfo(found.header, found.recordPos),
                          found.header.dataLength, &group->bytes);
  }
  group->records.push_back(loaded);
}

// Reads as many of them as make a group.
Group readGroup(const Operation& operation, Id table, std::span<const Id> ids,
                std::span<const Wanted> wanted) {
  return detail::look(operation, [&] {
    Group group;
    size_t together = 0;
    for (size_t i = 0; i < wanted.size() && !group.isFull(); ++i) {
      if (together == 0) together = readTogether(operation.db(), wanted.subspan(i));
      --together;
      load(operation, table, ids[wanted[i].number], wanted[i].number, &group);
    }
    return group;
  });
}

}  // namespace

void Table::get_many(
    std::span<const Id> ids,
    const std::function<void(size_t, std::optional<std::span<const std::byte>>)>& function) const {
  std::vector<Wanted> order;
  size_t done = 0;
  do {
    Group group;
    {
      const Operation operation(database_, detail::kRead);
      if (order.empty()) order = inFileOrder(operation, id_, ids);
      if (!ids.empty()) group = readGroup(operation, id_, ids, std::span(order).subspan(done));
    }
    done += group.records.size();
    for (const Loaded& loaded : group.records) {
      std::optional<std::span<const std::byte>> payload;
      if (loaded.isThere) payload = std::span(group.bytes).subspan(loaded.from, loaded.size);
      function(loaded.number, payload);
    }
  } while (done < ids.size());
}

}  // namespace qvdb

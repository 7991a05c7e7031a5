// SHA-256 of the content of databases, which does not depend on where things are in the file.
// docs/text.md says what exactly is hashed.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <functional>
#include <optional>

#include "streams/sha256.h"

namespace qvdb::tool {

// A record as digests see it.
struct RecordDigest {
  Id id;
  uint32_t created = 0;
  uint32_t modified = 0;
  uint32_t size = 0;
  Sha256Digest payload{};

  friend bool operator==(const RecordDigest&, const RecordDigest&) = default;
};

// The digest of a payload, in constant memory. `with` is used for it.
RecordDigest digestOf(const Record& record, Sha256& with);

// Of a table's data; nothing when it has none.
std::optional<Sha256Digest> dataDigestOf(const Database& database, const Table& table);

// What is called with each table, before its records, and with each record.
struct DigestListener {
  std::function<void(const TableInfo&, const std::optional<Sha256Digest>& data)> table;
  std::function<void(const RecordDigest&)> record;
  std::function<void(const Sha256Digest&)> endOfTable;
};

// The digest of a whole database. Throws ChangedMeanwhile when it was written to meanwhile;
// Failure, Error, Interrupted.
Sha256Digest digestOf(const Database& database, const DigestListener& listener);

}  // namespace qvdb::tool

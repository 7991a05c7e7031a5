// Digests of records, tables and databases.
#include "content/digests.h"

#include <string_view>
#include <vector>

#include "commands/locate.h"
#include "content/steady_file.h"
#include "format/big_endian.h"
#include "streams/failure.h"
#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

constexpr size_t kPiece = size_t{1} << 20;

template <typename Unsigned>
void addNumber(Unsigned value, Sha256& to) {
  unsigned char bytes[sizeof(Unsigned)];
  qvdbase::format::storeBigEndian(bytes, value);
  to.add(std::as_bytes(std::span(bytes)));
}

void addText(std::string_view text, Sha256& to) {
  addNumber(static_cast<uint64_t>(text.size()), to);
  to.add(std::as_bytes(std::span(text)));
}

void addRecord(const RecordDigest& record, Sha256& to) {
  addNumber(record.id.value, to);
  addNumber(record.created, to);
  addNumber(record.modified, to);
  addNumber(record.size, to);
  to.add(record.payload);
}

void addHead(const TableInfo& info, const std::optional<Sha256Digest>& data, Sha256& to) {
  addText(info.name, to);
  addNumber(info.id.value, to);
  addNumber(info.version, to);
  addNumber(info.flags_1, to);
  addNumber(info.flags_2, to);
  addNumber(static_cast<uint8_t>(data ? 1 : 0), to);
  if (data) to.add(*data);
}

Sha256Digest digestOfTable(const Database& database, const Table& table,
                           const DigestListener& listener, Sha256& records) {
  Sha256 all;
  const TableInfo info = table.info();
  const auto data = dataDigestOf(database, table);
  addHead(info, data, all);
  if (listener.table) listener.table(info, data);
  for (const Record& record : table.records({.load = Load::payloads})) {
    throwIfInterrupted();
    const RecordDigest digest = digestOf(record, records);
    if (listener.record) listener.record(digest);
    addRecord(digest, all);
  }
  const Sha256Digest digest = all.finish();
  if (listener.endOfTable) listener.endOfTable(digest);
  return digest;
}

}  // namespace

RecordDigest digestOf(const Record& record, Sha256& with) {
  const RecordInfo& info = record.info();
  RecordDigest digest{info.id, info.create_time, info.modify_time, info.size, {}};
  if (record.is_loaded()) {
    with.add(record.loaded());
  } else {
    if (info.size > kPiece) record.require_sound();
    std::vector<std::byte> buffer(kPiece);
    uint64_t offset = 0;
    while (offset < info.size) {
      throwIfInterrupted();
      const size_t got = record.read(offset, buffer);
      if (got == 0) throw Failure("a payload became shorter while it was read; try again");
      with.add(std::span(buffer).first(got));
      offset += got;
    }
  }
  digest.payload = with.finish();
  return digest;
}

std::optional<Sha256Digest> dataDigestOf(const Database& database, const Table& table) {
  if (!requireDataSize(database, table)) return std::nullopt;
  Sha256 digest;
  std::vector<std::byte> buffer(kPiece);
  for (uint64_t offset = 0;;) {
    const size_t got = table.read_data(offset, buffer);
    if (got == 0) return digest.finish();
    digest.add(std::span(buffer).first(got));
    offset += got;
  }
}

Sha256Digest digestOf(const Database& database, const DigestListener& listener) {
  const SteadyFile steady(database);
  const DatabaseInfo info = database.info();
  Sha256 all;
  Sha256 records;
  addText({info.signature.data(), info.signature.size()}, all);
  addNumber(info.version, all);
  addNumber(info.id.value, all);
  for (const Table& table : database.tables()) {
    all.add(digestOfTable(database, table, listener, records));
  }
  steady.require();
  return all.finish();
}

}  // namespace qvdb::tool

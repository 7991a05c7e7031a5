// Writes rows into a Parquet file.
#include "formats/parquet_file.h"

#include "formats/thrift.h"
#include "streams/failure.h"

#ifdef QVDB_HAS_ZSTD
#include <zstd.h>
#endif

namespace qvdb::tool {
namespace {

constexpr std::string_view kMagic = "PAR1";

// The format's own numbers.
enum Type : int32_t { kInt64 = 2, kByteArray = 6 };
enum Meaning : int32_t { kNone = -1, kUtf8 = 0, kTimestampMillis = 9 };
constexpr int32_t kRequired = 0;
constexpr int32_t kDataPage = 0;
constexpr int32_t kPlain = 0;
constexpr int32_t kRle = 3;  // of levels, which columns without NULLs do not have
#ifdef QVDB_HAS_ZSTD
constexpr int32_t kCodec = 6;
#else
constexpr int32_t kCodec = 0;  // none
#endif

struct Description {
  const char* name;
  Type type;
  Meaning meaning;
};
constexpr Description kDescriptions[kParquetColumns] = {
    {"place", kInt64, kNone},
    {"table_name", kByteArray, kUtf8},
    {"id", kByteArray, kUtf8},
    {"created", kInt64, kTimestampMillis},
    {"modified", kInt64, kTimestampMillis},
    {"payload", kByteArray, kNone},
};

constexpr size_t kPageBytes = size_t{1} << 20;
constexpr int64_t kGroupBytes = int64_t{64} << 20;
constexpr int64_t kGroupRows = 1'000'000;
constexpr size_t kMostBytes = size_t{1} << 30;  // of a value: sizes of pages have 31 bits

void appendLittleEndian(std::string* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) *out += static_cast<char>(value >> 8 * i);
}

std::string compressed(const std::string& page) {
#ifdef QVDB_HAS_ZSTD
  std::string out(ZSTD_compressBound(page.size()), 0);
  const size_t size = ZSTD_compress(out.data(), out.size(), page.data(), page.size(), 3);
  if (ZSTD_isError(size) != 0) {
    throw Failure(std::string("cannot compress a page: ") + ZSTD_getErrorName(size));
  }
  out.resize(size);
  return out;
#else
  return page;
#endif
}

std::string pageHeader(size_t uncompressedSize, size_t compressedSize, int32_t values) {
  ThriftWriter header;
  header.number(1, kDataPage);
  header.number(2, static_cast<int32_t>(uncompressedSize));
  header.number(3, static_cast<int32_t>(compressedSize));
  header.beginStructure(5);  // of data pages
  header.number(1, values);
  header.number(2, kPlain);
  header.number(3, kRle);
  header.number(4, kRle);
  header.end();
  return header.finish();
}

void describe(ThriftWriter* footer) {
  footer->beginList(2, kParquetColumns + 1);
  footer->beginElement();
  footer->text(4, "records");
  footer->number(5, static_cast<int32_t>(kParquetColumns));
  footer->end();
  for (const Description& column : kDescriptions) {
    footer->beginElement();
    footer->number(1, column.type);
    footer->number(3, kRequired);
    footer->text(4, column.name);
    if (column.meaning != kNone) footer->number(6, column.meaning);
    footer->end();
  }
}

}  // namespace

ParquetFile::ParquetFile(OutputFile& file) : file_(file) {
  write(kMagic);
}

void ParquetFile::add(const FlatRow& row) {
  if (row.payload.size() > kMostBytes) {
    throw Failure("record " + row.id + " of table '" + row.table +
                  "' has more bytes than a page of a Parquet file takes (1 GiB); 'qvdb export' "
                  "writes it as a file of its own");
  }
  addNumber(0, row.place);
  addBytes(1, row.table);
  addBytes(2, row.id);
  addNumber(3, row.created * 1000);
  addNumber(4, row.modified * 1000);
  addBytes(5, {reinterpret_cast<const char*>(row.payload.data()), row.payload.size()});
  ++rows_;
  ++rowsOfGroup_;
  int64_t bytes = 0;
  for (Column& column : columns_) {
    if (column.values.size() >= kPageBytes) endPage(column);
    bytes += column.uncompressed;
  }
  if (bytes >= kGroupBytes || rowsOfGroup_ >= kGroupRows) endGroup();
}

void ParquetFile::addNumber(size_t column, int64_t value) {
  appendLittleEndian(&columns_[column].values, static_cast<uint64_t>(value), 8);
  ++columns_[column].count;
}

void ParquetFile::addBytes(size_t column, std::string_view bytes) {
  Column& to = columns_[column];
  if (to.values.size() + bytes.size() > kMostBytes) endPage(to);
  appendLittleEndian(&to.values, bytes.size(), 4);
  to.values += bytes;
  ++to.count;
}

void ParquetFile::endPage(Column& column) {
  if (column.count == 0) return;
  const std::string page = compressed(column.values);
  const std::string header = pageHeader(column.values.size(), page.size(), column.count);
  column.pages += header;
  column.pages += page;
  column.uncompressed += static_cast<int64_t>(header.size() + column.values.size());
  column.total += column.count;
  column.values.clear();
  column.count = 0;
}

void ParquetFile::endGroup() {
  if (rowsOfGroup_ == 0) return;
  Group group;
  group.rows = rowsOfGroup_;
  for (size_t i = 0; i < columns_.size(); ++i) {
    Column& column = columns_[i];
    endPage(column);
    group.chunks[i] = {position_, static_cast<int64_t>(column.pages.size()), column.uncompressed};
    group.bytes += column.uncompressed;
    write(column.pages);
    column = {};
  }
  groups_.push_back(group);
  rowsOfGroup_ = 0;
}

void ParquetFile::finish() {
  endGroup();
  std::string end = footer();
  appendLittleEndian(&end, end.size(), 4);
  end += kMagic;
  write(end);
}

std::string ParquetFile::footer() const {
  ThriftWriter footer;
  footer.number(1, 1);  // the version of the format
  describe(&footer);
  footer.wideNumber(3, rows_);
  footer.beginList(4, groups_.size());
  for (const Group& group : groups_) {
    footer.beginElement();
    footer.beginList(1, kParquetColumns);
    for (size_t i = 0; i < kParquetColumns; ++i) {
      const Chunk& chunk = group.chunks[i];
      footer.beginElement();
      footer.wideNumber(2, chunk.position);
      footer.beginStructure(3);
      footer.number(1, kDescriptions[i].type);
      footer.numbers(2, {kPlain, kRle});
      footer.texts(3, {kDescriptions[i].name});
      footer.number(4, kCodec);
      footer.wideNumber(5, group.rows);
      footer.wideNumber(6, chunk.uncompressed);
      footer.wideNumber(7, chunk.size);
      footer.wideNumber(9, chunk.position);
      footer.end();
      footer.end();
    }
    footer.wideNumber(2, group.bytes);
    footer.wideNumber(3, group.rows);
    footer.end();
  }
  footer.text(6, "qvdb");
  return footer.finish();
}

void ParquetFile::write(std::string_view bytes) {
  file_.write(std::as_bytes(std::span(bytes)));
  position_ += static_cast<int64_t>(bytes.size());
}

}  // namespace qvdb::tool

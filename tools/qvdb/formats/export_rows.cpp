// Records written into files of other programs.
#include "formats/export_rows.h"

#include <functional>

#include "formats/parquet_file.h"
#include "formats/sqlite_file.h"
#include "streams/output.h"
#include "streams/text.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

constexpr size_t kGathered = size_t{1} << 18;

using Write = std::function<void(std::string_view)>;

// A backslash before what would end a field or a line. Text that is not UTF-8, which PostgreSQL
// refuses, is escaped as it is for a terminal.
std::string copyField(const std::string& text) {
  std::string field;
  for (const char c : isUtf8(text) ? text : escaped(text)) {
    if (c == '\\' || c == '\t' || c == '\n' || c == '\r') field += '\\';
    field += c == '\t' ? 't' : c == '\n' ? 'n' : c == '\r' ? 'r' : c;
  }
  return field;
}

// A line of COPY's text format.
std::string copyLine(const FlatRow& row) {
  std::string line = std::to_string(row.place);
  line += '\t' + copyField(row.table);
  line += '\t' + row.id;
  line += '\t' + std::to_string(row.created);
  line += '\t' + std::to_string(row.modified);
  line += "\t\\\\x";
  line += hexDigits({reinterpret_cast<const char*>(row.payload.data()), row.payload.size()});
  return line + '\n';
}

uint64_t writeCopy(const FlatSource& source, const Write& write) {
  std::string gathered;
  const uint64_t count = forEachRow(source, [&](const FlatRow& row) {
    gathered += copyLine(row);
    if (gathered.size() < kGathered) return;
    write(gathered);
    gathered.clear();
  });
  write(gathered);
  return count;
}

OutputFile beginFile(const FlatSource& source, const std::string& target,
                     const OutputOptions& options) {
  return whileInUse([&] { return OutputFile(target, source.file, options); });
}

uint64_t toSqlite(const FlatSource& source, const std::string& target,
                  const OutputOptions& options) {
  OutputFile output = beginFile(source, target, options);
  requireNoJournal(target);
  SqliteFile file(output, target);
  const uint64_t count = forEachRow(source, [&](const FlatRow& row) { file.add(row); });
  file.finish();
  output.place();
  return count;
}

uint64_t toParquet(const FlatSource& source, const std::string& target,
                   const OutputOptions& options) {
  OutputFile output = beginFile(source, target, options);
  ParquetFile file(output);
  const uint64_t count = forEachRow(source, [&](const FlatRow& row) { file.add(row); });
  file.finish();
  output.place();
  return count;
}

uint64_t toCopy(const FlatSource& source, const std::string& target, const OutputOptions& options) {
  OutputFile output = beginFile(source, target, options);
  const uint64_t count = writeCopy(
      source, [&](std::string_view text) { output.write(std::as_bytes(std::span(text))); });
  output.place();
  return count;
}

}  // namespace

uint64_t exportRows(const FlatSource& source, const RowTargets& targets,
                    const OutputOptions& options) {
  if (targets.sqlite) return toSqlite(source, *targets.sqlite, options);
  if (targets.parquet) return toParquet(source, *targets.parquet, options);
  if (*targets.copy != "-") return toCopy(source, *targets.copy, options);
  return writeCopy(source, [](std::string_view text) { print(text); });
}

}  // namespace qvdb::tool

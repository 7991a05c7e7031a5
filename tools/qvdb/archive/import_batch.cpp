// The records of an import that are gathered and not in the table yet.
#include "archive/import_batch.h"

#include <algorithm>

namespace qvdb::tool {
namespace {

// What a kill, or a write that fails, can lose at most: files, and bytes.
constexpr size_t kMostFiles = 1024;
constexpr size_t kMostBytes = size_t{1} << 20;

}  // namespace

BulkAppender& ImportBatch::appender() {
  if (!bulk_) bulk_ = table_.appender();
  return *bulk_;
}

void ImportBatch::clear() {
  bulk_.reset();
  files_.clear();
  bytes_ = 0;
}

void ImportBatch::add(Id record, size_t file, ByteView payload) {
  BulkAppender& bulk = appender();
  files_.push_back(file);
  bytes_ += payload.size();
  NewRecord stored(payload, 0, record);
  stored.given_ids = GivenIds::as_they_are;  // it is new, or the list's, whose record was missing
  bulk.add(stored);
  if (files_.size() == kMostFiles || bytes_ >= kMostBytes) finish();
}

uint64_t ImportBatch::addPieces(Id record, size_t file, const Descriptor& from,
                                const std::string& path, PayloadEncoder& encoder) {
  BulkAppender& bulk = appender();
  files_.push_back(file);
  RecordWriter writer = bulk.writer(0, record);
  uint64_t size = 0;
  encoder.begin([&](std::span<const std::byte> piece) { writer.write(piece); });
  forEachInputPiece(from.number(), path, [&](std::span<const std::byte> piece) {
    size += piece.size();
    encoder.piece(piece);
  });
  encoder.end();
  writer.finish();
  finish();
  return size;
}

void ImportBatch::finish() {
  if (bulk_) bulk_->finish();
  clear();
}

size_t ImportBatch::firstMissing(size_t current) {
  if (!bulk_) return current;
  try {
    bulk_->finish();
  } catch (const Error&) {
    // taken() below says how far it got.
  }
  const size_t taken = bulk_->taken();
  if (taken < files_.size()) current = std::min(current, files_[taken]);
  clear();
  return current;
}

}  // namespace qvdb::tool

#include "stores/qvdbase_layer.h"

#include <qvdbase/qvdb/check.hpp>

namespace bench {
namespace {

// The values of a walk, as many as are wanted of it.
Walked valuesOf(qvdb::RecordRange records, size_t count) {
  Walked seen;
  for (const qvdb::Record& record : records) {
    seen.value(record.loaded().data(), record.loaded().size());
    if (--count == 0) break;
  }
  return seen;
}

}  // namespace

void QvdbaseLayer::open(const std::filesystem::path& folder) {
  openWith(folder, {.mode = qvdb::Mode::exclusive});
}

void QvdbaseLayer::openDurably(const std::filesystem::path& folder) {
  openWith(folder, {.mode = qvdb::Mode::exclusive, .durability = qvdb::Durability::power});
}

void QvdbaseLayer::inTransaction(const std::function<void()>& body) {
  database_->transaction([&](qvdb::Transaction&) { body(); });
}

void QvdbaseLayer::openWith(const std::filesystem::path& folder, const qvdb::OpenOptions& options) {
  path_ = folder / "data.qvd";
  if (std::filesystem::exists(path_)) {
    database_ = qvdb::Database::open(path_, options);
    table_ = database_->table("t");
  } else {
    database_ = qvdb::Database::create(path_);
    table_ = database_->add_table("t");
  }
  wasOpened(*database_);
}

void QvdbaseLayer::close() {
  willClose();
  index_.reset();
  table_.reset();
  database_.reset();
}

void QvdbaseLayer::expectLookups(bool areExpected) {
  if (!areExpected) {
    index_.reset();
  } else if (!index_) {
    index_ = table_->index();
  }
}

Key QvdbaseLayer::append(std::span<const char> value) {
  return table_->add(std::as_bytes(value)).value;
}

void QvdbaseLayer::appendMany(Values& values, uint32_t stamp, std::span<Key> keys) {
  qvdb::BulkAppender bulk = table_->appender();
  for (Key& key : keys) {
    key = bulk.add(qvdb::NewRecord(std::as_bytes(values.of(stamp++)))).value;
  }
  bulk.finish();
}

Walked QvdbaseLayer::scanKeys() {
  Walked seen;
  for (const qvdb::Record& record : table_->records()) seen.key(record.id().value);
  return seen;
}

Walked QvdbaseLayer::scanValues() {
  return valuesOf(table_->records(qvdb::Load::payloads), SIZE_MAX);
}

Walked QvdbaseLayer::valuesAfter(Key key, size_t count) {
  return valuesOf(table_->records_after(qvdb::Id{key}, qvdb::Load::payloads), count);
}

Walked QvdbaseLayer::lastValues(size_t count) {
  return valuesOf(
      table_->records({.order = qvdb::Order::newest_first, .load = qvdb::Load::payloads}), count);
}

bool QvdbaseLayer::get(Key key, Bytes* value) {
  const auto size = table_->get(qvdb::Id{key}, std::as_writable_bytes(std::span(buffer_)));
  if (!size) return false;
  value->assign(buffer_.begin(), buffer_.begin() + std::min<size_t>(*size, buffer_.size()));
  return true;
}

bool QvdbaseLayer::update(Key key, std::span<const char> value) {
  return table_->modify(qvdb::Id{key}, std::as_bytes(value));
}

bool QvdbaseLayer::remove(Key key) {
  return table_->remove(qvdb::Id{key});
}

void QvdbaseLayer::compact() {
  close();
  qvdb::compact(path_);
  open(path_.parent_path());
}

void QvdbaseLayer::inspect() {
  if (qvdb::check(path_).state != qvdb::CheckState::sound) failed("qvdbase: not sound");
}

std::unique_ptr<Store> makeQvdbaseLayer(size_t) {
  return std::make_unique<QvdbaseLayer>();
}

}  // namespace bench

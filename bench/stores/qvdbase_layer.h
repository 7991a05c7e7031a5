// Our library through its C++ layer, open exclusively, with an index where records are looked up.
#pragma once

#include <array>
#include <optional>
#include <qvdbase/qvdb.hpp>

#include "store.h"

namespace bench {

class QvdbaseLayer : public Store {
 public:
  void open(const std::filesystem::path& folder) override;
  void close() override;
  void openDurably(const std::filesystem::path& folder) override;
  void inTransaction(const std::function<void()>& body) override;
  void expectLookups(bool areExpected) override;

  Key append(std::span<const char> value) override;
  void appendMany(Values& values, uint32_t stamp, std::span<Key> keys) override;

  Walked scanKeys() override;
  Walked scanValues() override;
  Walked valuesAfter(Key key, size_t count) override;
  Walked lastValues(size_t count) override;

  bool get(Key key, Bytes* value) override;
  bool update(Key key, std::span<const char> value) override;
  bool remove(Key key) override;

  void compact() override;
  void inspect() override;

 protected:
  // For variants: what else they want of a database that has just been opened, and what they give
  // up before it is closed.
  virtual void wasOpened(qvdb::Database&) {}
  virtual void willClose() {}

 private:
  void openWith(const std::filesystem::path& folder, const qvdb::OpenOptions& options);

  std::filesystem::path path_;
  std::optional<qvdb::Database> database_;
  std::optional<qvdb::Table> table_;
  std::optional<qvdb::RecordIndex> index_;
  std::array<char, 4096> buffer_{};  // takes the largest value
};

}  // namespace bench

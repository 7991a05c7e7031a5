// Our library through its C++ layer with an index of names: in memory, built in a walk when the
// database is opened, without and with a cache; or kept beside the file.
#include "stores/qvdbase_layer.h"

namespace bench {
namespace {

std::string nameOfPayload(std::span<const std::byte> payload) {
  return nameOf({reinterpret_cast<const char*>(payload.data()), payload.size()});
}

class QvdbaseNames : public QvdbaseLayer {
 public:
  explicit QvdbaseNames(bool isKept) : isKept_(isKept) {}

  void open(const std::filesystem::path& folder) override {
    folder_ = folder;
    QvdbaseLayer::open(folder);
  }
  // A kept one is read from its file once the database has been opened again.
  void expectLookups(bool) override {
    if (!isKept_ || names_.is_from_file()) return;
    close();
    open(folder_);
  }

  bool addNamed(std::span<const char> value, Key* key) override {
    try {
      *key = append(value);
      return true;
    } catch (const qvdb::Error& error) {
      if (error.reason() != qvdb::Reason::key_exists) throw;
      return false;
    }
  }
  bool getNamed(const std::string& name, Bytes* value) override {
    const std::optional<qvdb::Record> record = names_.find(name);
    if (!record) return false;
    const auto* bytes = reinterpret_cast<const char*>(record->loaded().data());
    value->assign(bytes, bytes + record->loaded().size());
    return true;
  }
  Walked valuesNamed(const std::string& beginning) override {
    Walked seen;
    for (const auto& [name, record] : names_.prefix(beginning)) {
      seen.value(record.loaded().data(), record.loaded().size());
    }
    return seen;
  }
  size_t memoryOfNames() override { return names_.bytes(); }

 protected:
  void wasOpened(qvdb::Database& database) override {
    qvdb::KeyIndexOptions options{.unique = true, .ordered = true};
    if (isKept_) options.kept_as = "names";
    names_ = qvdb::KeyIndex<std::string>(database.table("t"), nameOfPayload, options);
  }
  void willClose() override { names_ = {}; }

 private:
  bool isKept_;
  std::filesystem::path folder_;
  qvdb::KeyIndex<std::string> names_;
};

class QvdbaseNamesCached : public QvdbaseNames {
 public:
  QvdbaseNamesCached() : QvdbaseNames(false) {}

  // Again, since a cache ends where a workload before has forked.
  void expectLookups(bool) override { cache_ = opened_->cache(kBudget); }

 protected:
  void wasOpened(qvdb::Database& database) override {
    opened_ = &database;
    cache_ = database.cache(kBudget);
    QvdbaseNames::wasOpened(database);
  }
  void willClose() override {
    QvdbaseNames::willClose();
    cache_ = {};
  }

 private:
  static constexpr size_t kBudget = size_t{4} << 30;

  qvdb::Database* opened_ = nullptr;
  qvdb::Cache cache_;
};

}  // namespace

std::unique_ptr<Store> makeQvdbaseNames(size_t) {
  return std::make_unique<QvdbaseNames>(false);
}
std::unique_ptr<Store> makeQvdbaseNamesCached(size_t) {
  return std::make_unique<QvdbaseNamesCached>();
}
std::unique_ptr<Store> makeQvdbaseNamesKept(size_t) {
  return std::make_unique<QvdbaseNames>(true);
}

}  // namespace bench

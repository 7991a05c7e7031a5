// Our library through its C++ layer with a cache: what it has read stays in memory.
#include "stores/qvdbase_layer.h"

namespace bench {
namespace {

constexpr size_t kBudget = size_t{4} << 30;  // above the size of every file but the largest

class QvdbaseCached : public QvdbaseLayer {
 public:
  // A workload that reads in several processes ends every cache of this one, since a cache ends
  // with a fork. Asking again begins anew then, and goes on with what is there otherwise.
  void expectLookups(bool areExpected) override {
    QvdbaseLayer::expectLookups(areExpected);
    cache_ = opened_->cache(kBudget);
  }

 protected:
  void wasOpened(qvdb::Database& database) override {
    opened_ = &database;
    cache_ = database.cache(kBudget);
  }
  void willClose() override { cache_ = {}; }

 private:
  qvdb::Database* opened_ = nullptr;
  qvdb::Cache cache_;
};

}  // namespace

std::unique_ptr<Store> makeQvdbaseCached(size_t) {
  return std::make_unique<QvdbaseCached>();
}

}  // namespace bench

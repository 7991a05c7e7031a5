// Our library through its C++ layer with a cache: what it has read stays in memory.
#include "stores/qvdbase_layer.h"

namespace bench {
namespace {

constexpr size_t kBudget = size_t{4} << 30;  // above the size of every file but the largest

class QvdbaseCached : public QvdbaseLayer {
 protected:
  void wasOpened(qvdb::Database& database) override { cache_ = database.cache(kBudget); }
  void willClose() override { cache_ = {}; }

 private:
  qvdb::Cache cache_;
};

}  // namespace

std::unique_ptr<Store> makeQvdbaseCached(size_t) {
  return std::make_unique<QvdbaseCached>();
}

}  // namespace bench

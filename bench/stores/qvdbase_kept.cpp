// Our library through its C++ layer with its index by identifier kept beside the file: what that
// saves is the walk at opening.
#include "stores/qvdbase_layer.h"

namespace bench {
namespace {

class QvdbaseKept : public QvdbaseLayer {
 public:
  void expectLookups(bool) override {}  // it has its index from opening to closing

 protected:
  void wasOpened(qvdb::Database& database) override {
    kept_ = database.table("t").index({.kept = true});
  }
  void willClose() override { kept_.reset(); }

 private:
  std::optional<qvdb::RecordIndex> kept_;
};

}  // namespace

std::unique_ptr<Store> makeQvdbaseKept(size_t) {
  return std::make_unique<QvdbaseKept>();
}

}  // namespace bench

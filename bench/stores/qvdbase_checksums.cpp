// Our library through its C++ layer, with checksums of all payloads: what they cost in time and
// space, beside the store that has none.
#include "stores/qvdbase_layer.h"

namespace bench {
namespace {

class QvdbaseChecksums : public QvdbaseLayer {
 protected:
  void wasOpened(qvdb::Database& database) override {
    database.table("t").set_checksum(qvdb::Checksum::yes);
  }
};

}  // namespace

std::unique_ptr<Store> makeQvdbaseChecksums(size_t) {
  return std::make_unique<QvdbaseChecksums>();
}

}  // namespace bench

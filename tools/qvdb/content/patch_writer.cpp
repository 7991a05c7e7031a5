// Writing patches.
#include "content/patch_writer.h"

#include "content/comparison.h"
#include "content/digests.h"
#include "content/dump_writer.h"

namespace qvdb::tool {
namespace {

class PatchLines : public DifferenceTaker {
 public:
  PatchLines(const Database& a, const Database& b, JsonLines& lines)
      : a_(a), b_(b), lines_(lines) {}

  void head() {
    const DatabaseInfo info = b_.info();
    lines_.begin();
    lines_.bytes("qvdb", "qvdb", "patch");
    lines_.number("format", kPatchFormat);
    lines_.id("of", a_.info().id);
    lines_.bytes("signature", "signature_base64", {info.signature.data(), info.signature.size()});
    lines_.number("version", info.version);
    lines_.id("id", info.id);
    lines_.end();
  }

  void end() {
    lines_.begin();
    lines_.bytes("end", "end", "patch");
    lines_.end();
  }

  void header(const DatabaseInfo&, const DatabaseInfo&) override {}
  void tableOrder() override {}

  void tableRemoved(const Table& table) override {
    lines_.begin();
    lines_.bytes("op", "op", "remove_table");
    lines_.id("from", table.id());
    lines_.number("records", table.count());
    lines_.end();
  }

  void beginTable(const TablePair& pair, const TableDifferences& differences) override {
    lines_.begin();
    writeTableMembers(pair.b->info(), true, lines_);
    if (pair.a) lines_.id("from", pair.a->id());
    lines_.end();
    if (pair.a && !differences.data) return;
    const auto before = pair.a ? dataDigestOf(a_, *pair.a) : std::nullopt;
    if (!before && !pair.b->data_size()) return;
    lines_.begin();
    lines_.bytes("op", "op", "data");
    if (before) lines_.bytes("was", "was", hexOf(*before));
    writeTableData(b_, *pair.b, lines_);
  }

  void removed(const Record& record) override {
    begin("remove");
    lines_.bytes("was", "was", hexOf(digestOf(record, sha256_).payload));
    lines_.id("record", record.id());
    lines_.end();
  }

  void added(const Record& record, std::optional<Id> before) override {
    begin("add");
    if (before) lines_.id("after", *before);
    writeRecord(record, false, lines_);
  }

  void changed(const Record& a, const Record& b, const RecordDifferences&) override {
    begin("change");
    lines_.bytes("was", "was", hexOf(digestOf(a, sha256_).payload));
    writeRecord(b, false, lines_);
  }

  void moved(const Record& record, std::optional<Id> before) override {
    begin("move");
    if (before) lines_.id("after", *before);
    lines_.id("record", record.id());
    lines_.end();
  }

  void endTable() override {
    lines_.begin();
    lines_.bytes("end", "end", "table");
    lines_.end();
  }

 private:
  void begin(const char* what) {
    lines_.begin();
    lines_.bytes("op", "op", what);
  }

  const Database& a_;
  const Database& b_;
  JsonLines& lines_;
  Sha256 sha256_;
};

}  // namespace

bool writePatch(const Database& a, const Database& b, JsonLines& lines) {
  PatchLines patch(a, b, lines);
  patch.head();
  const bool differs = compareDatabases(a, b, patch);
  patch.end();
  return differs;
}

}  // namespace qvdb::tool

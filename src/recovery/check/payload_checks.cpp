// Payloads of live records against their checksums: P1 to P3.
#include "recovery/check/parts.h"
#include "recovery/survey/payload_checksums.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

class PayloadCheck {
 public:
  explicit PayloadCheck(Check& check) : check_(check), verifier_(check.source, check.survey) {}

  qvdb::PayloadCounts run() {
    for (const Block& block : check_.survey.blocks) {
      if (block.kind == BlockKind::record && block.label == Label::live) look(block);
    }
    return counts_;
  }

 private:
  void look(const Block& block) {
    const auto state = verifier_.stateOf(block);
    if (!state) {
      check_.error("F5", about(block), "The system cannot read the payload of the record at ",
                   block.position, ".");
      return;
    }
    switch (*state) {
      case PayloadState::verified:
        ++counts_.verified;
        return;
      case PayloadState::unprotected:
        ++counts_.unprotected;
        check_.information("P3", about(block), "The payload of the record at ", block.position,
                           " has no checksum.");
        return;
      case PayloadState::changedElsewhere:
        ++counts_.changed_elsewhere;
        check_.warning("P2", about(block), "The record at ", block.position,
                       " was changed after its checksum was made: its time or its length differs.");
        return;
      case PayloadState::rotten:
        break;
    }
    ++counts_.rotten;
    check_.error(
        "P1", about(block), "The payload of the record at ", block.position, ", ",
        counted(block.length, "byte"),
        ", does not agree with its checksum: its bytes have changed although nothing wrote "
        "to them, or a program that does not know checksums wrote as many bytes within the "
        "second of the change before.");
  }

  About about(const Block& block) const {
    return inBlock(check_.survey.slotAt(block.slot), block, record::kData);
  }

  Check& check_;
  PayloadVerifier verifier_;
  qvdb::PayloadCounts counts_;
};

}  // namespace

qvdb::PayloadCounts checkPayloads(Check& check) {
  return PayloadCheck(check).run();
}

}  // namespace qvdbase::check

// The checksums of payloads, as a source has them.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "format/payload_checksum.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/survey.h"

namespace qvdbase::survey {

// The checksum of a block.
struct BlockChecksum {
  bool isThere = false;
  unsigned char bytes[format::checksum::kSize] = {};
};

// Whether a block can have one: a record, whole, with the capacity for it.
bool hasChecksumSpace(const Block& block);

// Reads it. One that cannot be read is none.
BlockChecksum checksumOf(const ByteSource& source, const Block& block);

// What the hash covers beside the payload.
format::PayloadIdentity identityOf(const Survey& survey, const Block& block);

// Says what the checksums of records say, one after the other.
class PayloadVerifier {
 public:
  PayloadVerifier(const ByteSource& source, const Survey& survey)
      : source_(source), survey_(survey) {}

  // Nothing when the payload cannot be read. Only a payload whose hash decides is read.
  std::optional<format::PayloadState> stateOf(const Block& block);

 private:
  const ByteSource& source_;
  const Survey& survey_;
  std::vector<unsigned char> piece_;
};

}  // namespace qvdbase::survey

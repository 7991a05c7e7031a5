// Reading and judging the checksums of payloads by the format alone.
#include "recovery/survey/payload_checksums.h"

#include <algorithm>

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

constexpr size_t kPiece = size_t{256} << 10;

}  // namespace

bool hasChecksumSpace(const Block& block) {
  return block.kind == BlockKind::record && !block.isCut() &&
         format::hasChecksumSpace(block.length, block.capacity);
}

BlockChecksum checksumOf(const ByteSource& source, const Block& block) {
  BlockChecksum sum;
  if (!hasChecksumSpace(block)) return sum;
  const int64_t position = checksumPosition(block.position, block.capacity);
  sum.isThere = position >= 0 && source.readAll(position, sum.bytes, sizeof sum.bytes) &&
                isChecksum(sum.bytes);
  return sum;
}

PayloadIdentity identityOf(const Survey& survey, const Block& block) {
  return {survey.owners[block.owner].number, block.recordID, block.modifyTime, block.length};
}

std::optional<PayloadState> PayloadVerifier::stateOf(const Block& block) {
  const BlockChecksum sum = checksumOf(source_, block);
  if (!sum.isThere) return PayloadState::unprotected;
  const PayloadIdentity identity = identityOf(survey_, block);
  if (const auto known = stateWithoutHash(sum.bytes, identity)) return known;
  if (piece_.empty()) piece_.resize(kPiece);
  PayloadHash hash;
  int64_t position = block.dataPos();
  for (size_t left = block.length; left > 0;) {
    const size_t count = std::min(left, kPiece);
    if (!source_.readAll(position, piece_.data(), count)) return std::nullopt;
    hash.add(piece_.data(), count);
    position += static_cast<int64_t>(count);
    left -= count;
  }
  return stateOfPayload(sum.bytes, identity, hash);
}

}  // namespace qvdbase::survey

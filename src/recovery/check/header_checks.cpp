// Size and header: F1, F2, H1 to H6.
#include <algorithm>
#include <string>

#include "format/identifiers.h"
#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

void checkSignature(const unsigned char* signature, Findings* findings) {
  if (isSignature(signature)) return;
  const About about = {.offset = 0};
  const unsigned char swapped[] = {signature[1], signature[0]};
  if (isSignature(swapped)) {
    return findings->error("H1", about, "The first two letters are 'VQ', in the wrong order.");
  }
  const std::string letters(signature, signature + kSignatureSize);
  findings->error("H1", about, "The file begins with ", shown(letters), ", not with 'QV'.");
}

void checkVersion(const Survey& survey, Findings* findings) {
  const int version = survey.header.fields.version;
  const About about = {.offset = kVersionPos};
  if (!isVersion(version)) {
    findings->error("H2", about, "The version is ", version, ", not 100 to 199.");
  } else if (version == kUnfinishedPackVersion) {
    const auto records = static_cast<uint64_t>(
        std::count_if(survey.blocks.begin(), survey.blocks.end(), [](const Block& block) {
          return block.kind == BlockKind::record && block.label == Label::live;
        }));
    findings->error("H3", about,
                    "The version is 101: the file is the unfinished result of a pack. ",
                    counted(records, "record"), " had arrived in it.");
  }
}

void checkDatabaseID(const Header& header, Findings* findings) {
  const About about = {.offset = kDatabaseIDPos};
  if (!identifierSumIsRight(header.fields.databaseID)) {
    findings->error("H4", about, "The sum of the database identifier is wrong.");
  } else if (identifierNumber(header.fields.databaseID) == 0) {
    findings->warning("H4", about, "The database identifier is zero.");
  }
}

void checkNumbers(const Header& header, Findings* findings) {
  const auto report = [&](const char* why, const auto&... more) {
    findings->error("H5", {.offset = kTableCountPos}, "The number of tables is ", header.tableCount,
                    why, more...);
  };
  if (header.tableCount < 0) {
    report(".");
  } else if (header.tableCount >= kNewSlotCount) {
    report("; a directory holds at most 31.");
  } else if (header.tableCount > header.slotCount - 1 && header.slotCount > 0) {
    report(", more than ", header.slotCount, " slots hold.");
  }
  if (header.slotCount != kNewSlotCount) {
    findings->error("H6", {.offset = kSlotCountPos}, "The number of slots is ", header.slotCount,
                    ", not 32.");
  }
  if (header.slotSize != kSlotImageSize) {
    const bool isTooShort = header.slotSize < kSlotImageSize;
    findings->error("H6", {.offset = kSlotSizePos}, "The size of a slot is ", header.slotSize,
                    ", not 144", isTooShort ? ", too short for what it holds." : ".");
  }
}

}  // namespace

bool checkHeader(const Survey& survey, Findings* findings) {
  if (survey.size == 0) {
    findings->error("F1", {.offset = 0}, "The file is empty.");
    return false;
  }
  if (!survey.headerThere) {
    findings->error("F2", {.offset = survey.size}, "The file has only ",
                    counted(static_cast<uint64_t>(survey.size), "byte"),
                    "; the header alone has 22.");
    return false;
  }
  if (survey.size < kNewFileSize) {
    findings->error("F2", {.offset = survey.size}, "The file ends at ", survey.size,
                    ", inside its directory, which ends at ", kNewFileSize, ".");
  }
  if (survey.unreadableAt >= 0) {
    findings->error("F5", {.offset = survey.unreadableAt}, "The system cannot read the file at ",
                    survey.unreadableAt, ".");
  }
  checkSignature(survey.header.fields.signature, findings);
  checkVersion(survey, findings);
  checkDatabaseID(survey.header, findings);
  checkNumbers(survey.header, findings);
  return true;
}

}  // namespace qvdbase::check

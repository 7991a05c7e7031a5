// Size and header: F1, F2, H1 to H6.
#include <algorithm>
#include <string>

#include "format/identifiers.h"
#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

void checkSignature(Check& check, const unsigned char* signature) {
  if (isSignature(signature)) return;
  const About about = {.offset = 0};
  const unsigned char swapped[] = {signature[1], signature[0]};
  if (isSignature(swapped)) {
    return check.error("H1", about, "The first two letters are 'VQ', in the wrong order.");
  }
  const std::string letters(signature, signature + kSignatureSize);
  check.error("H1", about, "The file begins with ", shown(letters), ", not with 'QV'.");
}

void checkVersion(Check& check) {
  const int version = check.survey.header.fields.version;
  const About about = {.offset = kVersionPos};
  if (!isVersion(version)) {
    check.error("H2", about, "The version is ", version, ", not 100 to 199.");
  } else if (version == kUnfinishedPackVersion) {
    const auto records = std::ranges::count_if(check.survey.blocks, [](const Block& block) {
      return block.kind == BlockKind::record && block.label == Label::live;
    });
    check.error("H3", about, "The version is 101: the file is the unfinished result of a pack. ",
                counted(records, "record"), " had arrived in it.");
  }
}

void checkDatabaseID(Check& check, const Header& header) {
  const About about = {.offset = kDatabaseIDPos};
  if (!identifierSumIsRight(header.fields.databaseID)) {
    check.error("H4", about, "The sum of the database identifier is wrong.");
  } else if (identifierNumber(header.fields.databaseID) == 0) {
    check.warning("H4", about, "The database identifier is zero.");
  }
}

void checkNumbers(Check& check, const Header& header) {
  const auto report = [&](const char* why, const auto&... more) {
    check.error("H5", {.offset = kTableCountPos}, "The number of tables is ", header.tableCount,
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
    check.error("H6", {.offset = kSlotCountPos}, "The number of slots is ", header.slotCount,
                ", not 32.");
  }
  if (header.slotSize != kSlotImageSize) {
    const bool isTooShort = header.slotSize < kSlotImageSize;
    check.error("H6", {.offset = kSlotSizePos}, "The size of a slot is ", header.slotSize,
                ", not 144", isTooShort ? ", too short for what it holds." : ".");
  }
}

}  // namespace

bool checkHeader(Check& check) {
  const Survey& survey = check.survey;
  if (survey.size == 0) {
    check.error("F1", {.offset = 0}, "The file is empty.");
    return false;
  }
  if (!survey.headerThere) {
    check.error("F2", {.offset = survey.size}, "The file has only ", counted(survey.size, "byte"),
                "; the header alone has 22.");
    return false;
  }
  if (survey.size < kNewFileSize) {
    check.error("F2", {.offset = survey.size}, "The file ends at ", survey.size,
                ", inside its directory, which ends at ", kNewFileSize, ".");
  }
  if (survey.unreadableAt >= 0) {
    check.error("F5", {.offset = survey.unreadableAt}, "The system cannot read the file at ",
                survey.unreadableAt, ".");
  }
  checkSignature(check, survey.header.fields.signature);
  checkVersion(check);
  checkDatabaseID(check, survey.header);
  checkNumbers(check, survey.header);
  return true;
}

}  // namespace qvdbase::check

// Size and header: F1, F2, H1 to H6.
#include <algorithm>
#include <cctype>
#include <string>

#include "format/identifiers.h"
#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

bool hasLetters(const Header& header, int first, int second) {
  return std::toupper(header.fields.signature[0]) == first &&
         std::toupper(header.fields.signature[1]) == second;
}

void checkSignature(const Header& header, Findings* findings) {
  if (hasLetters(header, 'Q', 'V')) return;
  const About about = {.offset = 0};
  if (hasLetters(header, 'V', 'Q')) {
    return findings->error("H1", about, "The first two letters are 'VQ', in the wrong order.");
  }
  const std::string letters(reinterpret_cast<const char*>(header.fields.signature), kSignatureSize);
  findings->error("H1", about, "The file begins with " + shown(letters) + ", not with 'QV'.");
}

void checkVersion(const Survey& survey, Findings* findings) {
  const int version = survey.header.fields.version;
  const About about = {.offset = kVersionPos};
  if (version < kFirstVersion || version > kLastVersion) {
    findings->error("H2", about, "The version is " + std::to_string(version) + ", not 100 to 199.");
  } else if (version == kUnfinishedPackVersion) {
    const auto records = static_cast<uint64_t>(
        std::count_if(survey.blocks.begin(), survey.blocks.end(), [](const Block& block) {
          return block.kind == BlockKind::record && block.label == Label::live;
        }));
    findings->error("H3", about,
                    "The version is 101: the file is the unfinished result of a pack. " +
                        counted(records, "record") + " had arrived in it.");
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

void checkNumbers(const Survey& survey, Findings* findings) {
  const Header& header = survey.header;
  const About about = {.offset = kTableCountPos};
  const std::string count = "The number of tables is " + std::to_string(header.tableCount);
  if (header.tableCount < 0) {
    findings->error("H5", about, count + ".");
  } else if (header.tableCount >= kNewSlotCount) {
    findings->error("H5", about, count + "; a directory holds at most 31.");
  } else if (header.tableCount > header.slotCount - 1 && header.slotCount > 0) {
    findings->error("H5", about,
                    count + ", more than " + std::to_string(header.slotCount) + " slots hold.");
  }
  if (header.slotCount != kNewSlotCount) {
    findings->error("H6", {.offset = kSlotCountPos},
                    "The number of slots is " + std::to_string(header.slotCount) + ", not 32.");
  }
  if (header.slotSize != kSlotImageSize) {
    std::string text = "The size of a slot is " + std::to_string(header.slotSize) + ", not 144";
    if (header.slotSize < kSlotImageSize) text += ", too short for what it holds";
    findings->error("H6", {.offset = kSlotSizePos}, text + ".");
  }
}

}  // namespace

bool checkHeader(const Survey& survey, Findings* findings) {
  if (survey.size == 0) {
    findings->error("F1", {.offset = 0}, "The file is empty.");
    return false;
  }
  if (!survey.headerThere) {
    findings->error("F2", {.offset = survey.size},
                    "The file has only " + counted(static_cast<uint64_t>(survey.size), "byte") +
                        "; the header alone has 22.");
    return false;
  }
  if (survey.size < kNewFileSize) {
    findings->error("F2", {.offset = survey.size},
                    "The file ends at " + std::to_string(survey.size) +
                        ", inside its directory, which ends at " + std::to_string(kNewFileSize) +
                        ".");
  }
  if (survey.unreadableAt >= 0) {
    findings->error(
        "F5", {.offset = survey.unreadableAt},
        "The system cannot read the file at " + std::to_string(survey.unreadableAt) + ".");
  }
  checkSignature(survey.header, findings);
  checkVersion(survey, findings);
  checkDatabaseID(survey.header, findings);
  checkNumbers(survey, findings);
  return true;
}

}  // namespace qvdbase::check

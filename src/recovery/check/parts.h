// Checking a source that no other process can change: all of it, and the parts of the checker. Each
// judges one part of a survey and reports what it finds.
#pragma once

#include <qvdbase/qvdb/check.hpp>

#include <span>
#include <string>
#include <vector>

#include "intents/recovery.h"
#include "recovery/check/findings.h"
#include "recovery/survey/survey.h"

namespace qvdbase::check {

// Without the findings: what they come to.
qvdb::CheckReport checkSource(const survey::ByteSource& source);

// The same with a survey of it that is there already; the visitor gets every finding.
qvdb::CheckReport checkSurvey(const survey::ByteSource& source, const survey::Survey& survey,
                              const qvdb::FindingVisitor& visitor);

// The errors alone. What the library's calls will do on the file, which none of them depends on, is
// not looked at.
void findErrors(const survey::ByteSource& source, const survey::Survey& survey,
                const qvdb::FindingVisitor& visitor);

// A finding inside another sentence: code and message, without the full stop.
std::string inSentence(const qvdb::Finding& finding);

// Size and header. False when nothing follows them that could be checked.
bool checkHeader(Check& check);

void checkDirectory(Check& check);

// What is wrong with one table's slot, chain, and table data.
void checkCounts(Check& check, const survey::Table& table);
void checkChain(Check& check, const survey::Table& table);
void checkTableData(Check& check, const survey::Table& table);
void checkImportedNames(Check& check, const survey::Table& table);

// Identifiers and times of all live records; `now` in seconds since 1970.
void checkRecords(Check& check, int64_t now);

// Length, capacity and end of a block in use; the findings are about that slot.
void checkExtent(Check& check, const survey::Slot* slot, const survey::Block& block);

// Payloads in use of which a part was never stored.
void checkHoles(Check& check);

// Overlaps, dead blocks, bytes that are no block, bytes after payloads, and what every byte is.
qvdb::SpaceUse checkSpace(Check& check);

void checkCategories(Check& check);

// Transactions: what the plan of their recovery says, and what is left of earlier ones.
void checkIntents(Check& check, const intents::RecoveryPlan& plan);

// Payloads of live records against their checksums.
qvdb::PayloadCounts checkPayloads(Check& check);

// The blocks that the walk from the front reaches within the slot's count.
std::span<const uint32_t> countedBlocks(const survey::Survey& survey, const survey::Table& table);

// The identifiers of the records in these blocks.
std::vector<uint64_t> sortedRecords(const survey::Survey& survey, std::span<const uint32_t> blocks);

// ---- What the library's calls will do

qvdb::TableOutlook outlookOf(const survey::ByteSource& source, const survey::Survey& survey,
                             const survey::Table& table);
bool willPack(const survey::Survey& survey);
qvdb::RepairPreview willRepair(const survey::Survey& survey);

}  // namespace qvdbase::check

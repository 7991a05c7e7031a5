// qvdb::check and qvdb::predict_repair: opening, repeating beside a writer, and putting the parts
// together.
//
// A file that is being written to shows, between two writes of one operation, states that are
// damage when they last. So findings count only when the file did not change while it was read and
// no other process has it open for writing; otherwise the check is repeated, and at last given up.
#include <qvdbase/qvdb/check.hpp>

#include <chrono>
#include <optional>
#include <thread>

#include "platform/host/clock.h"
#include "recovery/check/check_source.h"
#include "recovery/check/findings.h"
#include "recovery/check/parts.h"
#include "recovery/survey/open_file.h"
#include "recovery/survey/survey.h"
#include "recovery/survey/words.h"

using namespace qvdbase;
using namespace qvdbase::survey;

namespace qvdb {
namespace {

using check::Findings;

struct Checked {
  CheckReport report;
  std::vector<Finding> findings;
};

CheckState stateOf(const Findings& findings) {
  if (findings.count(Severity::error) > 0) return CheckState::damaged;
  return findings.count(Severity::warning) > 0 ? CheckState::unusual : CheckState::sound;
}

std::string namesOf(const TableOutlook& outlook) {
  if (!outlook.reachable) return "every call: the table is not reachable";
  std::string text;
  const auto note = [&](bool works, const char* what) {
    if (!works) text += (text.empty() ? "" : ", ") + std::string(what);
  };
  note(outlook.append, "appending");
  note(outlook.list, "listing");
  note(outlook.find_all, "finding every record");
  note(outlook.delete_all, "deleting every record");
  note(outlook.enlarge_all, "enlarging every record");
  note(outlook.get_data, "reading its data");
  note(outlook.set_data, "setting its data");
  return text;
}

void addOutlook(const ByteSource& source, const Survey& survey, CheckReport* report,
                Findings* findings) {
  for (const auto& table : survey.tables) {
    const TableOutlook outlook = check::outlookOf(source, survey, table);
    const std::string failing = namesOf(outlook);
    if (!failing.empty()) {
      findings->information("W1", check::inSlot(survey.slotOf(table)),
                            "What will fail on this table now: ", failing, ".");
    }
    report->tables.push_back(outlook);
  }
  report->pack = check::willPack(survey);
  report->repair = check::willRepair(survey).result;
  const bool repairs = report->repair != 1;
  if (report->pack && repairs) return;
  const char* const failing = report->pack ? "link repair"
                              : repairs    ? "pack"
                                           : "pack and link repair";
  findings->information("W1", {}, "What will fail on this file now: ", failing, ".");
}

void judge(const ByteSource& source, const Survey& survey, const CheckOptions& options,
           CheckReport* report, Findings* findings) {
  const int64_t now = options.now != 0 ? options.now : int64_t{platform::secondsSinceEpoch()};
  check::checkDirectory(survey, findings);
  for (const auto& table : survey.tables) {
    check::checkCounts(survey, table, findings);
    check::checkChain(survey, table, findings);
    check::checkTableData(source, survey, table, findings);
    check::checkImportedNames(source, survey, table, findings);
  }
  check::checkRecords(survey, now, findings);
  if (options.categories) check::checkCategories(source, survey, findings);
  check::checkHoles(source, survey, findings);
  report->space = check::checkSpace(source, survey, findings);
  addOutlook(source, survey, report, findings);
}

Checked checkOnce(const ByteSource& source, const Survey& survey, const CheckOptions& options) {
  Checked checked;
  Findings findings(options.most_alike);
  if (check::checkHeader(survey, &findings)) {
    judge(source, survey, options, &checked.report, &findings);
  } else {
    checked.report.space.unknown = static_cast<uint64_t>(survey.size);
    checked.report.repair = 1;
  }
  checked.report.file_size = static_cast<uint64_t>(survey.size);
  checked.report.blocks = survey.blocks.size();
  checked.report.errors = findings.count(Severity::error);
  checked.report.warnings = findings.count(Severity::warning);
  checked.report.informations = findings.count(Severity::information);
  checked.report.state = stateOf(findings);
  checked.findings = findings.all();
  return checked;
}

Checked checkOnce(const ByteSource& source, const CheckOptions& options) {
  return checkOnce(source, makeSurvey(source, {.deep = options.deep}), options);
}

// Takes back what was found while the file changed: it may be true of no state that the file was
// ever in.
void takeBack(Checked* checked) {
  checked->findings.clear();
  checked->report.errors = checked->report.warnings = checked->report.informations = 0;
}

CheckReport deliver(Checked checked, const FindingVisitor& visitor) {
  if (visitor) {
    for (const Finding& finding : checked.findings) visitor(finding);
  }
  return std::move(checked.report);
}

}  // namespace

CheckReport check(const std::filesystem::path& path, const FindingVisitor& visitor,
                  const CheckOptions& options) {
  for (int attempt = 0;; ++attempt) {
    OpenedFile file(path, "check the database");
    file.watch();
    Checked checked = checkOnce(file.source(), options);
    const bool hasChanged = file.hasChanged();
    // What was found can be work in progress.
    const bool isInProgress = checked.report.state != CheckState::sound && file.isLockedByOthers();
    if (!hasChanged && !isInProgress) return deliver(std::move(checked), visitor);
    if (attempt >= options.retries) {
      if (hasChanged) takeBack(&checked);
      checked.report.state = CheckState::in_use;
      return deliver(std::move(checked), visitor);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(options.wait_milliseconds));
  }
}

CheckReport check_image(std::span<const std::byte> image, const FindingVisitor& visitor,
                        const CheckOptions& options) {
  const MemorySource source(image);
  return deliver(checkOnce(source, options), visitor);
}

RepairPreview predict_repair(const std::filesystem::path& path) {
  const OpenedFile file(path, "look at the database");
  return check::willRepair(makeSurvey(file.source()));
}

}  // namespace qvdb

qvdb::CheckReport check::checkSource(const ByteSource& source) {
  return qvdb::checkOnce(source, {}).report;
}

qvdb::CheckReport check::checkSurvey(const ByteSource& source, const Survey& survey,
                                     const qvdb::FindingVisitor& visitor) {
  return qvdb::deliver(qvdb::checkOnce(source, survey, {}), visitor);
}

std::string check::inSentence(const qvdb::Finding& finding) {
  const std::string& message = finding.message;
  return joined(finding.code, ": ", message.substr(0, message.size() - message.ends_with('.')));
}

// qvdb::check and qvdb::predict_repair: opening, repeating beside a writer, and putting the parts
// together.
//
// A file that is being written to shows, between two writes of one operation, states that are
// damage when they last. So findings count only when the file did not change while it was read and
// no other process has it open for writing; otherwise the check is repeated, while writers rest
// (still_file.h), and at last given up.
#include <qvdbase/qvdb/check.hpp>
#include <qvdbase/qvdb/output_file.hpp>

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>

#include "platform/host/cancellation.h"
#include "platform/host/clock.h"
#include "platform/host/system_calls.h"
#include "platform/transfer/plain_transfer.h"
#include "recovery/check/findings.h"
#include "recovery/check/parts.h"
#include "recovery/check/still_file.h"
#include "recovery/survey/completed_source.h"
#include "recovery/survey/open_file.h"
#include "recovery/survey/survey.h"
#include "recovery/survey/words.h"

using namespace qvdbase;
using namespace qvdbase::survey;

namespace qvdb {
namespace {

using check::Check;

// Writers do not rest for a check that takes longer than this: they wait for five seconds, unless
// their program says otherwise.
constexpr uint64_t kLongestLook = 2'000'000;  // microseconds

struct Checked {
  CheckReport report;
  std::vector<Finding> findings;
};

std::string namesOf(const TableOutlook& outlook) {
  if (!outlook.reachable) return "every call: the table is not reachable";
  std::string text;
  const auto note = [&](bool works, const char* what) {
    if (!works) text += joined(text.empty() ? "" : ", ", what);
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

void addOutlook(Check& check, CheckReport* report) {
  for (const auto& table : check.survey.tables) {
    const TableOutlook outlook = check::outlookOf(check.source, check.survey, table);
    const std::string failing = namesOf(outlook);
    if (!failing.empty()) {
      check.information("W1", check::inSlot(check.survey.slotOf(table)),
                        "What will fail on this table now: ", failing, ".");
    }
    report->tables.push_back(outlook);
  }
  report->pack = check::willPack(check.survey);
  report->repair = check::willRepair(check.survey).result;
  const bool repairs = report->repair != 1;
  if (report->pack && repairs) return;
  const char* const failing = report->pack ? "link repair"
                              : repairs    ? "pack"
                                           : "pack and link repair";
  check.information("W1", {}, "What will fail on this file now: ", failing, ".");
}

void judge(Check& check, const CheckOptions& options, const intents::RecoveryPlan& plan,
           CheckReport* report) {
  const int64_t now = options.now != 0 ? options.now : int64_t{platform::secondsSinceEpoch()};
  check::checkDirectory(check);
  for (const auto& table : check.survey.tables) {
    check::checkCounts(check, table);
    check::checkChain(check, table);
    check::checkTableData(check, table);
    check::checkImportedNames(check, table);
  }
  check::checkRecords(check, now);
  if (options.payloads) report->payloads = check::checkPayloads(check);
  if (options.categories) check::checkCategories(check);
  check::checkHoles(check);
  report->space = check::checkSpace(check);
  check::checkIntents(check, plan);
}

enum class Outlook { no, yes };  // whether to find out what the library's calls will do

Checked checkOnce(const ByteSource& source, const Survey& survey, const CheckOptions& options,
                  const intents::RecoveryPlan& plan = {}, Outlook outlook = Outlook::yes) {
  CheckReport report;
  Check check(source, survey, options.most_alike);
  report.file_size = static_cast<uint64_t>(survey.size);
  report.blocks = survey.blocks.size();
  if (check::checkHeader(check)) {
    judge(check, options, plan, &report);
    if (outlook == Outlook::yes) addOutlook(check, &report);
  } else {
    report.space.unknown = report.file_size;
    report.repair = 1;
  }
  report.errors = check.count(Severity::error);
  report.warnings = check.count(Severity::warning);
  report.informations = check.count(Severity::information);
  report.state = report.errors > 0     ? CheckState::damaged
                 : report.warnings > 0 ? CheckState::unusual
                                       : CheckState::sound;
  return {report, check.all()};
}

Checked checkOnce(const ByteSource& source, const CheckOptions& options) {
  const CompletedSource completed(source);
  return checkOnce(completed, makeSurvey(completed, {.deep = options.deep}), options,
                   completed.plan());
}

CheckReport deliver(Checked checked, const FindingVisitor& visitor) {
  if (visitor) {
    for (const Finding& finding : checked.findings) visitor(finding);
  }
  return std::move(checked.report);
}

// To a visitor that is a function of the caller's.
CheckReport deliverToCaller(Checked checked, const FindingVisitor& visitor) {
  const platform::CancellationPause cancellation;
  return deliver(std::move(checked), visitor);
}

// A file that is not one of the library's open files.
class DescriptorSource : public ByteSource {
 public:
  explicit DescriptorSource(int descriptor)
      : descriptor_(descriptor),
        size_(std::max<int64_t>(platform::systemCalls().lengthOf(descriptor), 0)) {}

  int64_t size() const override { return size_; }
  size_t readAt(int64_t position, void* buffer, size_t count) const override {
    bool failed = false;
    return platform::readPlain(descriptor_, position, buffer, available(position, count), &failed);
  }

 private:
  int descriptor_;
  int64_t size_;
};

}  // namespace

CheckReport check(const std::filesystem::path& path, const FindingVisitor& visitor,
                  const CheckOptions& options) {
  const platform::Uncancelled uncancelled;
  uint64_t length = 0;
  for (int attempt = 0;; ++attempt) {
    std::optional<check::StillFile> still;
    if (attempt > 0 && length < kLongestLook) still.emplace(path);
    const uint64_t begin = platform::microsecondCounter();
    OpenedFile file(path, "check the database");
    file.watch();
    Checked checked = checkOnce(file.rawSource(), options);
    const bool hasChanged = file.hasChanged();
    // What was found can be work in progress.
    const bool isInProgress = checked.report.state != CheckState::sound && file.isLockedByOthers();
    const bool isDisturbed = hasChanged || isInProgress;
    const bool hadRest = still.has_value();
    still.reset();
    length = platform::microsecondCounter() - begin;
    // Nor is what a thread of this process is in the middle of; it rests for another attempt.
    const bool isDoubtful = checked.report.state != CheckState::sound && !hadRest &&
                            length < kLongestLook && file.writer().is_this_process;
    if (attempt >= options.retries || !(isDisturbed || isDoubtful)) {
      if (isDisturbed) {
        checked.report.state = CheckState::in_use;
        checked.report.writer = file.writer();
      }
      // What was found while the file changed may be true of no state that it was ever in.
      if (hasChanged) {
        checked.findings.clear();
        checked.report.errors = checked.report.warnings = checked.report.informations = 0;
      }
      return deliverToCaller(std::move(checked), visitor);
    }
    if (!isDisturbed) continue;  // the turn is waited for anyway
    std::this_thread::sleep_for(std::chrono::milliseconds(options.wait_milliseconds));
  }
}

CheckReport check_image(std::span<const std::byte> image, const FindingVisitor& visitor,
                        const CheckOptions& options) {
  const MemorySource source(image);
  return deliverToCaller(checkOnce(source, options), visitor);
}

CheckReport check(const OutputFile& file, const FindingVisitor& visitor) {
  return deliverToCaller(checkOnce(DescriptorSource(file.descriptor()), {}), visitor);
}

RepairPreview predict_repair(const std::filesystem::path& path) {
  const platform::Uncancelled uncancelled;
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

void check::findErrors(const ByteSource& source, const Survey& survey,
                       const qvdb::FindingVisitor& visitor) {
  const qvdb::Checked checked = qvdb::checkOnce(source, survey, {}, {}, qvdb::Outlook::no);
  for (const qvdb::Finding& finding : checked.findings) {
    if (finding.severity == qvdb::Severity::error) visitor(finding);
  }
}

std::string check::inSentence(const qvdb::Finding& finding) {
  const std::string& message = finding.message;
  return joined(finding.code, ": ", message.substr(0, message.size() - message.ends_with('.')));
}

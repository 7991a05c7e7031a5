// qvdb::open_checked: a look at the ends of every chain.
//
// Most operations write the slot last. So an operation that was interrupted shows at the ends of a
// chain: the last record has a successor that is not counted, or the record that the slot names is
// no longer the one that its neighbour names.
#include <qvdbase/qvdb/check.hpp>
#include <qvdbase/qvdb/error.hpp>

#include <functional>
#include <limits>
#include <optional>
#include <utility>

#include "QVDbase/position.h"
#include "failure/failure.h"
#include "format/Aliment8.h"
#include "format/block_heads.h"
#include "format/fields.h"
#include "format/identifiers.h"
#include "objects/open_database.h"
#include "objects/sharing/looks.h"
#include "objects/walks/chain_ends.h"
#include "recovery/check/findings.h"
#include "recovery/survey/open_file.h"
#include "recovery/survey/survey.h"

using namespace qvdbase;

namespace qvdb {
namespace {

using detail::Operation;
using survey::ByteSource;
using survey::Slot;
using survey::Survey;

// The header that these bytes are, if it is one of a record of the table.
std::optional<recordPart1> recordIn(const unsigned char* bytes, const tablePart1& slot) {
  if (!format::isRecordOf(bytes, slot.tableID)) return std::nullopt;
  return format::decodeRecordHead(bytes);
}

// The header of a record of the table at that position, or nothing.
using HeadReader = std::function<std::optional<recordPart1>(int64_t position)>;

// One table's ends. Each function returns what is wrong, or null.
class Ends {
 public:
  Ends(HeadReader recordAt, int64_t fileSize, const tablePart1& slot)
      : recordAt_(std::move(recordAt)), fileSize_(fileSize), slot_(slot) {}

  const char* problem() const {
    const int64_t first = slot_.firstRecordPos;
    const int64_t last = slot_.lastRecordPos;
    if (slot_.recordCount == 0) {
      return first != 0 || last != 0 ? "it counts no records, but has positions of some" : nullptr;
    }
    if (first == 0 || last == 0) return "it counts records, but has no positions of them";
    if ((slot_.recordCount == 1) != (first == last)) {
      return "the number of records does not fit the positions of the first and the last";
    }
    const char* atFirst = problemAtFirst(first);
    if (atFirst != nullptr) return atFirst;
    return problemAtEnd();
  }

  // Of a table that counts records.
  const char* problemAtEnd() const {
    const char* atLast = problemAtLast(slot_.lastRecordPos);
    if (atLast != nullptr || slot_.lastWrittenRecordPos == slot_.lastRecordPos) return atLast;
    return problemAtLastWritten(slot_.lastWrittenRecordPos);
  }

  // A block that is appended now, to any table, would be taken for the bytes that are missing.
  const char* problemBeyondFile() const {
    if (slot_.recordCount == 0) return nullptr;
    const std::optional<recordPart1> head = recordAt(slot_.lastRecordPos);
    if (!head) return nullptr;
    const int64_t size = format::kRecordBlockOverhead + int64_t{head->dataCapacity};
    return slot_.lastRecordPos > fileSize_ - size
               ? "its last record reaches beyond the end of the file"
               : nullptr;
  }

 private:
  const char* problemAtFirst(int64_t first) const {
    const std::optional<recordPart1> head = recordAt(first);
    if (!head) return "its first record is not where it should be";
    if (head->prevRecordPos != 0) return "something precedes its first record";
    if (head->nextRecordPos == 0) return nullptr;
    const std::optional<recordPart1> second = recordAt(head->nextRecordPos);
    const bool pointsBack = second && second->prevRecordPos == first;
    return pointsBack ? nullptr : "its second record does not point back at the first";
  }

  const char* problemAtLast(int64_t last) const {
    const std::optional<recordPart1> head = recordAt(last);
    if (!head) return "its last record is not where it should be";
    if (head->nextRecordPos != 0) return "something follows its last record: an append was cut off";
    if (const char* problem = problemBeyondFile()) return problem;
    if (head->prevRecordPos == 0) return nullptr;
    const std::optional<recordPart1> before = recordAt(head->prevRecordPos);
    const bool pointsHere = before && before->nextRecordPos == last;
    return pointsHere ? nullptr : "the record before the last one leads somewhere else";
  }

  // It may have left the chain since then: then neither neighbour names it.
  const char* problemAtLastWritten(int64_t position) const {
    const std::optional<recordPart1> head = recordAt(position);
    if (!head) return nullptr;
    const auto before = head->prevRecordPos != 0 ? recordAt(head->prevRecordPos) : std::nullopt;
    const auto after = head->nextRecordPos != 0 ? recordAt(head->nextRecordPos) : std::nullopt;
    const bool fromFront =
        before ? before->nextRecordPos == position : slot_.firstRecordPos == position;
    const bool fromBack =
        after ? after->prevRecordPos == position : slot_.lastRecordPos == position;
    return fromFront == fromBack ? nullptr
                                 : "only one neighbour names the record that was written last";
  }

  std::optional<recordPart1> recordAt(int64_t position) const { return recordAt_(position); }

  const HeadReader recordAt_;
  const int64_t fileSize_;
  const tablePart1& slot_;
};

// The chains of an open database, by the bytes of its file.
class FileEnds {
 public:
  explicit FileEnds(const Operation& operation)
      : operation_(operation), file_(operation.db(), operation.database().path, operation.name()) {
    survey::readDirectory(file_.source(), {}, &survey_);
    if (survey_.unreadableAt >= 0) failReading(survey_.unreadableAt);
  }

  const Survey& survey() const { return survey_; }

  Ends of(const Slot& slot) const {
    const auto recordAt = [this, &slot](int64_t position) { return head(slot, position); };
    return {recordAt, file_.source().size(), slot.fields};
  }

 private:
  std::optional<recordPart1> head(const Slot& slot, int64_t position) const {
    unsigned char bytes[format::record::kData];
    const ByteSource& source = file_.source();
    const size_t count = source.readAt(position, bytes, sizeof bytes);
    if (count != sizeof bytes) {
      const bool isInside =
          position >= 0 && position <= source.size() - static_cast<int64_t>(sizeof bytes);
      if (isInside) failReading(position + static_cast<int64_t>(count));
      return std::nullopt;
    }
    return recordIn(bytes, slot.fields);
  }

  // That a byte cannot be read says nothing about the chain.
  [[noreturn]] void failReading(int64_t position) const {
    operation_.fail(Reason::cannot_read,
                    "the system cannot read it at " + std::to_string(position));
  }

  const Operation& operation_;
  const survey::OpenedFile file_;
  Survey survey_;
};

[[noreturn]] void failChain(const Operation& operation, const Slot& slot, const char* problem,
                            Remedy remedy = Remedy::usual) {
  operation.aboutSlot(slot.position, format::kSlotImageSize);
  ErrorDetails known;
  known.remedy = remedy;
  known.table = format::storedName(slot.fields);
  const std::string why = "table " + survey::shown(known.table) + ": " + problem;
  failure::throwError(operation.database().path, operation.name(), Reason::chain_damaged, why,
                      std::move(known));
}

}  // namespace

Database open_checked(const std::filesystem::path& path, Mode mode) {
  OpenOptions options;
  options.mode = mode;
  options.check = true;
  return Database::open(path, options);
}

void detail::checkEnds(const Operation& operation) {
  const FileEnds file(operation);
  const Survey& survey = file.survey();
  if (survey.header.tableCount < 0 ||
      survey.header.tableCount > static_cast<int>(survey.slots.size())) {
    operation.fail(Reason::directory_damaged, "the number of tables is impossible");
  }
  for (const Slot& slot : survey.slots) {
    if (!slot.counted) break;
    if (!slot.holdsTable()) {
      operation.aboutSlot(slot.position, format::kSlotImageSize);
      operation.fail(Reason::directory_damaged,
                     "slot " + std::to_string(slot.index) + " lacks its marks");
    }
    const char* problem = file.of(slot).problem();
    if (problem != nullptr) failChain(operation, slot, problem);
  }
}

const char* detail::problemAtEnd(int16_t db, const tablePart1& slot) {
  if (slot.recordCount == 0) return nullptr;
  // In one piece: what is read ahead of a place further back ends with what was asked for.
  const auto recordAt = [&](int64_t position) {
    unsigned char bytes[format::record::kData];
    const bool isRead =
        myFileSeek(db, position, kFromStart) == 0 && format::readBytes(db, bytes, sizeof bytes);
    return isRead ? recordIn(bytes, slot) : std::nullopt;
  };
  // How long the file is does not matter to the links.
  return Ends(recordAt, std::numeric_limits<int64_t>::max(), slot).problemAtEnd();
}

void check_ends(const Database& database, Id table) {
  const Operation operation(database.state_, "write to the table");
  detail::look(operation, [&] {
    const FileEnds file(operation);
    for (const Slot& slot : file.survey().slots) {
      if (!slot.counted) break;
      const Ends ends = file.of(slot);
      const bool isAsked = format::identifierNumber(slot.fields.tableID) == table.value;
      const char* problem = isAsked ? ends.problem() : ends.problemBeyondFile();
      if (problem != nullptr) failChain(operation, slot, problem, Remedy::mend);
    }
  });
}

}  // namespace qvdb

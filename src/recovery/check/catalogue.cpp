// What each code means, what fails because of it, and what to do: the words that a finding itself
// need not repeat. In the order of the parts of a file.
#include <qvdbase/qvdb/check.hpp>

namespace qvdb {
namespace {

using enum Severity;

constexpr std::string_view kNothing = "nothing";
constexpr std::string_view kAll = "every call on tables and records; pack and link repair";
constexpr std::string_view kTail =
    "listing the table; lookups, changes and deletions of the records after it; pack unless the "
    "chain simply ends there";
constexpr std::string_view kSalvage = "run 'qvdb salvage' into a new file";
constexpr std::string_view kTailAdvice =
    "run 'qvdb salvage' into a new file; link repair would keep only what is reached from the "
    "front";
constexpr std::string_view kLeave = "nothing needs to be done";
constexpr std::string_view kPack = "nothing needs to be done; 'qvdb compact' drops it";

constexpr FindingCode kCodes[] = {
    // ---- The file as a whole
    {"F1", error, "the file is empty", "every call",
     "restore it from a copy; a pack that failed, or the copying of a frame, leaves such a file "
     "and has not changed its source"},
    {"F2", error, "the file is cut off before the end of its directory", kAll,
     "restore it from a copy; 'qvdb salvage' finds what blocks there are"},
    {"F3", warning, "the file has holes where data should be", kNothing,
     "nothing if the data is meant to be zeros, of which copying programs make holes; else the "
     "system lost what was written there: take it from a copy"},
    {"F5", error, "the system cannot read a part of the file", "every call that needs that part",
     "copy what can be read from the device, then run 'qvdb salvage' on the copy"},

    // ---- Header
    {"H1", error, "the file does not begin with the letters of a database", kAll,
     "if it was one, run 'qvdb salvage' into a new file"},
    {"H2", error, "the version lies outside 100 to 199", kAll,
     "run 'qvdb salvage' into a new file, which gets the version 100"},
    {"H3", error, "the file is an unfinished pack: its version is 101", kNothing,
     "the source of the pack is the good copy: use that; link repair would set the version and "
     "hide that records are missing"},
    {"H4", error, "the database identifier is damaged", kNothing,
     "harmless to the library; programs that compare identifiers may refuse the file"},
    {"H5", error, "the number of tables is impossible",
     "every call on tables that are not counted; adding tables", kSalvage},
    {"H6", error, "the number or the size of the slots is not what every file has", kAll, kSalvage},

    // ---- Directory
    {"D1", error, "a slot in use lacks one of its marks",
     "every call on this table and on those after it; adding tables; pack and link repair",
     kSalvage},
    {"D2", error, "a slot that is not counted holds a table",
     "every call on this table; the next AddTable writes over the slot",
     "if the table has records, run 'qvdb salvage' into a new file before anything is added; else "
     "it is what an interrupted AddTable leaves"},
    {"D3", error, "a table identifier is damaged, zero, or used by two slots",
     "calls on the second table of the same identifier", kSalvage},
    {"D4", warning, "a table name is empty, appears twice, or is not fit to be shown",
     "finding the second table by its name", "use the table's identifier"},
    {"D5", information, "a slot is not written exactly as the library writes it", kNothing, kLeave},
    {"D6", error, "the number of records and the ends of the chain contradict each other",
     "appending to the table; listing it or finding records in it", kSalvage},
    {"D7", error, "a position in a slot cannot be right",
     "calls that start from there: listing and finding from the first record, appending from the "
     "last",
     kTailAdvice},
    {"D8", warning, "a table counts more records than were ever added to it", kNothing,
     "legal after a link repair; otherwise look at the other findings on the table"},
    {"D9", warning, "the counts and the positions of the table data contradict each other",
     "reading the table data, if its first position is the wrong one", "set the table data again"},
    {"D10", information, "a free slot is not as a new file has it", kNothing, kLeave},

    // ---- Chains of records
    {"R1", error, "a link leads to where no block can be", kTail, kTailAdvice},
    {"R2", error, "there is no record block where a link leads", kTail, kTailAdvice},
    {"R3", error, "a link leads into another table's chain", kTail, kTailAdvice},
    {"R4", error, "a record identifier is damaged, or zero",
     "finding this record by the identifier it had", kSalvage},
    {"R5", error, "the chain ends before the number of records is reached",
     "listing the table; finding a record that is not there, or is after the end", kTailAdvice},
    {"R6", error, "the last counted record has a successor: an append was cut off",
     "appending to the table; deleting or enlarging its last record",
     "'qvdb salvage' brings the record in; link repair takes this state for sound"},
    {"R7", error, "the walk from the front does not end at the table's last record",
     "appending: it fails, or what is appended is not found afterwards; deleting the last record",
     kTailAdvice},
    {"R8", error, "a record's back link does not name its predecessor",
     "deleting this record; enlarging it or its predecessor",
     "if the table has no other kind of finding, link repair mends this without loss, where it "
     "notices it; otherwise run 'qvdb salvage' into a new file"},
    {"R9", error, "the chain leads back into itself",
     "nothing at once: lookups and listing repeat records, and miss those after the loop",
     kTailAdvice},
    {"R10", error, "records that only the walk from the back reaches",
     "listing the table; finding these records",
     "run 'qvdb salvage' into a new file; link repair would drop them"},
    {"R11", error, "a record claims more data than its capacity",
     "reading the record: it returns bytes of what follows", kSalvage},
    {"R12", error, "a record reaches beyond the end of the file",
     "reading the record; pack, if the data itself is cut off", kSalvage},
    {"R13", error, "a record's end mark is missing", kNothing,
     "something was written over the block; compare its data with a copy"},
    {"R14", warning, "a record's times cannot be right", kNothing, kLeave},
    {"R15", warning, "several records of a table have the same identifier",
     "finding any but the first of them", "add the others again under identifiers of their own"},
    {"R16", information, "the last written record is no longer in the chain", kNothing, kLeave},

    // ---- Payloads, where they are compared with their checksums
    {"P1", error, "a payload does not agree with its checksum",
     "nothing of the C interface, which returns the bytes as they are; in C++ reading the payload "
     "as a "
     "whole, touching the record, and writing over a part of it",
     "take the payload from a copy of the file and store it with 'qvdb set', which makes a new "
     "checksum; 'qvdb salvage' keeps it as it is"},
    {"P2", warning,
     "a record was changed by a program that does not know checksums, or a change was "
     "cut off",
     kNothing,
     "look at the payload; where it is right, 'qvdb protect --changed' gives it a new checksum"},
    {"P3", information, "a payload has no checksum", kNothing,
     "nothing needs to be done; 'qvdb protect' gives one to every record"},

    // ---- Table data
    {"T1", error, "the position of the table data cannot be right",
     "reading and setting the table data; pack and link repair of the file", kSalvage},
    {"T2", error, "there is no table data of this table where its slot says",
     "reading and setting the table data; pack and link repair of the file", kSalvage},
    {"T3", error, "there is sound table data that the slot does not point to, as a pack leaves it",
     "reading and setting the table data; pack and link repair of the file",
     "'qvdb salvage' into a new file finds the data; 'qvdb compact' of the source avoids it"},
    {"T4", error, "the block of table data is not whole",
     "pack and link repair of the file; reading the data, if it is cut off", kSalvage},
    {"T5", information, "there is no end mark directly after the table data", kNothing, kLeave},

    // ---- Space
    {"S1", error, "two blocks overlap", "reading the first of them returns bytes of the second",
     kSalvage},
    {"S2", warning, "blocks that no chain leads to", kNothing,
     "superseded and deleted ones: 'qvdb compact' drops them; lost or unlinked ones: 'qvdb "
     "salvage' brings them back"},
    {"S3", information, "table data that no slot points to", kNothing, kPack},
    {"S4", warning, "a block that was never finished", kNothing,
     "an append was cut off; 'qvdb compact' drops it"},
    {"S5", warning, "bytes that are no block", kNothing,
     "something else wrote to the file, or the system lost what was written; 'qvdb compact' drops "
     "them"},
    {"S6", information, "blocks inside the payload of another", kNothing,
     "a database is stored as a record; it counts as data, and 'qvdb salvage --deep' extracts it"},
    {"S7", information, "space that is not used", kNothing,
     "nothing needs to be done; 'qvdb compact' drops what is dead and clears older data after "
     "payloads, but keeps the spare capacity of blocks"},
    {"S8", error, "whole blocks of a table that the directory does not have",
     "every call on that table",
     "run 'qvdb salvage' into a new file: it takes them into a table named after the identifier"},

    // ---- Categories
    {"C1", error, "a category record is shorter than its own counts say",
     "pack with new identifiers; decoding the record", "write the record again"},
    {"C2", error, "a category names a record that does not exist", "pack with new identifiers",
     "take the entry out of the category"},
    {"C3", warning, "a category names the last record of the records table",
     "pack with new identifiers", "append another record to 'QVrz_Record' before"},
    {"C4", warning, "categories without the tables that belong to them",
     "pack with new identifiers", "use the ordinary pack"},

    // ---- Imported files
    {"I1", warning, "the list of imported files is damaged",
     "no call of the library; the command-line tool knows only the names before the damage",
     "'qvdb export' writes all records, those without a name under their identifiers"},
    {"I2", information, "a list of imported files has names without records", kNothing,
     "an import that was killed leaves them; importing the same files again completes them"},

    // ---- Transactions
    {"X1", information, "intents of transactions that are in place", kNothing, kPack},
    {"X2", warning, "transactions are committed, but not in place yet",
     "calls that read the file find the state before, or a part of the changes, where walks fail",
     "'qvdb mend' completes them, as does every program that opens the file to write with the C++ "
     "interface; one that is running does it by itself"},
    {"X3", error, "a transaction was not completed in a table that another program has changed",
     "nothing; what the transaction has added to that table is not in it",
     "'qvdb mend --link' adds these records to the table, 'qvdb mend --discard' drops them; "
     "'qvdb salvage' writes a new file that has them"},
    {"X4", information, "a transaction that was never committed, or what it had written", kNothing,
     kPack},
    {"X5", warning, "the word that leads to open transactions is damaged, or leads to none",
     "completing transactions that a crash has left, if there are any",
     "look for records that are missing; 'qvdb salvage' finds their blocks"},

    // ---- What will happen
    {"W1", information, "what the library's calls will do with this file now", "those named",
     "see the other findings"},
};

constexpr FindingCode kUnknown = {"", information, "", "", ""};

}  // namespace

std::span<const FindingCode> finding_codes() noexcept {
  return kCodes;
}

const FindingCode& finding_code(std::string_view code) noexcept {
  for (const FindingCode& each : kCodes) {
    if (each.code == code) return each;
  }
  return kUnknown;
}

std::string_view to_string(Severity severity) noexcept {
  constexpr std::string_view kNames[] = {"information", "warning", "error"};
  const auto number = static_cast<size_t>(severity);
  return number < std::size(kNames) ? kNames[number] : "";
}

std::ostream& operator<<(std::ostream& out, Severity severity) {
  return out << to_string(severity);
}

}  // namespace qvdb

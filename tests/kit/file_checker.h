// The independent checker: walks a whole database file by the format and lists every inconsistency.
// It uses nothing of the library, so it can judge what the library wrote.
//
// Everything that the library itself never produces is a finding, however harmless. What is legal
// but looks odd is none: two records of one identifier, tables of one name when it fills its 32
// bytes, lastWrittenRecordPos on a block that is no longer in the chain, bytes of an older payload
// after a shorter one.
//
// The codes are those of qvdb check:
//   F1 empty file                                  F2 cut off before the directory's end
//   H1 signature letters                           H2 version outside 100 to 199
//   H3 version 101: an unfinished pack             H4 identifier sum of the database
//   H5 table count below 0 or above 31             H6 slot count not 32 or slot size not 144
//   D1 slot in use without its marks               D2 slot not in use with a mark
//   D3 table identifier: wrong sum, zero or taken  D4 table name
//   D5 size groups or filler bytes of a slot       D6 record count and chain ends disagree
//   D7 first, last or last written position        D8 more records than were ever written
//   D9 counts and positions of table data          D10 free slot not as a new file has it
//   R1 link leads to no possible block             R2 mark or header size of a record block
//   R3 block of another table                      R4 identifier sum of a record
//   R5 chain ends before the count                 R6 last counted record has a successor
//   R7 forward walk does not end at the last       R8 back link is not the predecessor
//   R9 loop                                        R10 backward walk differs from the forward one
//   R11 length above capacity                      R12 block reaches beyond the end of the file
//   R13 end mark missing
//   T1 position of table data                      T2 mark, header size or owner of table data
//   T4 length, extent or end mark of table data
//   S1 two blocks overlap                          S4 unreferenced block that is not whole
//   S5 bytes that belong to no block               S8 unreferenced block of a table that is not
//   there
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "kit/bytes.h"

namespace qvdbase::test {

struct Finding {
  std::string code;
  std::string text;
  int64_t offset = 0;  // where in the file
};

// All findings, in the order in which they were found; none for a sound file.
std::vector<Finding> checkFile(const Bytes& file);
std::vector<Finding> checkFile(const std::filesystem::path& path);

// One line per finding.
std::string describe(const std::vector<Finding>& findings);

// The codes, sorted, each once: for comparing with those that a damage should have.
std::vector<std::string> codesOf(const std::vector<Finding>& findings);

}  // namespace qvdbase::test

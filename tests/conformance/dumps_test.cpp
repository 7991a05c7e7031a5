// Every file that the project keeps as an example, sound or not, is dumped: if that succeeds, the
// dump loads, and the dump of the new file is the same byte for byte.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "kit/bytes.h"
#include "kit/process.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class Dumps : public ::testing::Test {
 protected:
  Outcome run(const std::vector<std::string>& words, const std::string& input = {}) {
    ProgramCall call;
    call.program = QVDB_TOOL;
    call.arguments = words;
    call.input = input;
    call.folder = folder_.path();
    return runProgram(call);
  }

  // Whether it could be dumped; of a file that could not, what can be saved must come back.
  bool comesBackOrIsSaved(const fs::path& file) {
    if (comesBack(file)) return true;
    const fs::path saved = folder_.path() / "saved.qvd";
    fs::remove(saved);
    const Outcome salvage = run({"salvage", file.native(), saved.native()});
    if (fs::exists(saved)) {
      EXPECT_TRUE(comesBack(saved)) << file;
      ++saved_;
    } else {
      EXPECT_EQ(salvage.status, 1) << salvage;
    }
    return false;
  }

  // Whether it could be dumped.
  bool comesBack(const fs::path& file) {
    SCOPED_TRACE(file);
    const Outcome dump = run({"dump", file.native()});
    if (dump.status != 0) {
      EXPECT_EQ(dump.status, 1);
      EXPECT_EQ(std::count(dump.err.begin(), dump.err.end(), '\n'), 1) << dump.err;
      return false;
    }
    const fs::path copy = folder_.path() / "copy.qvd";
    fs::remove(copy);
    const Outcome load = run({"load", copy.native()}, dump.out);
    EXPECT_EQ(load.status, 0) << load.err;
    EXPECT_EQ(run({"dump", copy.native()}).out, dump.out);
    return true;
  }

  TempFolder folder_;
  int saved_ = 0;
};

TEST_F(Dumps, OfConformanceFilesLoadBackTheSame) {
  std::set<std::string> refused;
  for (const auto& entry : fs::directory_iterator(QVDBASE_CONFORMANCE)) {
    if (entry.path().extension() != ".qvd") continue;
    if (!comesBackOrIsSaved(entry.path())) refused.insert(entry.path().stem());
  }
  EXPECT_EQ(refused, (std::set<std::string>{"damaged", "interrupted", "packed"}));
  EXPECT_EQ(saved_, 3);
}

TEST_F(Dumps, OfTheCorpusLoadBackTheSame) {
  std::set<std::string> refused;
  for (const auto& entry : fs::directory_iterator(QVDBASE_CORPUS "/database")) {
    if (!comesBackOrIsSaved(entry.path())) refused.insert(entry.path().filename());
  }
  EXPECT_EQ(refused, (std::set<std::string>{
                         "claimed_capacity", "cut_short", "empty_file", "forward_link_cleared",
                         "huge_record", "huge_table_data", "loop_of_one", "loop_of_two",
                         "odd_directory", "renumbering-round-a-loop", "touched_at_version_48"}));
  EXPECT_GE(saved_, 8);
}

// Which are no databases: input for other parts.
TEST_F(Dumps, OfTheRestOfTheCorpusAreRefusedOrLoadBack) {
  for (const auto& entry : fs::recursive_directory_iterator(QVDBASE_CORPUS)) {
    const bool isDatabase = entry.path().parent_path().filename() == "database";
    if (entry.is_regular_file() && !isDatabase) comesBack(entry.path());
  }
}

}  // namespace
}  // namespace qvdbase::test

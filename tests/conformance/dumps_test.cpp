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
};

TEST_F(Dumps, OfConformanceFilesLoadBackTheSame) {
  std::set<std::string> refused;
  for (const auto& entry : fs::directory_iterator(QVDBASE_CONFORMANCE)) {
    if (entry.path().extension() != ".qvd") continue;
    if (!comesBack(entry.path())) refused.insert(entry.path().stem());
  }
  EXPECT_EQ(refused, (std::set<std::string>{"damaged", "interrupted", "packed"}));
}

TEST_F(Dumps, OfTheCorpusLoadBackTheSame) {
  int dumped = 0;
  for (const auto& entry : fs::recursive_directory_iterator(QVDBASE_CORPUS)) {
    if (entry.is_regular_file()) dumped += comesBack(entry.path()) ? 1 : 0;
  }
  EXPECT_GE(dumped, 5);
}

}  // namespace
}  // namespace qvdbase::test

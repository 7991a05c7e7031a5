// put, import and get of files that are larger than the memory that the tool may take.
#include <filesystem>

#include "kit/sanitized.h"
#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class ToolMemory : public ToolTest {
 protected:
  static constexpr std::uintmax_t kSize = 80'000'000;

  void SetUp() override {
    if (kIsSanitized) GTEST_SKIP() << "the sanitizer takes more than the limit";
    fs::create_directory(path("in"));
    writeFile(path("in/large"), bytesOf("begins"));
    fs::resize_file(path("in/large"), kSize);
    done({"create", "test.qvd"});
    done({"add-table", "test.qvd", "notes"});
  }

  // Runs the tool with 60 MiB of addresses, of which programs and libraries take some.
  Outcome limited(const std::string& words) {
    ProgramCall call = callOf({});
    call.program = "/bin/sh";
    call.arguments = {"-c", "ulimit -v 61440; exec '" + std::string(QVDB_TOOL) + "' " + words};
    return runProgram(call);
  }

  void expectDone(const std::string& words) {
    const Outcome outcome = limited(words);
    EXPECT_EQ(outcome.status, 0) << outcome;
  }
};

TEST_F(ToolMemory, IsNotNeededForWhatIsImportedOrWrittenToAFile) {
  expectDone("import test.qvd files in/");
  expectDone("import --replace test.qvd files in/");
  EXPECT_EQ(database().tables[1].records.size(), 1u);
  expectDone("get test.qvd files large -o out");
  EXPECT_EQ(fs::file_size(path("out")), kSize);
  allowDamage();  // sparse files make holes on some systems
}

TEST_F(ToolMemory, IsNotNeededForWhatIsPut) {
  expectDone("put test.qvd notes in/large");
  expectDone("put test.qvd notes < in/large");
  const auto records = json({"records", "--json", "test.qvd", "notes"})["records"];
  ASSERT_EQ(records.size(), 2u);
  for (const auto& record : records) EXPECT_EQ(record["size"], kSize);
  allowDamage();
}

}  // namespace
}  // namespace qvdbase::test

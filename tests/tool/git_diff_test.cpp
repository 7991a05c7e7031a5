// The two lines of docs/text.md by which 'git diff' shows changes of databases, in a repository of
// git's own making.
#include <cstdlib>
#include <regex>

#include "tool/tool_fixture.h"

namespace qvdbase::test {
namespace {

// git, away from the settings of the user and of the machine; 'qvdb' is the tool.
constexpr const char* kFrame = R"(
  command -v git >/dev/null || exit 77
  export HOME="$PWD" XDG_CONFIG_HOME="$PWD" GIT_CONFIG_NOSYSTEM=1 GIT_CEILING_DIRECTORIES="$PWD/.."
  export GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@b GIT_COMMITTER_NAME=a GIT_COMMITTER_EMAIL=a@b
  unset GIT_DIR GIT_WORK_TREE GIT_INDEX_FILE GIT_EXTERNAL_DIFF
  PATH="$PWD/bin:$PATH"
)";

class GitDiff : public ToolTest {
 protected:
  Outcome shell(const std::string& script) {
    ProgramCall call;
    call.program = "/bin/sh";
    call.arguments = {"-euc", kFrame + script};
    call.folder = folder.path();
    return runProgram(call);
  }

  // What the page has in the place of the parentheses.
  static std::string inPage(const char* pattern) {
    const Bytes page = readFile(TEXT_PAGE);
    const std::string text(page.begin(), page.end());
    std::smatch found;
    EXPECT_TRUE(std::regex_search(text, found, std::regex(pattern))) << pattern;
    return found.size() > 1 ? found[1].str() : std::string();
  }
};

TEST_F(GitDiff, ShowsChangesOfDatabasesAsText) {
  const std::string attributes = inPage("with a line `([^`]*)` in\\s+`.gitattributes`");
  const std::string setting = inPage("\n    (git config [^\n]*)\n");
  const Words ids = notes({bytesOf("one"), bytesOf("two")});
  std::filesystem::create_directory(path("bin"));
  std::filesystem::create_symlink(QVDB_TOOL, path("bin/qvdb"));
  Outcome outcome = shell("git init -q . ; echo '" + attributes + "' > .gitattributes\n" + setting +
                          "\ngit add test.qvd .gitattributes; git commit -qm first");
  if (outcome.status == 77) GTEST_SKIP() << "git is not installed";
  ASSERT_EQ(outcome.status, 0) << outcome;
  EXPECT_EQ(shell("git diff --exit-code").status, 0);

  done({"set", "test.qvd", "notes", ids[1]}, "changed");
  outcome = shell("git diff");
  EXPECT_EQ(outcome.status, 0) << outcome;
  const std::regex removed("\n-\\{\"record\":\"" + ids[1] + "\"[^\n]*\"text\":\"two\"\\}\n");
  const std::regex added("\n\\+\\{\"record\":\"" + ids[1] + "\"[^\n]*\"text\":\"changed\"\\}\n");
  const std::regex kept("\n \\{\"record\":\"" + ids[0] + "\"[^\n]*\"text\":\"one\"\\}\n");
  for (const std::regex& line : {removed, added, kept}) {
    EXPECT_TRUE(std::regex_search(outcome.out, line)) << outcome;
  }

  outcome = shell("git commit -qam second; git log -p -1");
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_TRUE(std::regex_search(outcome.out, removed)) << outcome;
  EXPECT_TRUE(std::regex_search(outcome.out, added)) << outcome;
}

}  // namespace
}  // namespace qvdbase::test

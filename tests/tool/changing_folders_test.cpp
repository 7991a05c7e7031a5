// qvdb import of a folder that another user changes meanwhile: only the files that were listed are
// stored, and none through a link that was put in the place of a folder.
#include <filesystem>

#include "tool/tool_fixture.h"
#include "tools/qvdb/archive/file_tree.h"
#include "tools/qvdb/archive/importer.h"
#include "tools/qvdb/streams/failure.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class ChangingFolders : public ToolTest {
 protected:
  void SetUp() override {
    done({"create", "test.qvd"});
    done({"add-table", "test.qvd", "files"});
    fs::create_directories(path("in/sub/deeper"));
    fs::create_directories(path("private/deeper"));
    for (const char* name : {"in/a", "in/sub/b", "in/sub/deeper/c"}) {
      writeFile(path(name), bytesOf("own"));
    }
    for (const char* name : {"private/b", "private/deeper/c"}) {
      writeFile(path(name), bytesOf("private"));
    }
  }

  // Lists the files, changes them, and stores them. Returns the message of the failure.
  template <typename Change>
  std::string messageOf(const std::string& from, Change change) {
    auto database = qvdb::Database::open(path(), qvdb::Mode::exclusive);
    auto table = database.table("files");
    const qvdb::tool::FileTree tree = qvdb::tool::listFiles({from}, path());
    change();
    qvdb::tool::Importer importer(database, table, tree, {});
    importer.check(false);
    try {
      importer.run();
    } catch (const qvdb::tool::Failure& failure) {
      return failure.what();
    }
    return {};
  }

  void replaceByLink() {
    fs::rename(path("in/sub"), path("in/sub2"));
    fs::create_directory_symlink("../private", path("in/sub"));
  }

  void expectNothingPrivate() {
    const auto list = json({"records", "--json", "test.qvd", "files"});
    for (const auto& record : list["records"]) {
      EXPECT_EQ(done({"get", "test.qvd", "files", record["id"]}), "own");
    }
  }

  void expectPart(const std::string& text, const std::string& part) {
    EXPECT_NE(text.find(part), std::string::npos) << "'" << part << "' is not in: " << text;
  }
};

TEST_F(ChangingFolders, AFolderThatBecameALinkIsNotFollowed) {
  const std::string message = messageOf(path("in"), [&] { replaceByLink(); });
  expectPart(message, "in/sub: was a folder");
  expectPart(message, "stored");
  expectNothingPrivate();
}

TEST_F(ChangingFolders, AFolderThatTheUserNamedAndThatBecameALinkIsNotFollowed) {
  const std::string message = messageOf(path("in/sub"), [&] { replaceByLink(); });
  expectPart(message, "in/sub: was a folder");
  expectNothingPrivate();
}

TEST_F(ChangingFolders, AFolderOfAFolderThatBecameALinkIsNotFollowed) {
  const std::string message = messageOf(path("in/sub/"), [&] {
    fs::rename(path("in/sub/deeper"), path("deeper"));
    fs::create_directory_symlink("../../private/deeper", path("in/sub/deeper"));
  });
  expectPart(message, "in/sub/deeper: was a folder");
  expectNothingPrivate();
}

TEST_F(ChangingFolders, AFileThatBecameAnotherIsRefused) {
  const std::string message = messageOf(path("in/"), [&] {
    fs::rename(path("in/sub/b"), path("in/sub/b2"));
    fs::create_hard_link(path("private/b"), path("in/sub/b"));
  });
  expectPart(message, "in/sub/b: is another file now");
  expectNothingPrivate();
}

TEST_F(ChangingFolders, AFolderThatWasReplacedByAnotherIsRefused) {
  const std::string message = messageOf(path("in/"), [&] {
    fs::rename(path("in/sub/deeper"), path("in/sub/deeper2"));
    fs::rename(path("private/deeper"), path("in/sub/deeper"));
  });
  expectPart(message, "deeper/c: is another file now");
  expectNothingPrivate();
}

TEST_F(ChangingFolders, ALinkThatTheUserNamesIsFollowed) {
  fs::create_directory_symlink("in", path("link"));
  EXPECT_EQ(messageOf(path("link/sub"), [] {}), "");
  EXPECT_EQ(json({"records", "--json", "test.qvd", "files"})["count"], 2);
  done({"import", "test.qvd", "more", "link/"});
  EXPECT_EQ(json({"records", "--json", "test.qvd", "more"})["count"], 3);
}

}  // namespace
}  // namespace qvdbase::test

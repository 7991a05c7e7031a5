// The list of names that an import writes: what it writes can be read again, however deep the
// folders are, and a list of a later version is left alone.
#include <filesystem>
#include <set>

#include "tool/tool_fixture.h"
#include "tools/qvdb/archive/import_names.h"
#include "tools/qvdb/archive/importer.h"
#include "tools/qvdb/streams/failure.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class ImportedNames : public ToolTest {
 protected:
  void SetUp() override { done({"create", "test.qvd"}); }

  std::set<std::string> names() {
    std::set<std::string> result;
    const auto list = json({"records", "--json", "test.qvd", "files"});
    for (const auto& record : list["records"]) result.insert(record.value("name", "-"));
    return result;
  }

  // Writes below a folder whose path is longer than most.
  static void fillDeepFolder(const fs::path& root, int levels, int files) {
    fs::path folder = root;
    for (int i = 0; i < levels; ++i) folder /= std::string(200, 'd');
    fs::create_directories(folder);
    for (int i = 0; i < files; ++i) writeFile(folder / std::to_string(i), bytesOf("x"));
  }
};

// 17 folders of 200 characters below each other, and 600 files in the last: only 378 of the names
// could be read again, and the next import dropped the others.
TEST_F(ImportedNames, OfFilesInDeepFoldersCanAllBeReadAgain) {
  fillDeepFolder(path("in"), 17, 600);
  done({"import", "test.qvd", "files", "in/"});
  const auto all = names();
  EXPECT_EQ(all.size(), 600u);
  EXPECT_EQ(all.count("-"), 0u);
  done({"check", "test.qvd"});
  writeFile(path("one"), bytesOf("1"));
  done({"import", "test.qvd", "files", "one"});
  EXPECT_EQ(names().size(), 601u);
  EXPECT_EQ(names().count("-"), 0u);
}

// No path of a system is that long, but a list that no reader takes must never be written.
TEST_F(ImportedNames, ThatNoReaderWouldTakeAreRefusedBeforeAnythingIsStored) {
  done({"add-table", "test.qvd", "files"});
  const Bytes before = contents();
  {
    auto database = qvdb::Database::open(path(), qvdb::Mode::exclusive);
    auto table = database.table("files");
    const auto treeOf = [](size_t length, int files) {
      qvdb::tool::FileTree tree;
      for (int i = 0; i < files; ++i) {
        qvdb::tool::FoundFile found;
        found.file.name = std::string(length, 'x') + std::to_string(i);
        tree.files.push_back(found);
      }
      return tree;
    };
    for (const auto& tree : {treeOf(65'535, 1), treeOf(60'000, 400)}) {
      qvdb::tool::ImportNames names(database, table, tree, {});
      EXPECT_THROW(names.addNew(), qvdb::tool::Failure);
      qvdb::Table none;
      qvdb::tool::Importer importer(database, none, tree, {}, "new");
      EXPECT_THROW(importer.run(), qvdb::tool::Failure);
    }
  }
  EXPECT_TRUE(sameBytes(contents(), before));
}

class NewerNames : public ImportedNames {
 protected:
  void SetUp() override {
    ImportedNames::SetUp();
    writeFile(path("a"), bytesOf("a"));
    done({"import", "test.qvd", "files", "a"});
    const uint64_t list = static_cast<uint64_t>(database().tables[0].slot.firstDataPos);
    const Bytes file = contents();
    for (size_t at = list; at < file.size(); ++at) {
      if (file.at(at, 7) != bytesOf("QVfiles")) continue;
      patchFile(path(), at + 7, hex("03"));
      return;
    }
    FAIL() << "there is no list";
  }
};

TEST_F(NewerNames, AreRefusedByEverythingThatReadsNames) {
  const std::string newer = "newer qvdb";
  const std::string id = std::to_string(database().tables[0].records[0].id);
  expectOnlyRead([&] {
    for (const Words& words :
         {Words{"export", "test.qvd", "files", "out"}, Words{"import", "test.qvd", "files", "a"},
          Words{"import", "--replace", "test.qvd", "files", "a"},
          Words{"records", "test.qvd", "files"}, Words{"get", "test.qvd", "files", "a"},
          Words{"rm", "test.qvd", "files", "a"}, Words{"rm", "test.qvd", "files", id}}) {
      SCOPED_TRACE(words[0]);
      fails(words, 1, {"test.qvd", "'files'", newer});
    }
    EXPECT_FALSE(fs::exists(path("out/a")));
    done({"export", "--by-id", "test.qvd", "files", "ids"});
    EXPECT_EQ(std::distance(fs::directory_iterator(path("ids")), fs::directory_iterator()), 1);
  });
}

TEST_F(NewerNames, AreNotReplacedByOtherDataWithoutForce) {
  expectOnlyRead([&] {
    fails({"data", "test.qvd", "files", "--set", "-"}, 1, {"names", "--force"}, "x");
  });
  done({"data", "test.qvd", "files", "--set", "-", "--force"}, "x");
}

}  // namespace
}  // namespace qvdbase::test

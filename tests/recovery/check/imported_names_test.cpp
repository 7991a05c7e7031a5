// What the check says of the lists of names that belong to imported files.
#include <gtest/gtest.h>

#include "recovery/check/base_files.h"

namespace qvdbase::test {
namespace {

// A list as docs/imported-files.md describes it.
class NameList {
 public:
  NameList& entry(char kind, uint64_t record, const std::string& rest, uint8_t shared = 0,
                  const std::string& target = {}) {
    bytes_.text(std::string(1, kind)).be(2, 0644).be(8, 1000).be(4, 5).be(8, record);
    bytes_.be(1, shared).be(1, rest.size()).text(rest).be(1, target.size()).text(target);
    return *this;
  }
  const Bytes& bytes() const { return bytes_; }

 private:
  Bytes bytes_ = bytesOf("QVfiles").be(1, 1);
};

NameList soundList() {
  return NameList()
      .entry('d', 0, "d")
      .entry('f', 0xA1, "/one", 1)
      .entry('l', 0, "link", 2, "one")
      .entry('-', 0xA7, "two", 2);
}

struct Imported {
  Checked checked;
  int64_t list = 0;  // where it begins
};

Imported checkList(const Bytes& list, const Bytes& record = bytesOf("1")) {
  FileImage image;
  image.addTable("files", 0x11);
  image.addRecord(0, 0xA1, record);
  image.setTableData(0, list, static_cast<uint32_t>(list.size() + 20));
  return {checkBytes(image.build(), {.now = kNow}), image.slot(0).firstDataPos + 21};
}

TEST(CheckOfImportedNames, FindsNothingInASoundList) {
  const Checked checked = checkList(soundList().bytes()).checked;
  EXPECT_EQ(checked.report.state, qvdb::CheckState::sound) << checked.text();
  EXPECT_EQ(checked.codes(qvdb::Severity::information).count("I2"), 0u) << checked.text();
}

TEST(CheckOfImportedNames, WarnsAtTheFirstEntryThatMakesNoSense) {
  const size_t second = 8 + 23 + 4;
  const Bytes sound = soundList().bytes();
  for (const size_t at : {second, second + 23, second + 24, second + 25, second + 29}) {
    Bytes list = sound;
    list[at] = at == second + 25 ? 0x00 : 0xFF;  // kind, shared, rest, the name itself, target
    const Imported imported = checkList(list);
    EXPECT_EQ(imported.checked.report.state, qvdb::CheckState::unusual) << at;
    const qvdb::Finding finding = imported.checked.first("I1");
    EXPECT_EQ(finding.severity, qvdb::Severity::warning);
    EXPECT_EQ(finding.offset, imported.list + static_cast<int64_t>(second));
    EXPECT_NE(finding.message.find("first 1 entry"), std::string::npos) << finding.message;
    EXPECT_EQ(finding.table, "files");
  }
}

TEST(CheckOfImportedNames, WarnsOfNamesThatLeadOutOfAFolder) {
  for (const char* name : {"..", "a/../b", "/a", "a//b", "a/", "."}) {
    const Checked checked = checkList(NameList().entry('f', 0xA1, name).bytes()).checked;
    EXPECT_EQ(checked.codes(qvdb::Severity::warning), std::set<std::string>{"I1"}) << name;
  }
}

TEST(CheckOfImportedNames, WarnsOfAListThatIsCutOffAnywhere) {
  const Bytes sound = soundList().bytes();
  const std::set<size_t> ends = {8, 8 + 27, 8 + 27 + 30, 8 + 27 + 30 + 33};
  for (size_t size = 8; size < sound.size(); ++size) {
    const Checked checked = checkList(sound.cut(size)).checked;
    EXPECT_EQ(checked.codes(qvdb::Severity::warning).count("I1"), ends.count(size) == 0 ? 1u : 0u)
        << size << checked.text();
  }
}

TEST(CheckOfImportedNames, WarnsOfAnImpossibleTimeAndReadsOn) {
  Bytes list = soundList().bytes();
  list[8 + 11] = 0xFF;
  const Imported imported = checkList(list);
  EXPECT_EQ(imported.checked.first("I1").offset, imported.list + 8);
  EXPECT_EQ(imported.checked.report.warnings, 1u);
}

// A list of version 2: times of the entries, and fields that a reader need not know.
Bytes timedList(const Bytes& fields = bytesOf("x").be(1, 3).text("abc")) {
  Bytes list = bytesOf("QVfiles").be(1, 2).be(8, 1000).fill(16, 0);
  list.text("f").be(2, 0644).be(8, 1000).be(4, 5).be(8, 0xA1).be(8, 1500).be(8, 0);
  list.be(1, 0).be(1, 3).text("one").be(1, 0).be(1, fields.size()).add(fields);
  list.text("-").be(2, 0644).be(8, 1000).be(4, 5).be(8, 0xA7).be(8, 1500).be(8, 1600);
  return list.be(1, 1).be(1, 1).text("x").be(1, 0).be(1, 0);
}

TEST(CheckOfImportedNames, FindsNothingInASoundListWithTimes) {
  const Checked checked = checkList(timedList()).checked;
  EXPECT_EQ(checked.report.state, qvdb::CheckState::sound) << checked.text();
}

TEST(CheckOfImportedNames, WarnsOfAListWithTimesThatIsCutOffAnywhere) {
  const Bytes sound = timedList();
  const size_t second = 32 + 39 + 5 + 1 + 6;
  for (size_t size = 8; size < sound.size(); ++size) {
    const bool isEnd = size == 32 || size == second;
    const Checked checked = checkList(sound.cut(size)).checked;
    EXPECT_EQ(checked.codes(qvdb::Severity::warning).count("I1"), isEnd ? 0u : 1u)
        << size << checked.text();
  }
}

TEST(CheckOfImportedNames, WarnsOfFieldsThatMakeNoSense) {
  for (const Bytes& fields : {bytesOf("x"), bytesOf("x").be(1, 1), bytesOf("x").be(1, 0x80),
                              bytesOf("x").be(1, 0).text("y").be(1, 2).text("z"),
                              bytesOf("x").fill(5, 0xFF), bytesOf("x").fill(9, 0xFF).be(1, 1)}) {
    const Checked checked = checkList(timedList(fields)).checked;
    EXPECT_EQ(checked.codes(qvdb::Severity::warning), std::set<std::string>{"I1"});
  }
}

// What a kill leaves between the mark after a shorter list and its length.
TEST(CheckOfImportedNames, TakesAnEndMarkForTheEnd) {
  Bytes list = soundList().bytes();
  list[8 + 27] = 'i';
  EXPECT_EQ(checkList(list).checked.report.state, qvdb::CheckState::sound);
}

TEST(CheckOfImportedNames, CountsNamesWithoutARecord) {
  const Imported imported =
      checkList(NameList().entry('f', 0xA1, "1").entry('f', 0xA2, "2").entry('f', 0, "3").bytes());
  EXPECT_EQ(imported.checked.report.state, qvdb::CheckState::sound);
  EXPECT_NE(imported.checked.first("I2").message.find("2 names"), std::string::npos);
}

TEST(CheckOfImportedNames, LeavesOtherDataAlone) {
  for (const Bytes& data : {bytesOf("QVfiles").be(1, 3).fill(40, 0xFF), bytesOf("QVfile"),
                            bytesOf("something else that is data")}) {
    EXPECT_EQ(checkList(data).checked.report.state, qvdb::CheckState::sound);
  }
}

// Each entry takes 28 bytes and repeats a name that grows with every one.
TEST(CheckOfImportedNames, IsNotHeldUpByNamesThatShareEverything) {
  Bytes list = NameList().entry('f', 0xA1, std::string(255, 'x')).bytes();
  for (unsigned i = 0; i < 60'000; ++i) {
    list.text("f").be(2, 0644).be(8, 0).be(4, 0).be(8, 1);
    for (unsigned rest = 255 + i;; rest >>= 7) {
      list.be(1, rest < 0x80 ? rest : (rest & 0x7F) | 0x80);
      if (rest < 0x80) break;
    }
    list.be(1, 1).text("x").be(1, 0);
  }
  const Checked checked = checkList(list).checked;
  EXPECT_EQ(checked.codes(qvdb::Severity::warning), std::set<std::string>{"I1"});
  // How far it is read does not depend on where in the file it is.
  const Checked after = checkList(list, Bytes(size_t{3} << 20, '1')).checked;
  EXPECT_EQ(after.first("I1").message, checked.first("I1").message);
}

}  // namespace
}  // namespace qvdbase::test

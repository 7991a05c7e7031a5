// qvdb categories: the categories of a database, the records that they list, and whether the
// database can be renumbered.
#include <nlohmann/json.hpp>

#include "categories/category.h"
#include "categories/renewal.h"
#include "command_line/commands.h"
#include "commands/locate.h"
#include "format/category.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/text.h"

using namespace qvdbase::format;

namespace qvdb::tool {
namespace {

struct Options {
  std::string file;
  bool json = false;
};

constexpr size_t kMostProblems = 20;  // that are listed; the others are counted

// What keeps the database from being renumbered.
class Outlook {
 public:
  void add(const std::string& problem) {
    if (++count_ <= kMostProblems) problems_.push_back(problem);
  }

  // What has nothing to do with the categories.
  void judgeFile(const std::string& file) {
    const EndsAtOnce atOnce;
    if (!check(file).pack) {
      add("a table or its chain is damaged; 'qvdb check' says where");
      return;
    }
    try {
      static_cast<void>(compact(file, file + ".renumbered", {}, {.dry_run = true}));
    } catch (const Error& error) {
      const Reason reason = error.reason();
      if (reason != Reason::damaged && reason != Reason::chain_damaged) throw;
      add("it has errors, or records that the new file would not have ('qvdb check' says which); "
          "--force leaves them out");
    }
  }

  void judge(const Category& category, const Renewal& renewal) {
    const std::string who = "the category in record " + to_string(category.record) + " ";
    if (!category.isDecoded && !category.isEmpty) {
      add(who + "is shorter than its counts say; write it again");
    }
    for (const Id id : category.second) {
      const Reference reference = renewal.reference(id);
      if (reference == Reference::isMissing) {
        add(who + "lists " + to_string(id) +
            ", which QVrz_Record does not have; take the entry out");
      } else if (reference == Reference::isNotReplaced) {
        add(who + "lists " + to_string(id) +
            ", for which no new identifier is found: that of the last record of QVrz_Record is "
            "lost, and tables after it overwrite the first ones; take the entry out");
      }
    }
  }

  Json json() const {
    Json json;
    json["succeeds"] = count_ == 0;
    json["problems"] = problems_;
    json["problem_count"] = count_;
    return json;
  }

  void print() const {
    printLine("");
    if (count_ == 0) {
      printLine("'qvdb renumber' will succeed.");
      return;
    }
    printLine("'qvdb renumber' will fail:");
    for (const std::string& problem : problems_) tool::print(wrapped("- " + problem, 99, 2));
    if (count_ > problems_.size()) {
      printLine("- and " + std::to_string(count_ - problems_.size()) + " more like these");
    }
  }

 private:
  std::vector<std::string> problems_;
  uint64_t count_ = 0;
};

const char* wordFor(Reference reference) {
  switch (reference) {
    case Reference::isRenewed:
      return "renewed";
    case Reference::isMissing:
      return "missing";
    case Reference::isNotReplaced:
      return "not_replaced";
    case Reference::isKept:
      return "kept";
  }
  return "";
}

const char* remarkOn(Reference reference) {
  switch (reference) {
    case Reference::isMissing:
      return "  no such record in QVrz_Record";
    case Reference::isNotReplaced:
      return "  'qvdb renumber' finds no new identifier for it";
    default:
      return "";
  }
}

void printCategory(const Category& category, const Renewal& renewal) {
  printLine("");
  printLine("record      " + to_string(category.record));
  if (category.isEmpty) return printLine("  holds no category: it has 8 bytes or fewer");
  if (!category.isDecoded)
    return printLine("  cannot be decoded: it is shorter than its counts say");
  printLine("  category  " + to_string(category.id) + "  " + escaped(category.name));
  printLine("  parameter " + std::to_string(category.param) + ", related to " +
            to_string(category.related) + ", " +
            counted(category.extraLength, "further byte", "further bytes"));
  printLine("  first     " + counted(category.first.size(), "identifier", "identifiers"));
  for (const Id id : category.first) printLine("    " + to_string(id));
  printLine("  records   " + std::to_string(category.second.size()));
  for (const Id id : category.second) {
    printLine("    " + to_string(id) + remarkOn(renewal.reference(id)));
  }
}

Json jsonOf(const Category& category, const Renewal& renewal) {
  Json json;
  json["record"] = to_string(category.record);
  json["decoded"] = category.isDecoded;
  if (!category.isDecoded) return json;
  json["id"] = to_string(category.id);
  addText(&json, "name", category.name);
  json["parameter"] = category.param;
  json["related"] = to_string(category.related);
  json["extra_bytes"] = category.extraLength;
  json["first"] = Json::array();
  for (const Id id : category.first) json["first"].push_back(to_string(id));
  json["records"] = Json::array();
  for (const Id id : category.second) {
    Json entry;
    entry["id"] = to_string(id);
    entry["state"] = wordFor(renewal.reference(id));
    json["records"].push_back(entry);
  }
  return json;
}

int run(const Options& options) {
  const Database database = openToRead(options.file);
  const auto table = database.find_table(kCategoryTable);
  Outlook outlook;
  Json json;
  addText(&json, "file", options.file);
  json["categories"] = Json::array();
  bool isWhole = true;
  if (!options.json) printLine("file        " + escaped(options.file));
  if (table) {
    const Renewal renewal(database);
    forEachCategory(database, *table, [&](const Category& category) {
      isWhole = isWhole && (category.isDecoded || category.isEmpty);
      outlook.judge(category, renewal);
      if (options.json) {
        json["categories"].push_back(jsonOf(category, renewal));
      } else {
        printCategory(category, renewal);
      }
    });
  } else {
    outlook.add("there is no table 'QVrz_Category'; 'qvdb pack' copies such a database");
  }
  outlook.judgeFile(options.file);
  json["renumber"] = outlook.json();
  options.json ? printJson(json) : outlook.print();
  return isWhole ? kDone : kFailed;
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("FILE", options->file, kFileHelp);
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kCategoriesCommand = {
    "categories",
    "show the categories and the records they list",
    R"(Shows the categories of a database, which are the records of its table QVrz_Category: identifier,
name, parameter, related identifier, and both lists. The second list names records of QVrz_Record;
those that are missing there are marked.

Then it says whether 'qvdb renumber' will succeed, which gives these records new identifiers and
puts them into the categories, and if not, why. A category that cannot be decoded makes the status
1. The file is only read.)",
    R"(qvdb categories notes.qvd
qvdb categories --json notes.qvd | jq .renumber)",
    define,
};

}  // namespace qvdb::tool

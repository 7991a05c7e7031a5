// qvdb diff: what differs between two databases.
#include <nlohmann/json.hpp>

#include "command_line/commands.h"
#include "commands/locate.h"
#include "content/comparison.h"
#include "content/patch_writer.h"
#include "content/text_output.h"
#include "streams/output.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

constexpr int kSame = 0;
constexpr int kDiffer = 1;
constexpr int kTrouble = 2;

struct Options {
  std::string a;
  std::string b;
  bool json = false;
  bool patch = false;
};

std::string wordsFor(const TableDifferences& differences) {
  std::string words;
  const auto add = [&words](bool differs, const char* word) {
    if (differs) words += (words.empty() ? "" : ", ") + std::string(word);
  };
  add(differences.name, "name");
  add(differences.id, "identifier");
  add(differences.version, "version");
  add(differences.flags, "flags");
  add(differences.data, "data");
  return words;
}

std::string sizesOf(const Record& a, const Record& b) {
  if (a.size() == b.size()) return counted(a.size(), "byte", "bytes");
  return std::to_string(a.size()) + " -> " + counted(b.size(), "byte", "bytes");
}

class TextDifferences : public DifferenceTaker {
 public:
  void header(const DatabaseInfo& a, const DatabaseInfo& b) override {
    std::string words;
    if (a.id != b.id) words += " identifier";
    if (a.version != b.version) words += " version";
    if (a.signature != b.signature) words += " signature";
    printLine("~ header:" + words);
  }
  void tableOrder() override { printLine("> the tables have another order"); }
  void tableRemoved(const Table& table) override {
    printLine("- table '" + escaped(table.name()) + "', " +
              counted(table.count(), "record", "records"));
  }
  void beginTable(const TablePair& pair, const TableDifferences& differences) override {
    name_ = escaped(pair.b->name());
    if (!pair.a) printLine("+ table '" + name_ + "'");
    if (differences.any()) printLine("~ table '" + name_ + "': " + wordsFor(differences));
  }
  void removed(const Record& record) override { say('-', record, size(record)); }
  void added(const Record& record, std::optional<Id>) override { say('+', record, size(record)); }
  void changed(const Record& a, const Record& b, const RecordDifferences& differences) override {
    std::string what = differences.payload ? "payload, " + sizesOf(a, b) : std::string();
    if (differences.times) what += what.empty() ? "times" : "; times";
    say('~', b, what);
  }
  void moved(const Record& record, std::optional<Id> before) override {
    say('>', record, before ? "after " + to_string(*before) : std::string("to the beginning"));
  }
  void endTable() override {}

 private:
  static std::string size(const Record& record) { return counted(record.size(), "byte", "bytes"); }
  void say(char mark, const Record& record, const std::string& what) {
    printLine(std::string(1, mark) + ' ' + name_ + ' ' + to_string(record.id()) + ": " + what);
  }

  std::string name_;
};

// An object for each difference, on a line of its own.
class JsonDifferences : public DifferenceTaker {
 public:
  void header(const DatabaseInfo& a, const DatabaseInfo& b) override {
    Json json;
    json["change"] = "header";
    json["id"] = a.id != b.id;
    json["version"] = a.version != b.version;
    json["signature"] = a.signature != b.signature;
    write(json);
  }
  void tableOrder() override { write({{"change", "table_order"}}); }
  void tableRemoved(const Table& table) override { write(ofTable("table_removed", table)); }
  void beginTable(const TablePair& pair, const TableDifferences& differences) override {
    name_ = pair.b->name();
    if (!pair.a) write(ofTable("table_added", *pair.b));
    if (!differences.any()) return;
    Json json = ofTable("table_changed", *pair.b);
    json["name"] = differences.name;
    json["identifier"] = differences.id;
    json["version"] = differences.version;
    json["flags"] = differences.flags;
    json["data"] = differences.data;
    write(json);
  }
  void removed(const Record& record) override { write(ofRecord("removed", record)); }
  void added(const Record& record, std::optional<Id> before) override {
    write(placed(ofRecord("added", record), before));
  }
  void changed(const Record& a, const Record& b, const RecordDifferences& differences) override {
    Json json = ofRecord("changed", b);
    json["size_before"] = a.size();
    json["payload"] = differences.payload;
    json["times"] = differences.times;
    write(json);
  }
  void moved(const Record& record, std::optional<Id> before) override {
    write(placed(ofRecord("moved", record), before));
  }
  void endTable() override {}

 private:
  static void write(const Json& json) { printLine(jsonText(json, false)); }
  static Json ofTable(const char* change, const Table& table) {
    Json json;
    json["change"] = change;
    addText(&json, "table", table.name());
    json["table_id"] = to_string(table.id());
    return json;
  }
  Json ofRecord(const char* change, const Record& record) const {
    Json json;
    json["change"] = change;
    addText(&json, "table", name_);
    json["record"] = to_string(record.id());
    json["size"] = record.size();
    return json;
  }
  static Json placed(Json json, std::optional<Id> before) {
    json["after"] = before ? Json(to_string(*before)) : Json(nullptr);
    return json;
  }

  std::string name_;
};

bool compare(const Options& options) {
  const Database a = openToRead(options.a);
  const Database b = openToRead(options.b);
  if (options.patch) {
    JsonLines lines([](std::string_view text) { print(text); });
    const bool differs = writePatch(a, b, lines);
    lines.flush();
    return differs;
  }
  if (options.json) {
    JsonDifferences json;
    return compareDatabases(a, b, json);
  }
  TextDifferences text;
  return compareDatabases(a, b, text);
}

// Status 1 means that they differ, so that every failure has 2.
int run(const Options& options) {
  if (options.json && options.patch) throw wrongUsage("--json and --patch exclude each other");
  try {
    return compare(options) ? kDiffer : kSame;
  } catch (const Failure& failure) {
    throw Failure(failure.what(), kTrouble);
  } catch (const Error& error) {
    const std::string advice = adviceFor(error);
    throw Failure(advice.empty() ? std::string(error.what()) : error.what() + ("; " + advice),
                  kTrouble);
  }
}

Action define(Arguments& arguments) {
  const auto options = std::make_shared<Options>();
  arguments.argument("A", options->a, "The database to begin with.");
  arguments.argument("B", options->b, "The database that it is compared with.");
  arguments.flag("--patch", options->patch,
                 "Write what makes B of A, as lines that 'qvdb patch' takes.");
  arguments.json(options->json);
  return actionOf(options, run);
}

}  // namespace

extern const Command kDiffCommand = {
    "diff",
    "show what differs between two databases",
    R"(Compares what two databases hold, whatever their layout is, and prints a line for each difference:
"+" for what only B has, "-" for what only A has, "~" for what changed, ">" for a record that has another
place in the order. Tables are taken for the same by their identifier, else by their name; records by
their identifier. Spare capacity and counters are not compared.

With --json each difference is a JSON object on a line of its own. With --patch the lines are what 'qvdb
patch' needs to make B of A, payloads included.

When another program writes to one of them meanwhile, the status is 2, and what was printed may mix
moments: compare copies that 'qvdb backup' makes.

Both files are only read. Memory is needed for identifiers, about 150 bytes for each record of the
largest table, never for payloads.)",
    R"(qvdb diff before.qvd after.qvd
qvdb diff --json old.qvd new.qvd | jq -r 'select(.change == "added").record'
qvdb diff --patch before.qvd after.qvd > changes.jsonl)",
    define,
    "0  both hold the same\n1  they differ\n2  a database cannot be read, or wrong usage",
};

}  // namespace qvdb::tool

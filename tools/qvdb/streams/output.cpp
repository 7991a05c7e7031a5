// Standard output.
#include "streams/output.h"

#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

constexpr size_t kBufferSize = 65536;
std::string waiting;  // not written yet

void writeAll(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<size_t>(written));
      continue;
    }
    if (errno == EPIPE) throw OutputClosed();
    if (!canContinueWriting(STDOUT_FILENO)) throw systemFailure("standard output", "write");
  }
}

}  // namespace

void print(std::string_view text) {
  if (waiting.size() + text.size() > kBufferSize) flushOutput();
  if (text.size() > kBufferSize) {
    writeAll(text);
  } else {
    waiting += text;
  }
}

void printLine(std::string_view text) {
  print(text);
  print("\n");
}

void print(std::span<const std::byte> bytes) {
  print(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

void flushOutput() {
  std::string text;
  text.swap(waiting);
  writeAll(text);
  text.clear();
  waiting.swap(text);
}

void discardOutput() {
  waiting.clear();
}

bool outputIsTerminal() {
  return ::isatty(STDOUT_FILENO) == 1;
}

std::string jsonText(const Json& value, bool indented) {
  return value.dump(indented ? 2 : -1, ' ', true, Json::error_handler_t::replace);
}

void printJson(const Json& value) {
  printLine(jsonText(value, true));
}

void addText(Json* object, const char* key, std::string_view bytes) {
  (*object)[key] = bytes;
  if (!isUtf8(bytes)) (*object)[std::string(key) + "_bytes"] = hexDigits(bytes);
}

void printSourceInUse(const FileWriter& writer) {
  printLine("The source is in use: " + escaped(to_string(writer)) +
            "; repeat this when it has closed the file.");
}

void addWriter(Json* object, const char* key, const FileWriter& writer) {
  if (writer.process == 0) return;
  Json& member = (*object)[key];
  member["process"] = writer.process;
  addText(&member, "name", writer.name);
}

JsonArrayWriter::JsonArrayWriter(const Json& head, const char* arrayName) {
  std::string text = jsonText(head, false);
  text.pop_back();  // the closing brace
  if (!head.empty()) text += ',';
  print(text + "\"" + arrayName + "\":[");
}

void JsonArrayWriter::add(const Json& element) {
  print(hasElements_ ? ",\n" : "\n");
  hasElements_ = true;
  print(jsonText(element, false));
}

void JsonArrayWriter::finish(const std::string& error) {
  std::string end = "\n]";
  if (!error.empty()) end += ",\"error\":" + jsonText(Json(error), false);
  print(end + "}\n");
}

}  // namespace qvdb::tool

// Standard output: buffered, and never silently lost.
#pragma once

#include <qvdbase/qvdb/file_writer.hpp>

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

namespace qvdb::tool {

using Json = nlohmann::ordered_json;

// Thrown when the reader of standard output has gone: the command stops without a message.
struct OutputClosed {};

// Writes to standard output. What a command writes reaches the system at the latest when it ends.
// Throws OutputClosed when standard output has no reader any more, Failure when it cannot be
// written.
void print(std::string_view text);
void printLine(std::string_view text);
void print(std::span<const std::byte> bytes);
void flushOutput();

// Throws away what was not written yet.
void discardOutput();

// That what was saved may be work in progress of the one who writes to the source.
void printSourceInUse(const FileWriter& writer);

bool outputIsTerminal();

// A JSON text in ASCII, on one line or indented.
std::string jsonText(const Json& value, bool indented);
void printJson(const Json& value);

// Bytes from a file as JSON members: `key` holds them as text, with a replacement character for
// what is not UTF-8; then `key`_bytes is added, with all bytes in hexadecimal.
void addText(Json* object, const char* key, std::string_view bytes);

// A member with the number and the name of the process; none where it is not known.
void addWriter(Json* object, const char* key, const FileWriter& writer);

// A JSON document with one long array, written element by element:
//   {"table": "notes", "records": [
//   {...},
//   {...}
//   ]}
class JsonArrayWriter {
 public:
  // `head` is an object; the array becomes its last member.
  JsonArrayWriter(const Json& head, const char* arrayName);
  void add(const Json& element);
  // Ends the document, also one whose array stops early: then `error` says why.
  void finish(const std::string& error = {});

 private:
  bool hasElements_ = false;
};

}  // namespace qvdb::tool

// Where commands write JSON Lines: to standard output, or into a new file.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "command_line/command.h"
#include "content/json_lines.h"

namespace qvdb::tool {

struct TextOutputOptions {
  std::optional<std::string> output;  // a file, or "-" or nothing for standard output
  bool force = false;                 // replace a file that exists
  bool parents = false;               // create missing folders in the path of the file
  bool noSync = false;                // do not wait for the device

  bool isFile() const { return output && *output != "-"; }
};

void defineTextOutput(Arguments& arguments, TextOutputOptions& options);

// Calls write() and delivers what it writes. A new file gets the permissions of `source`, a
// database, and appears when write() has returned.
void writeText(const TextOutputOptions& options, const std::string& source,
               const std::function<void(JsonLines&)>& write);

}  // namespace qvdb::tool

// Delivering JSON Lines.
#include "content/text_output.h"

#include "streams/output.h"
#include "streams/waiting.h"

namespace qvdb::tool {

void defineTextOutput(Arguments& arguments, TextOutputOptions& options) {
  arguments.option(
      "-o,--output", "PATH", options.output,
      "Write to this file, which appears when it is complete; '-' is standard output.");
  arguments.force(options.force, "Replace the output file if it exists.");
  arguments.parents(options.parents);
  arguments.noSync(options.noSync);
}

void writeText(const TextOutputOptions& options, const std::string& source,
               const std::function<void(JsonLines&)>& write) {
  if (!options.isFile()) {
    JsonLines lines([](std::string_view text) { print(text); });
    write(lines);
    lines.flush();
    return;
  }
  OutputFile file = whileInUse([&] {
    return OutputFile(
        *options.output, source,
        {.overwrite = options.force, .create_folders = options.parents, .sync = !options.noSync});
  });
  JsonLines lines([&file](std::string_view text) { file.write(std::as_bytes(std::span(text))); });
  write(lines);
  lines.flush();
  file.place();
}

}  // namespace qvdb::tool

// Keeps notes: adds one, then lists them all. Usage: notes_cpp FILE TEXT
#include <exception>
#include <iostream>
#include <qvdbase/qvdb.hpp>
#include <span>
#include <string_view>
#include <vector>

int main(int argc, char** argv) try {
  if (argc != 3) {
    std::cerr << "usage: notes_cpp FILE TEXT\n";
    return 2;
  }
  const std::string_view text = argv[2];

  // Exclusively: to read and write, while no other program writes. An existing file is opened; if
  // that fails, for whatever reason, the file is not emptied.
  auto database = qvdb::Database::open(argv[1], {.mode = qvdb::Mode::exclusive, .create = true});
  auto notes = database.find_table("notes");
  if (!notes) notes = database.add_table("notes");
  notes->add(std::as_bytes(std::span(text)));

  std::vector<std::byte> payload;
  for (const qvdb::Record& note : notes->records()) {
    note.payload(payload);
    std::cout.write(reinterpret_cast<const char*>(payload.data()), std::ssize(payload)) << '\n';
  }
} catch (const std::exception& error) {
  std::cerr << "notes_cpp: " << error.what() << '\n';
  return 1;
}

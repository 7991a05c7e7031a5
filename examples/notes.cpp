// Keeps notes: adds one, then lists them all. Usage: notes_cpp FILE TEXT
#include <filesystem>
#include <iostream>
#include <qvdbase/qvdb.hpp>
#include <span>
#include <string_view>
#include <vector>

int main(int argc, char** argv) try {
  if (argc != 3) return 2;
  const std::filesystem::path path = argv[1];
  const std::string_view text = argv[2];

  // Exclusively: to read and write, while nobody else writes.
  auto database = std::filesystem::exists(path) ? qvdb::Database::open(path, qvdb::Mode::exclusive)
                                                : qvdb::Database::create(path);
  auto notes = database.find_table("notes");
  if (!notes) notes = database.add_table("notes");
  notes->add(std::as_bytes(std::span(text)));

  std::vector<std::byte> payload;
  for (const qvdb::Record& note : notes->records()) {
    note.payload(payload);
    std::cout.write(reinterpret_cast<const char*>(payload.data()), std::ssize(payload)) << '\n';
  }
} catch (const qvdb::Error& error) {
  std::cerr << error.what() << '\n';
  return 1;
}

// Keeps notes: adds one, then lists them all. Usage: notes_cpp FILE TEXT
#include <exception>
#include <filesystem>
#include <iostream>
#include <qvdbase/qvdb.hpp>
#include <span>
#include <string_view>
#include <vector>

// Exclusively: to read and write, while no other program writes.
qvdb::Database open_or_create(const std::filesystem::path& path) try {
  return qvdb::Database::open(path, qvdb::Mode::exclusive);
} catch (const qvdb::Error& error) {
  if (error.reason() != qvdb::Reason::no_such_file) throw;
  return qvdb::Database::create(path);  // refuses a file that is there after all
}

int main(int argc, char** argv) try {
  if (argc != 3) {
    std::cerr << "usage: notes_cpp FILE TEXT\n";
    return 2;
  }
  const std::string_view text = argv[2];

  auto database = open_or_create(argv[1]);
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

// Keeps an address book: people with their e-mail addresses, found by the beginning of a name or by
// an address, which is that of one person only. Both indexes are kept beside the file: FILE.qvd has
// FILE.qvdx, so that a search in a book of any size reads a few pages.
//
// Usage: address_book FILE add NAME ADDRESS...
//        address_book FILE name BEGINNING
//        address_book FILE mail ADDRESS
//        address_book FILE remove ADDRESS
#include <exception>
#include <iostream>
#include <qvdbase/qvdb.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

// A person is stored as lines: the name, then the addresses.
std::vector<std::string_view> lines_of(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    lines.push_back(text.substr(0, end));
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
  }
  return lines;
}

std::string_view name_of(std::string_view text) {
  return text.substr(0, text.find('\n'));
}

std::vector<std::string_view> addresses_of(std::string_view text) {
  std::vector<std::string_view> lines = lines_of(text);
  if (!lines.empty()) lines.erase(lines.begin());
  return lines;
}

void print(const qvdb::Record& person) {
  const auto* text = reinterpret_cast<const char*>(person.loaded().data());
  for (const std::string_view line : lines_of({text, person.loaded().size()})) {
    std::cout << line << ' ';
  }
  std::cout << '\n';
}

int run(const std::string& file, std::string_view command, std::span<char*> words) {
  auto database = qvdb::Database::open(file, {.mode = qvdb::Mode::exclusive, .create = true});
  qvdb::Table people = database.find_or_add_table("people");
  const qvdb::KeyIndex<std::string> by_name(people, name_of,
                                            {.ordered = true, .kept_as = "name 1"});
  const qvdb::KeyIndex<std::string> by_address(people, addresses_of,
                                               {.unique = true, .kept_as = "address 1"});

  if (command == "add") {
    std::string text;
    for (const char* word : words) text.append(word).push_back('\n');
    people.add(text);  // throws when another person has one of the addresses
    return 0;
  }
  if (command == "name") {
    auto found = by_name.prefix(words[0]);
    for (const auto& [name, person] : found) print(person);
    return 0;
  }
  const auto person = by_address.find(words[0]);
  if (!person) {
    std::cerr << "address_book: no person has the address " << words[0] << '\n';
    return 1;
  }
  if (command == "remove") {
    people.remove(*person);
  } else {
    print(*person);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string_view command = argc > 3 ? argv[2] : "";
  if (command != "add" && command != "name" && command != "mail" && command != "remove") {
    std::cerr << "usage: address_book FILE add NAME ADDRESS... | name BEGINNING | mail ADDRESS |"
                 " remove ADDRESS\n";
    return 2;
  }
  return run(argv[1], command, std::span(argv + 3, static_cast<size_t>(argc - 3)));
} catch (const std::exception& error) {
  std::cerr << "address_book: " << error.what() << '\n';
  return 1;
}

// Moves money between accounts: what one account loses the other one gets, or nothing happens.
//
// Usage: bank_transfer FILE open ACCOUNT AMOUNT
//        bank_transfer FILE move FROM TO AMOUNT
//        bank_transfer FILE list
#include <charconv>
#include <exception>
#include <iostream>
#include <qvdbase/qvdb.hpp>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

// An account is stored as text: its name, a blank, and its balance.
std::string_view name_of(std::string_view account) {
  return account.substr(0, account.find(' '));
}

// A whole number that is not negative: who moves less than nothing takes.
long long amount_of(std::string_view text) {
  constexpr long long most = 1'000'000'000'000;
  long long amount = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), amount);
  if (error != std::errc() || end != text.data() + text.size() || amount < 0 || amount > most) {
    throw std::runtime_error("not an amount: " + std::string(text));
  }
  return amount;
}

class Bank {
 public:
  explicit Bank(const std::string& file)
      : database_(qvdb::Database::open(file, {.mode = qvdb::Mode::exclusive,
                                              .create = true,
                                              .durability = qvdb::Durability::power})),
        accounts_(database_.find_or_add_table("accounts")),
        by_name_(accounts_, name_of, {.unique = true, .ordered = true}) {}

  void open(const std::string& name, long long amount) {
    if (name.empty() || name.find(' ') != std::string::npos) {
      throw std::runtime_error("not a name of one word: " + name);
    }
    accounts_.add(name + ' ' + std::to_string(amount));
  }

  // Both accounts change, or, where an exception leaves the function, neither does.
  void move(const std::string& from, const std::string& to, long long amount) {
    database_.transaction([&](qvdb::Transaction&) {
      change(from, -amount);
      change(to, amount);
    });
  }

  void list() const {
    auto accounts = by_name_.records();
    for (const auto& [name, account] : accounts) std::cout << text_of(account) << '\n';
    if (!std::cout.flush()) throw std::runtime_error("cannot write the list");
  }

 private:
  static std::string_view text_of(const qvdb::Record& account) {
    return {reinterpret_cast<const char*>(account.loaded().data()), account.loaded().size()};
  }

  void change(const std::string& name, long long amount) {
    const auto account = by_name_.find(name);
    if (!account) throw std::runtime_error("there is no account " + name);
    const long long balance = amount_of(text_of(*account).substr(name.size() + 1)) + amount;
    if (balance < 0) throw std::runtime_error("account " + name + " has too little");
    accounts_.modify(*account, name + ' ' + std::to_string(balance));
  }

  qvdb::Database database_;
  qvdb::Table accounts_;
  qvdb::KeyIndex<std::string> by_name_;
};

int run(std::span<char*> words) {
  const std::string_view command = words.size() < 2 ? "" : words[1];
  if (command == "open" && words.size() == 4) {
    Bank(words[0]).open(words[2], amount_of(words[3]));
  } else if (command == "move" && words.size() == 5) {
    Bank(words[0]).move(words[2], words[3], amount_of(words[4]));
  } else if (command == "list" && words.size() == 2) {
    Bank(words[0]).list();
  } else {
    std::cerr << "usage: bank_transfer FILE open ACCOUNT AMOUNT\n"
                 "       bank_transfer FILE move FROM TO AMOUNT\n"
                 "       bank_transfer FILE list\n";
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(std::span(argv, static_cast<size_t>(argc)).subspan(1));
  } catch (const std::exception& error) {
    std::cerr << "bank_transfer: " << error.what() << '\n';
    return 1;
  }
}

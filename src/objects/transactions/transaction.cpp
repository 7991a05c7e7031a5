// qvdb::Transaction.
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/transaction.hpp>

#include <utility>

#include "failure/failure.h"
#include "objects/open_database.h"
#include "objects/transactions/transaction_steps.h"

using namespace qvdbase;

namespace qvdb {

namespace {

constexpr const char* kBegin = "begin a transaction";
constexpr const char* kCommit = "commit the transaction";
constexpr const char* kUse = "use the transaction";

}  // namespace

// The database whose transaction it is, which is not closed with this object.
struct Transaction::Borrowed {
  Database database;

  explicit Borrowed(std::shared_ptr<detail::OpenDatabase> state) : database(std::move(state)) {}
  ~Borrowed() { database.state_.reset(); }
  Borrowed(const Borrowed&) = delete;
  Borrowed& operator=(const Borrowed&) = delete;
};

Transaction::Transaction(std::shared_ptr<detail::OpenDatabase> database, uint32_t number) noexcept
    : database_(std::move(database)), number_(number) {}

Transaction::Transaction(Transaction&& other) noexcept
    : database_(std::move(other.database_)), number_(std::exchange(other.number_, 0)) {}

Transaction& Transaction::operator=(Transaction&& other) noexcept {
  Transaction taken(std::move(other));
  database_.swap(taken.database_);
  std::swap(number_, taken.number_);
  return *this;
}

Transaction::~Transaction() {
  rollback();
}

Transaction Database::begin() {
  const uint32_t number = detail::beginTransaction(state_, kBegin);
  return {state_, number};
}

void Transaction::commit() {
  detail::commitTransaction(database_, number_, kCommit);
}

void Transaction::rollback() noexcept {
  if (number_ != 0) detail::rollBack(*database_, number_);
}

bool Transaction::is_active() const noexcept {
  if (number_ == 0) return false;
  return database_->transactions.openNumber == number_;
}

Transaction::Borrowed Transaction::database() const {
  if (!is_active()) {
    failure::throwError(kUse, Reason::bad_argument,
                        "it has ended: it was committed or rolled back");
  }
  return Borrowed(database_);
}

std::vector<Table> Transaction::tables() const {
  return database().database.tables();
}

std::optional<Table> Transaction::find_table(std::string_view name) const {
  return database().database.find_table(name);
}

std::optional<Table> Transaction::find_table(Id table) const {
  return database().database.find_table(table);
}

bool Transaction::contains(std::string_view name) const {
  return database().database.contains(name);
}

bool Transaction::contains(Id table) const {
  return database().database.contains(table);
}

Table Transaction::table(std::string_view name) const {
  return database().database.table(name);
}

Table Transaction::add_table(std::string_view name) {
  return database().database.add_table(name);
}

Table Transaction::find_or_add_table(std::string_view name) {
  return database().database.find_or_add_table(name);
}

}  // namespace qvdb

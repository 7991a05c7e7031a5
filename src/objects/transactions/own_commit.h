// Operations that are transactions of their own: all of a database that is to be on the device
// after each of them.
#pragma once

#include <cstdint>
#include <memory>

#include "objects/open_database.h"
#include "objects/transactions/transaction_steps.h"

namespace qvdb::detail {

// Whether an operation of this thread is one, and not a part of a transaction that is open.
bool commitsEach(const std::shared_ptr<OpenDatabase>& database);

// A transaction for one operation.
class OwnCommit {
 public:
  // from  where bytes begin that belong to it and are in the file already; 0 for none
  OwnCommit(const std::shared_ptr<OpenDatabase>& database, const char* name, int64_t from = 0)
      : database_(database), name_(name), number_(beginTransaction(database, name, from)) {}
  ~OwnCommit() {
    if (number_ != 0) rollBack(*database_, number_);
  }
  OwnCommit(const OwnCommit&) = delete;
  OwnCommit& operator=(const OwnCommit&) = delete;

  void commit() {
    commitTransaction(database_, number_, name_);
    number_ = 0;
  }

 private:
  const std::shared_ptr<OpenDatabase>& database_;
  const char* name_;
  uint32_t number_;
};

// Makes an operation so, where it is one. `name` is that of the operation.
template <typename Body>
auto committed(const std::shared_ptr<OpenDatabase>& database, const char* name, const Body& body) {
  if (!commitsEach(database)) return body();
  OwnCommit own(database, name);
  auto result = body();
  own.commit();
  return result;
}

}  // namespace qvdb::detail

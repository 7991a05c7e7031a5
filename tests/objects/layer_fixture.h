// The fixture for tests of the C++ layer: the database fixture, with shorthands in its types.
#pragma once

#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kit/database_fixture.h"

namespace qvdbase::test {

inline std::span<const std::byte> span(const Bytes& bytes) {
  return std::as_bytes(std::span(bytes.data(), bytes.size()));
}

inline Bytes bytes(std::span<const std::byte> from) {
  Bytes result;
  for (const std::byte b : from) result.push_back(static_cast<uint8_t>(b));
  return result;
}

inline Bytes bytes(const std::vector<std::byte>& from) {
  return bytes(std::span(from));
}

inline Bytes bytes(const std::optional<std::vector<std::byte>>& from) {
  return from ? bytes(std::span(*from)) : bytesOf("(nothing)");
}

// Runs the operation, which must throw a qvdb::Error with this reason. Returns its message.
template <typename Operation>
std::string expectError(qvdb::Reason reason, Operation&& operation) {
  try {
    operation();
  } catch (const qvdb::Error& error) {
    EXPECT_EQ(qvdb::to_string(error.reason()), qvdb::to_string(reason)) << error.what();
    return error.what();
  }
  ADD_FAILURE() << "no error; expected: " << qvdb::to_string(reason);
  return {};
}

// The same, for a look at the error itself.
template <typename Operation>
std::optional<qvdb::Error> errorOf(Operation&& operation) {
  try {
    operation();
  } catch (const qvdb::Error& error) {
    return error;
  }
  ADD_FAILURE() << "no error";
  return std::nullopt;
}

class LayerTest : public DatabaseTest {
 protected:
  qvdb::Database createDatabase(const std::string& name = kDefaultFile) {
    return qvdb::Database::create(path(name), {.create_folders = true});
  }
  qvdb::Database openDatabase(qvdb::Mode mode = qvdb::Mode::exclusive,
                              const std::string& name = kDefaultFile) {
    return qvdb::Database::open(path(name), mode);
  }

  // Puts a file made by hand into place and opens it.
  qvdb::Database openImage(const FileImage& image, qvdb::Mode mode = qvdb::Mode::exclusive) {
    writeFile(path(), image.build());
    return openDatabase(mode);
  }

  // The names in the folder, sorted.
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      result.push_back(entry.path().filename().native());
    }
    std::sort(result.begin(), result.end());
    return result;
  }

  static std::vector<uint64_t> idsOf(const qvdb::Table& table) {
    std::vector<uint64_t> ids;
    for (const qvdb::Record& record : table.records()) ids.push_back(record.id().value);
    return ids;
  }
};

}  // namespace qvdbase::test

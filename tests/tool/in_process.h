// Running a command of the tool in the process of the test, so that calls to the host can be made
// to fail under it.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "tools/qvdb/command_line/command_line.h"
#include "tools/qvdb/streams/failure.h"
#include "tools/qvdb/streams/output.h"

namespace qvdbase::test {

// Runs a command as main() does, without its output. "@" at the beginning of a word is the folder.
// Returns the exit status.
inline int runCommand(const std::filesystem::path& folder, const std::vector<std::string>& words,
                      std::string* message) {
  std::vector<std::string> all = {"qvdb"};
  for (std::string word : words) {
    if (word.starts_with('@')) word.replace(0, 1, folder.native());
    all.push_back(std::move(word));
  }
  std::vector<const char*> pointers;
  for (const std::string& word : all) pointers.push_back(word.c_str());
  int status = qvdb::tool::kFailed;
  try {
    const auto action =
        qvdb::tool::readCommandLine(static_cast<int>(pointers.size()), pointers.data());
    status = action ? (*action)() : qvdb::tool::kDone;
  } catch (const qvdb::tool::Failure& failure) {
    *message = failure.what();
    status = failure.status();
  } catch (const qvdb::Error& error) {
    *message = error.what();
  } catch (const std::bad_alloc&) {
    *message = "there is not enough memory";
  }
  qvdb::tool::discardOutput();
  return status;
}

}  // namespace qvdbase::test

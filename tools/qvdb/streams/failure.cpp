// How the tool fails.
#include "streams/failure.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "streams/text.h"

namespace qvdb::tool {

namespace {

constexpr unsigned short kIndent = 6;  // of the lines that continue a message

// Such a link is not followed, not even with --force.
constexpr const char* kAdviceForLink = "remove the link, or choose another name";

constexpr const char* kAdviceToSalvage = "'qvdb salvage' writes what can be saved into a new file";

constexpr const char* kAdviceToMend =
    "'qvdb mend' completes interrupted operations, 'qvdb salvage' saves the rest into a new file, "
    "--force leaves it out";

constexpr const char* kAdviceOnDamage =
    "copy the file before you do anything else with it; 'qvdb check' shows what is wrong, 'qvdb "
    "salvage' saves what can be saved into a new file";

struct Advice {
  Reason reason;
  const char* text;
};

constexpr Advice kAdvice[] = {
    {Reason::no_such_file, "check the path, or create a database with 'qvdb create'"},
    {Reason::not_a_file, "give the path of a database file"},
    {Reason::file_exists, "choose another name, or use --force to replace it"},
    {Reason::access_denied, "check the permissions of the file and its folder"},
    {Reason::in_use, "wait, or use --wait 10"},
    {Reason::cannot_lock, "work on a copy on another file system"},
    {Reason::read_only_file_system, "work on a copy on a file system that can be written"},
    {Reason::size_limit, "raise the limit on the size of files ('ulimit -f')"},
    {Reason::not_a_database, "give the path of a database file"},
    {Reason::version_out_of_range, "'qvdb info' shows the version and the rest of the header"},
    {Reason::directory_damaged, kAdviceOnDamage},
    {Reason::chain_damaged, kAdviceOnDamage},
    {Reason::data_damaged, kAdviceOnDamage},
    {Reason::bad_name, "choose a name of 1 to 32 bytes"},
    {Reason::name_too_long, "choose a name of 1 to 32 bytes"},
    {Reason::table_missing, "'qvdb tables' lists the tables"},
    {Reason::table_exists, "choose another name"},
    {Reason::directory_full, "use another database for more tables"},
    {Reason::record_missing,
     "'qvdb records' lists the records, 'qvdb history' the versions of one"},
    {Reason::empty_payload, "'qvdb rm' deletes a record"},
    {Reason::disk_full, "free some space and try again"},
    {Reason::changed_meanwhile, "try again"},
    {Reason::damaged, kAdviceToMend},
};

std::string generalAdviceFor(Reason reason) {
  for (const Advice& advice : kAdvice) {
    if (advice.reason == reason) return advice.text;
  }
  return {};
}

}  // namespace

Failure systemFailure(const std::string& path, const char* what) {
  return Failure(path + ": cannot " + what + ": " + std::generic_category().message(errno));
}

std::string adviceFor(const Error& error) {
  switch (error.remedy()) {
    case Remedy::mend:
      return "run 'qvdb mend'; if that refuses, 'qvdb salvage' writes what can be saved into a new "
             "file";
    case Remedy::salvage:
      return kAdviceToSalvage;
    case Remedy::remove_link:
      return kAdviceForLink;
    case Remedy::create_folder:
      return "create it, or use --parents";
    case Remedy::other_name:
      return "choose another name for the new file";
    case Remedy::other_folder:
      return "choose another folder";
    case Remedy::restore_payload:
      return "take the payload from a copy of the file and store it with 'qvdb set'; 'qvdb "
             "salvage' "
             "keeps it as it is";
    case Remedy::usual:
      break;
  }
  return generalAdviceFor(error.reason());
}

// One line; on a terminal that is narrower, as many as it takes to break it between words.
void complain(const std::string& message) {
  std::string line = "qvdb: " + escaped(message);
  winsize size = {};
  if (::isatty(STDERR_FILENO) == 1 && ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 &&
      size.ws_col > kIndent) {
    line = wrapped(line, size.ws_col, kIndent);
  } else {
    line += '\n';
  }
  // A failure to write to standard error cannot be reported.
  static_cast<void>(!::write(STDERR_FILENO, line.data(), line.size()));
}

}  // namespace qvdb::tool

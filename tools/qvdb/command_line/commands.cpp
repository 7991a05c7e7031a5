// The list of commands.
#include "command_line/commands.h"

namespace qvdb::tool {

std::span<const Command* const> allCommands() {
  static constexpr const Command* kAll[] = {
      &kCreateCommand,     &kInfoCommand,     &kTablesCommand,   &kAddTableCommand,
      &kRecordsCommand,    &kGetCommand,      &kPutCommand,      &kSetCommand,
      &kRmCommand,         &kTouchCommand,    &kDataCommand,     &kImportCommand,
      &kExportCommand,     &kSqlCommand,      &kDumpCommand,     &kLoadCommand,
      &kDigestCommand,     &kDiffCommand,     &kPatchCommand,    &kStatCommand,
      &kMapCommand,        &kHexdumpCommand,  &kCheckCommand,    &kSalvageCommand,
      &kHistoryCommand,    &kUndeleteCommand, &kMendCommand,     &kBackupCommand,
      &kRestoreCommand,    &kCompactCommand,  &kTrimCommand,     &kProtectCommand,
      &kCategoriesCommand, &kPackCommand,     &kRenumberCommand, &kRepairCommand,
  };
  return kAll;
}

}  // namespace qvdb::tool

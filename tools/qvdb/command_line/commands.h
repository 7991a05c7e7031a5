// All commands of the tool, in the order in which the help lists them.
#pragma once

#include <span>

#include "command_line/command.h"

namespace qvdb::tool {

std::span<const Command* const> allCommands();

// One to a file of the same name.
extern const Command kCreateCommand;
extern const Command kInfoCommand;
extern const Command kTablesCommand;
extern const Command kAddTableCommand;
extern const Command kRecordsCommand;
extern const Command kGetCommand;
extern const Command kPutCommand;
extern const Command kSetCommand;
extern const Command kRmCommand;
extern const Command kTouchCommand;
extern const Command kDataCommand;
extern const Command kImportCommand;
extern const Command kExportCommand;
extern const Command kSqlCommand;
extern const Command kDumpCommand;
extern const Command kLoadCommand;
extern const Command kDigestCommand;
extern const Command kDiffCommand;
extern const Command kPatchCommand;
extern const Command kStatCommand;
extern const Command kMapCommand;
extern const Command kHexdumpCommand;
extern const Command kCheckCommand;
extern const Command kSalvageCommand;
extern const Command kHistoryCommand;
extern const Command kUndeleteCommand;
extern const Command kMendCommand;
extern const Command kBackupCommand;
extern const Command kRestoreCommand;
extern const Command kCompactCommand;
extern const Command kTrimCommand;
extern const Command kProtectCommand;
extern const Command kCategoriesCommand;
extern const Command kPackCommand;
extern const Command kRenumberCommand;
extern const Command kRepairCommand;

}  // namespace qvdb::tool

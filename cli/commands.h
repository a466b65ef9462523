// Adds the commands to the program. Each command_line_*.cpp defines some of these functions.
#pragma once

#include "cli/command.h"

namespace vexa::cli {

// Each adds its commands to the program `app`.
void AddClientCommands(const Command& app);
// Call it after AddClientCommands, because it extends "guest".
void AddHostCommands(const Command& app);
// Call it after AddHostCommands: "guest recover" and "host forget".
void AddRecoveryCommands(const Command& app);
// Also after AddClientCommands: the rest of "guest", and "log".
void AddActionCommands(const Command& app);
// Likewise: "guest console", "viewer", "screenshot" and "type".
void AddConsoleCommands(const Command& app);
// Likewise: "guest set" and "guest edit".
void AddEditCommands(const Command& app);
// Likewise: "guest create".
void AddCreateCommand(const Command& app);
void AddErrorCommand(const Command& app);
// Also after AddClientCommands: "user", "group", and "guest grants".
void AddAccountCommands(const Command& app);
void AddClusterCommands(const Command& app);
void AddRepositoryCommands(const Command& app);
void AddImageCommands(const Command& app);
void AddNetworkCommands(const Command& app);
void AddSetupCommand(const Command& app);
void AddImportCommand(const Command& app);
void AddContextCommands(const Command& app);
void AddCompletionCommands(const Command& app);

// Adds only the options of `vexa import`. The parse stores their values in `arguments`, which must outlive it.
struct RawImportArguments;
void AddImportOptions(const Command& import, RawImportArguments& arguments);

}  // namespace vexa::cli

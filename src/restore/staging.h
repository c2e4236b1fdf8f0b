#pragma once

#include <span>
#include <string>
#include <vector>

#include "platform/database.h"

// Staged tables: copies of live tables in the same database, named like them with "_bak" behind. A backup renames the
// live tables to these names while it dumps them; a restore loads the saved ones under these names beside the live
// tables.

// Rename a live table to its staged name, and back. 0, also when the renaming failed, which is logged; -1 without a
// name, which is logged.
int KavophotoTableRename(const char* table);
int KavophotoTableRenameBack(const std::string& table);

// Gives `table` (a staged name) a primary key on `keyColumn`. 0, or 1 when that failed, which is logged.
int addDBPrimaryKey(const char* table, const char* keyColumn);

// Drops the staged copies of `tables`, as far as they exist, but not those of the live names in `spared`. 0, also when
// single tables could not be dropped, which is logged; -1 when the staged tables cannot be listed, which is logged.
int dropStagedTables(DBConnect_tag* connection, std::span<const char* const> tables,
                     const std::vector<std::string>& spared);

// Drops the staged tables that an earlier run left behind, but not those without a live table: they are the only copy
// of their rows. Returns the live names of the staged tables that must be spared from now on; all of `tables` when they
// cannot be listed, which is logged.
std::vector<std::string> dropLeftoverTables(DBConnect_tag* connection, std::span<const char* const> tables);

// Renames every staged table whose live table does not exist back to its live name: a backup that was killed leaves
// them. Silent when the server cannot be reached; whatever runs next will say so.
void recoverStagedTables(std::span<const char* const> tables);

#pragma once

#include <span>
#include <string>

#include "platform/database.h"

// Staged tables: copies of live tables in the same database, named like them with "_bak" added. A backup renames the
// live tables to these names while it dumps them; a restore loads the saved ones under these names beside the live
// tables.
//
// Whatever has such a name when a run begins is one of three things. A table whose live table is missing holds the only
// copy of live rows: it is renamed back. A copy that a restore made is dropped. Anything else may be the only copy of
// somebody's rows: it stays, with a message, and nothing is staged beside it.
//
// Renaming and dropping need the lock of a run (platform/run_lock.h) and fail without it.

// Rename a live table to its staged name, and back. 0, also when the renaming failed, which is logged; -1 without a
// name, which is logged.
int KavophotoTableRename(const char* table);
int KavophotoTableRenameBack(const std::string& table);

// The same as KavophotoTableRename, for callers that need to know whether the table was renamed.
bool stageTable(const char* table);

// Gives `table` (a staged name) a primary key on `keyColumn`. 0, or 1 when that failed, which is logged.
int addDBPrimaryKey(const char* table, const char* keyColumn);

// Renames every staged table whose live table does not exist back to its live name: a backup that was killed leaves
// them. Silent when the server cannot be reached; the mode that runs next logs that.
void recoverStagedTables(std::span<const char* const> tables);

// Logs each table with a staged name that is neither a copy that a restore made nor the only table of its live name:
// the application may work on an empty table while its rows are there. For the modes that stage nothing themselves.
void reportForeignTables(std::span<const char* const> tables);

// Logs each staged table that other tables inherit from: their rows are not dumped with it.
void logTablesWithChildren(DBConnect_tag* connection, std::span<const char* const> tables);

// Drops the copies of `tables` that a restore made, as far as they exist. 0, also when staged tables remain, each of
// which is logged with what to do; -1 when the staged tables cannot be listed, which is logged.
int dropStagedTables(DBConnect_tag* connection, std::span<const char* const> tables);

// Makes every staged name free: drops the copies that an earlier restore left. False when one is still taken or that is
// not known, which is logged; then nothing may be renamed to these names or loaded under them.
bool freeStagedNames(DBConnect_tag* connection, std::span<const char* const> tables);

// Notes in the database, before a restore loads its staged tables, that it is going to make them, and afterwards which
// ones it made. Only tables that are noted are ever dropped. False when that failed, which is logged.
bool noteStagingBegins(DBConnect_tag* connection);
bool noteStagedTables(DBConnect_tag* connection, std::span<const char* const> tables);

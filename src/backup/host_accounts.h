#pragma once

#include "platform/database.h"

// Host-account files: the rights tables of host accounts hold account numbers, which mean nothing on another machine.
// Beside the rows go the accounts' names, a line 1026 ="editor" for every row: users in
// "kavophoto_backup_hox_account.txt", groups in "kavophoto_backup_hox_group_account.txt". `dir` is the directory prefix
// of the files, `suffix` what follows the tables' names.

// True for the three tables of rights that are keyed by a host user, in any spelling of their names.
bool isHoxUserRightsTable(const char* table);

// Append the lines of one table of the database "photo". 0, or -1 with the reason logged; the lines of the rows before
// the failing one stay written. An unknown account is logged as "Failed to fetch hox user (%s)" with its number, by
// both.
int KavophotoDumpHoxUserOnDB(const char* dir, const char* table, const char* suffix);
int KavophotoDumpHoxGroupOnDB(const char* dir, const char* table, const char* suffix);

// Merge the rows of a table of rights from `source` into `live`, for the accounts that this machine has under the names
// in the file; rows of others are skipped silently, and so are rows on shares that one side lacks. In skip mode an
// account that holds any live row of the table is left as it is; in overwrite mode its rows on the same shares are
// replaced.
//
// 0, or -1 with the reason logged: a failed statement, or an account number that is not in the file ("Failed to fetch
// hox user (%s)" or "Failed to fetch hox group (%s)"). What was merged before stays merged.
int KavophotoSyncHoxUserRights(DBConnect_tag* live, DBConnect_tag* source, const char* dir, const char* table,
                               const char* suffix);
int KavophotoSyncHoxGroupPermission(DBConnect_tag* live, DBConnect_tag* source, const char* dir, const char* suffix);

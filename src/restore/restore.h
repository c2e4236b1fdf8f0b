#pragma once

#include <span>

#include "merge/merge.h"
#include "platform/database.h"

// What the restore works on: the tables in the order in which they are merged, the routines that merge them, ended by a
// row with an empty name, and the check that rewrites the paths of a table (connection, database, table, column, key)
// to this machine's share.
struct RestoreTables {
  std::span<const char* const> tables;
  std::span<const MergeEntry> routines;
  int (*checkPath)(DBConnect_tag* connection, const char* database, const char* table, const char* column,
                   const char* key);
};

// Merges the backup archive "kavophoto.backup" under the directory prefix `dir` (absolute, ending in "/") into the live
// database, settings and themes. gIsOverwiroteMode decides whether the backup or what is live wins.
//
// 0 when the merge ran through, whatever single tables, settings or themes failed; -2 when the dump could not be
// loaded; -1 on every other failure. All failures are logged. What was merged before a failure stays merged, and staged
// tables may stay in the database beside the live ones; the next restore or backup drops them. The host-account files
// and the saved settings stay unpacked under `dir`.
int KavophotoRestoreDB(const char* dir, const RestoreTables& tables);

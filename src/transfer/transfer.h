#pragma once

#include <functional>
#include <span>
#include <string>

#include "merge/merge.h"
#include "platform/database.h"

// What an import and a restore have in common: the paths of the source are repaired, its tables are merged one after
// the other, and then what refers to rows of several tables.

// The tables in the order in which they are merged, the routines that merge them, ended by a row with an empty name,
// and the check that rewrites the paths of a table (connection, database, table, column, key) to this machine's share.
struct TransferTables {
  std::span<const char* const> tables;
  std::span<const MergeEntry> routines;
  int (*checkPath)(DBConnect_tag* connection, const char* database, const char* table, const char* column,
                   const char* key);
};

// From where to where. `directory` is the prefix of the host-account files.
struct Transfer {
  DBConnect_tag* live;
  DBConnect_tag* source;
  // What the names of the source's tables end in.
  const char* suffix;
  std::string directory;
};

// Repairs the paths of photos and videos in the source, named `database`. `prepare` is called with each table before
// its repair, `failed` with one that failed, to log it. False as soon as a table cannot be repaired that cannot be
// merged with foreign paths; the labels of videos only lose those links.
bool repairPaths(const Transfer& transfer, const TransferTables& tables, const char* database,
                 const std::function<void(const std::string& table)>& prepare,
                 const std::function<void(const std::string& table)>& failed);

// Merges every table. A failed one is logged, for the rights of host users by `rightsFailed`, and the walk goes on.
void mergeTables(const Transfer& transfer, const TransferTables& tables,
                 const std::function<void(const char* table)>& rightsFailed);

// Merges the smart albums, which name shares and labels, and the members of collections, which name collections and
// media. `origin` names the source for the record of what was added to the smart albums.
void mergeReferences(const Transfer& transfer, const std::string& origin);

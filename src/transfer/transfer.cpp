#include "transfer/transfer.h"

#include <strings.h>

#include <array>
#include <string_view>

#include "backup/host_accounts.h"
#include "platform/log.h"
#include "platform/progress.h"
#include "smart/smart_albums.h"

namespace {

struct PathColumn {
  const char* table;
  const char* column;
  // Without its paths repaired such a table cannot be merged.
  bool isEssential;
};

constexpr std::array<PathColumn, 4> kPathColumns = {{
    {"photo_image", "path", true},
    {"video_comment", "path", true},
    {"video_desc", "path", true},
    {"photo_video_label", "video_path", false},
}};

void runRoutines(const Transfer& transfer, std::span<const MergeEntry> routines, const char* table) {
  for (const MergeEntry& entry : routines) {
    if (*entry.table == '\0') {
      return;
    }
    if (std::string_view(entry.table) == table && entry.routine(transfer.live, transfer.source, transfer.suffix) < 0) {
      KAVO_LOG("Table %s sync failed.\n", table);
    }
  }
}

void mergeHostPermissions(const Transfer& transfer, const char* table) {
  if (strcasecmp(table, "photo_group_permission_for_hox_account") == 0 &&
      KavophotoSyncHoxGroupPermission(transfer.live, transfer.source, transfer.directory.c_str(), transfer.suffix) <
          0) {
    KAVO_LOG("Table photo_group_permission_for_hox_account sync failed.\n");
  }
}

void mergeCollections(const Transfer& transfer, const char* table) {
  if (isPersonalCollectionTable(table) &&
      KavophotoSyncPersonalCollection(transfer.live, transfer.source, table, transfer.suffix) < 0) {
    KAVO_LOG("Table %s sync failed", table);
  }
}

}  // namespace

bool repairPaths(const Transfer& transfer, const TransferTables& tables, const char* database,
                 const std::function<void(const std::string& table)>& prepare,
                 const std::function<void(const std::string& table)>& failed) {
  progressPhase("repairing paths");
  for (const PathColumn& path : kPathColumns) {
    const std::string table = std::string(path.table) + transfer.suffix;
    prepare(table);
    if (tables.checkPath(transfer.source, database, table.c_str(), path.column, "id") < 0) {
      failed(table);
      if (path.isEssential) {
        return false;
      }
    }
  }
  return true;
}

void mergeTables(const Transfer& transfer, const TransferTables& tables,
                 const std::function<void(const char* table)>& rightsFailed) {
  progressPhase("merging");
  std::size_t place = 0;
  for (const char* table : tables.tables) {
    progressTable(table, ++place, tables.tables.size());
    runRoutines(transfer, tables.routines, table);
    if (isHoxUserRightsTable(table) &&
        KavophotoSyncHoxUserRights(transfer.live, transfer.source, transfer.directory.c_str(), table, transfer.suffix) <
            0) {
      rightsFailed(table);
    }
    mergeHostPermissions(transfer, table);
    mergeCollections(transfer, table);
  }
}

void mergeReferences(const Transfer& transfer, const std::string& origin) {
  progressPhase("merging smart albums");
  KavophotoRemapSmartAlbums(transfer.live, transfer.source, transfer.suffix, origin);
  progressPhase("merging members of collections");
  KavophotoSyncPersonalCollectionItems(transfer.live, transfer.source, transfer.suffix);
}

#include "main/import.h"

#include <strings.h>

#include "backup/host_accounts.h"
#include "main/path_check.h"
#include "main/registry.h"
#include "merge/merge.h"
#include "platform/log.h"
#include "platform/progress.h"
#include "platform/query.h"
#include "smart/earlier_albums.h"
#include "smart/smart_albums.h"

namespace {

bool isTable(const char* name, const char* table) { return strcasecmp(name, table) == 0; }

// The live database merged into itself would lose what is deleted before it is written anew. An empty name leaves the
// choice to the environment, which may choose the live one.
bool isAllowedSource(const std::string& database) { return !database.empty() && database != "photo"; }

// The photo and video tables cannot be merged with foreign paths; the labels of videos only lose those links.
bool repairPaths(DBConnect_tag* temporary, const char* database) {
  progressPhase("repairing paths");
  if (KavophotoCheckPath(temporary, database, "photo_image", "path", "id") < 0) {
    KAVO_LOG("KavophotoCheckPath import photo_image failed.");
    return false;
  }
  if (KavophotoCheckPath(temporary, database, "video_comment", "path", "id") < 0) {
    KAVO_LOG("KavophotoCheckPath import video_comment failed.");
    return false;
  }
  if (KavophotoCheckPath(temporary, database, "video_desc", "path", "id") < 0) {
    KAVO_LOG("KavophotoCheckPath import video_desc failed.");
    return false;
  }
  if (KavophotoCheckPath(temporary, database, "photo_video_label", "video_path", "id") < 0) {
    KAVO_LOG("KavophotoCheckPath import photo_video_label failed.");
  }
  return true;
}

void runMergeRoutines(DBConnect_tag* live, DBConnect_tag* temporary, const char* table) {
  for (const MergeEntry* entry = kMergeRoutines.data(); *entry->table != '\0'; ++entry) {
    if (isTable(entry->table, table) && entry->routine(live, temporary, "") < 0) {
      KAVO_LOG("Table %s sync failed.\n", table);
    }
  }
}

void mergeHostAccountRights(DBConnect_tag* live, DBConnect_tag* temporary, const std::string& path, const char* table) {
  if (isHoxUserRightsTable(table) && KavophotoSyncHoxUserRights(live, temporary, path.c_str(), table, "") < 0) {
    KAVO_LOG("Table %s sync failed.", table);
  }
}

void mergeHostAccountPermissions(DBConnect_tag* live, DBConnect_tag* temporary, const std::string& path,
                                 const char* table) {
  if (isTable(table, "photo_group_permission_for_hox_account") &&
      KavophotoSyncHoxGroupPermission(live, temporary, path.c_str(), "") < 0) {
    KAVO_LOG("Table photo_group_permission_for_hox_account sync failed.\n");
  }
}

void mergePersonalCollections(DBConnect_tag* live, DBConnect_tag* temporary, const char* table) {
  if (isPersonalCollectionTable(table) && KavophotoSyncPersonalCollection(live, temporary, table, "") < 0) {
    KAVO_LOG("Table %s sync failed", table);
  }
}

void mergeTables(DBConnect_tag* live, DBConnect_tag* temporary, const std::string& path) {
  progressPhase("merging");
  std::size_t place = 0;
  for (const char* table : kTableList) {
    progressTable(table, ++place, kTableList.size());
    runMergeRoutines(live, temporary, table);
    mergeHostAccountRights(live, temporary, path, table);
    mergeHostAccountPermissions(live, temporary, path, table);
    mergePersonalCollections(live, temporary, table);
  }
}

}  // namespace

int importDatabase(const std::string& path, const std::string& temporaryDatabase) {
  // Declared in this order so that the live connection is closed first.
  Connection temporary;
  const Connection live = connectTo("photo");
  if (!live) {
    KAVO_LOG("Failed to connect to database");
    return -1;
  }
  if (isAllowedSource(temporaryDatabase)) {
    temporary = connectTo(temporaryDatabase.c_str());
  }
  if (!temporary) {
    KAVO_LOG("Failed to connect to database (%s)", temporaryDatabase.c_str());
    return -1;
  }
  if (!repairPaths(temporary.get(), temporaryDatabase.c_str())) {
    return -1;
  }
  mergeTables(live.get(), temporary.get(), path);
  // Smart albums name shares and labels, members name collections and media, so both come after all tables.
  progressPhase("merging smart albums");
  KavophotoRemapSmartAlbums(live.get(), temporary.get(), "", importOrigin(path, temporaryDatabase));
  progressPhase("merging members of collections");
  KavophotoSyncPersonalCollectionItems(live.get(), temporary.get(), "");
  return 0;
}

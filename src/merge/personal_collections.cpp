#include "merge/personal_collections.h"

#include <strings.h>

#include <cstdlib>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

constexpr int kSourceFailed = -1;
constexpr int kLookUpFailed = -2;
constexpr int kWriteFailed = -3;

// The administrator's collections belong to nobody else, so those tables name no user.
bool hasUsers(const std::string& table) { return table.find("admin") == std::string::npos; }

// A row of a collection table as it stands in the statements. Nothing is cut or escaped.
struct Collection {
  std::string user;
  std::string name;
  std::string isShared;
  std::string startTime;
  std::string endTime;
  std::string shareLink;
  std::string createDate;
  std::string hidden;
};

std::string quotedOrNull(const std::string& time) { return time.empty() ? "NULL" : "'" + time + "'"; }

Collection readCollection(const Result& row) {
  Collection collection;
  collection.user = fieldText(row, "userid");
  collection.name = fieldText(row, "name");
  collection.isShared = fieldText(row, "is_shared");
  collection.startTime = fieldText(row, "start_time");
  collection.endTime = fieldText(row, "end_time");
  collection.shareLink = fieldText(row, "sharelink");
  collection.createDate = fieldText(row, "create_date");
  collection.hidden = fieldText(row, "hidden");
  return collection;
}

RawValues rawValues(const Collection& collection) {
  return {{collection.name, collection.isShared, collection.startTime, collection.endTime, collection.shareLink,
           collection.createDate, collection.hidden},
          {collection.user}};
}

bool insertCollection(DBConnect_tag* destination, const std::string& table, const Collection& collection) {
  const bool withUser = hasUsers(table);
  return execute(destination, "INSERT INTO " + table + " (" + (withUser ? "userid, " : "") +
                                  "name, is_shared, start_time, end_time, sharelink, create_date, hidden) VALUES (" +
                                  (withUser ? collection.user + ", " : "") + "'" + collection.name + "', '" +
                                  collection.isShared + "', " + quotedOrNull(collection.startTime) + ", " +
                                  quotedOrNull(collection.endTime) + ", '" + collection.shareLink + "', '" +
                                  collection.createDate + "', '" + collection.hidden + "')");
}

bool updateCollection(DBConnect_tag* destination, const std::string& table, const Collection& collection) {
  return execute(destination,
                 "UPDATE " + table + " SET " + (hasUsers(table) ? "userid = " + collection.user + ", " : "") +
                     "is_shared = '" + collection.isShared + "', start_time = " + quotedOrNull(collection.startTime) +
                     ", end_time = " + quotedOrNull(collection.endTime) + ", sharelink = '" + collection.shareLink +
                     "', create_date = '" + collection.createDate + "', hidden = '" + collection.hidden +
                     "' WHERE name = '" + collection.name + "'",
                 rawValues(collection));
}

int mergeCollection(DBConnect_tag* destination, const std::string& table, const Collection& collection) {
  Result live;
  if (!execute(destination, "SELECT * FROM " + table + " WHERE name = '" + collection.name + "'",
               {{collection.name}, {}}, live)) {
    return kLookUpFailed;
  }
  if (!hasRows(live)) {
    return insertCollection(destination, table, collection) ? 0 : kWriteFailed;
  }
  if (!gIsOverwiroteMode) {
    return 0;
  }
  return updateCollection(destination, table, collection) ? 0 : kWriteFailed;
}

long long numberIn(const Result& row, const char* column) {
  return std::strtoll(fieldText(row, column).c_str(), nullptr, 10);
}

// Where rows are told apart by a text: a collection by its name, a media file by its path.
struct KeyedTable {
  const std::string& table;
  const char* key;
};

// The number in the destination of the row that has `number` in the source; without a value when there is none or a
// statement fails.
std::optional<long long> findCounterpart(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix,
                                         const KeyedTable& keyed, long long number) {
  Result rows;
  if (!execute(source,
               std::string("SELECT ") + keyed.key + " FROM " + keyed.table + suffix +
                   " WHERE id = " + std::to_string(number),
               rows)) {
    return std::nullopt;
  }
  std::optional<std::string> key;
  while (fetchRow(rows)) {
    key = fieldText(rows, keyed.key);
  }
  // A key is needed: the empty one of a row that is not there could be another row's.
  if (!key ||
      !execute(destination, "SELECT id FROM " + keyed.table + " WHERE " + keyed.key + " = '" + *key + "'", {{*key}, {}},
               rows) ||
      !fetchRow(rows)) {
    return std::nullopt;
  }
  return numberIn(rows, "id");
}

std::optional<long long> counterpart(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix,
                                     const KeyedTable& keyed, long long number, NumberMap& known) {
  auto place = known.find(number);
  if (place == known.end()) {
    place = known.emplace(number, findCounterpart(destination, source, suffix, keyed, number)).first;
  }
  return place->second;
}

// Failures are logged and cost only this member.
void addMember(DBConnect_tag* destination, const std::string& memberTable, const std::string& mediaColumn,
               long long collection, long long media) {
  const std::string collectionNumber = std::to_string(collection);
  const std::string mediaNumber = std::to_string(media);
  Result member;
  if (execute(destination,
              "SELECT * FROM " + memberTable + " WHERE collectionid = " + collectionNumber + " AND " + mediaColumn +
                  " = " + mediaNumber,
              member) &&
      !hasRows(member)) {
    execute(destination, "INSERT INTO " + memberTable + " (collectionid, " + mediaColumn + ") VALUES (" +
                             collectionNumber + ", " + mediaNumber + ")");
  }
}

}  // namespace

bool isPersonalCollectionTable(const char* table) {
  return strcasecmp(table, "photo_personal_collection") == 0 ||
         strcasecmp(table, "photo_personal_collection_for_hox_account") == 0 ||
         strcasecmp(table, "photo_personal_collection_for_admin") == 0;
}

int KavophotoSyncPersonalCollection(DBConnect_tag* destination, DBConnect_tag* source, const std::string& table,
                                    const char* suffix) {
  Result collections;
  if (!execute(source, "SELECT * FROM " + table + suffix, collections)) {
    return kSourceFailed;
  }
  while (fetchRow(collections)) {
    const int status = mergeCollection(destination, table, readCollection(collections));
    if (status < 0) {
      return status;
    }
  }
  return 0;
}

int KavophotoSyncCollectionMembers(DBConnect_tag* destination, DBConnect_tag* source,
                                   const std::string& collectionTable, const std::string& memberTable,
                                   const char* suffix, const std::string& mediaColumn, const std::string& mediaTable,
                                   NumberMap& collections) {
  Result members;
  if (!execute(source, "SELECT * FROM " + memberTable + suffix, members)) {
    return -1;
  }
  NumberMap mediaFiles;
  while (fetchRow(members)) {
    const auto collection = counterpart(destination, source, suffix, {collectionTable, "name"},
                                        numberIn(members, "collectionid"), collections);
    const auto media = counterpart(destination, source, suffix, {mediaTable, "path"},
                                   numberIn(members, mediaColumn.c_str()), mediaFiles);
    if (collection && media) {
      addMember(destination, memberTable, mediaColumn, *collection, *media);
    }
  }
  return 0;
}

int KavophotoSyncCollectionFamily(DBConnect_tag* destination, DBConnect_tag* source, const std::string& collectionTable,
                                  const std::string& photoMemberTable, const std::string& videoMemberTable,
                                  const char* suffix) {
  NumberMap collections;
  const int status = KavophotoSyncCollectionMembers(destination, source, collectionTable, photoMemberTable, suffix,
                                                    "photoid", "photo_image", collections);
  if (status < 0) {
    return status;
  }
  return KavophotoSyncCollectionMembers(destination, source, collectionTable, videoMemberTable, suffix, "videoid",
                                        "video", collections);
}

int KavophotoSyncPersonalCollectionItems(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  int status =
      KavophotoSyncCollectionFamily(destination, source, "photo_personal_collection", "photo_personal_collection_photo",
                                    "photo_personal_collection_video", suffix);
  if (status >= 0) {
    status = KavophotoSyncCollectionFamily(destination, source, "photo_personal_collection_for_admin",
                                           "photo_personal_collection_photo_for_admin",
                                           "photo_personal_collection_video_for_admin", suffix);
  }
  if (status >= 0) {
    status = KavophotoSyncCollectionFamily(destination, source, "photo_personal_collection_for_hox_account",
                                           "photo_personal_collection_photo_for_hox_account",
                                           "photo_personal_collection_video_for_hox_account", suffix);
  }
  return status;
}

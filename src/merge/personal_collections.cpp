#include "merge/personal_collections.h"

#include <strings.h>

#include <cstdlib>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

constexpr int kLookUpFailed = -2;
constexpr int kWriteFailed = -3;

// The administrator's collections belong to nobody else, so those tables name no user.
bool hasUsers(const std::string& table) { return table.find("admin") == std::string::npos; }

// A row of a collection table. Nothing is cut or escaped.
struct Collection {
  Raw user;
  Raw name;
  Raw isShared;
  QuotedOrNull startTime;
  QuotedOrNull endTime;
  Raw shareLink;
  Raw createDate;
  Raw hidden;
};

std::vector<std::string> keysOf(const Collection& collection) { return {collection.name.text}; }

std::optional<Collection> readCollection(const Result& row) {
  return Collection{rawField(row, "userid"),       rawField(row, "name"),       rawField(row, "is_shared"),
                    {rawField(row, "start_time")}, {rawField(row, "end_time")}, rawField(row, "sharelink"),
                    rawField(row, "create_date"),  rawField(row, "hidden")};
}

bool insertCollection(DBConnect_tag* destination, const std::string& table, const Collection& collection) {
  return hasUsers(table)
             ? execute(destination,
                       "INSERT INTO %s (userid, name, is_shared, start_time, end_time, sharelink, create_date, hidden) "
                       "VALUES (%s, '%s', '%s', %s, %s, '%s', '%s', '%s')",
                       Name(table), collection.user, collection.name, collection.isShared, collection.startTime,
                       collection.endTime, collection.shareLink, collection.createDate, collection.hidden)
             : execute(destination,
                       "INSERT INTO %s (name, is_shared, start_time, end_time, sharelink, create_date, hidden) "
                       "VALUES ('%s', '%s', %s, %s, '%s', '%s', '%s')",
                       Name(table), collection.name, collection.isShared, collection.startTime, collection.endTime,
                       collection.shareLink, collection.createDate, collection.hidden);
}

bool updateCollection(DBConnect_tag* destination, const std::string& table, const Collection& collection) {
  return hasUsers(table)
             ? execute(destination,
                       "UPDATE %s SET userid = %s, is_shared = '%s', start_time = %s, end_time = %s, sharelink = '%s', "
                       "create_date = '%s', hidden = '%s' WHERE name = '%s'",
                       Name(table), collection.user, collection.isShared, collection.startTime, collection.endTime,
                       collection.shareLink, collection.createDate, collection.hidden, collection.name)
             : execute(destination,
                       "UPDATE %s SET is_shared = '%s', start_time = %s, end_time = %s, sharelink = '%s', "
                       "create_date = '%s', hidden = '%s' WHERE name = '%s'",
                       Name(table), collection.isShared, collection.startTime, collection.endTime, collection.shareLink,
                       collection.createDate, collection.hidden, collection.name);
}

int mergeCollection(DBConnect_tag* destination, const std::string& table, const Collection& collection) {
  Result live;
  if (!execute(destination, live, "SELECT * FROM %s WHERE name = '%s'", Name(table), collection.name)) {
    return kLookUpFailed;
  }
  if (!hasRows(live)) {
    return insertCollection(destination, table, collection) ? 0 : kWriteFailed;
  }
  return !gIsOverwiroteMode || updateCollection(destination, table, collection) ? 0 : kWriteFailed;
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
std::optional<long long> findCounterpart(const Sides& sides, const KeyedTable& keyed, long long number) {
  Result rows;
  if (!execute(sides.source, rows, "SELECT %s FROM %s%s WHERE id = %s", Name(keyed.key), Name(keyed.table),
               sides.suffix, number)) {
    return std::nullopt;
  }
  std::optional<Raw> key;
  while (fetchRow(rows)) {
    key = rawField(rows, keyed.key);
  }
  // A key is needed: the empty one of a row that is not there could be another row's.
  if (!key ||
      !execute(sides.destination, rows, "SELECT id FROM %s WHERE %s = '%s'", Name(keyed.table), Name(keyed.key),
               *key) ||
      !fetchRow(rows)) {
    return std::nullopt;
  }
  return numberIn(rows, "id");
}

std::optional<long long> counterpart(const Sides& sides, const KeyedTable& keyed, long long number, NumberMap& known) {
  const auto place = known.find(number);
  if (place != known.end()) {
    return place->second;
  }
  const std::optional<long long> found = findCounterpart(sides, keyed, number);
  // A row that runs again asks again.
  return KAVODBRowGivesWay(sides.destination) ? found : known.emplace(number, found).first->second;
}

// A row of a member table, with the source's numbers.
struct Member {
  long long collection;
  long long media;
};

// A media file is looked up once, too.
std::vector<std::string> keysOf(const Member& member) { return {std::to_string(member.media)}; }

// The collections of many members are few, so a row waits for the one before it to have found its own.
std::optional<long long> findCollection(const Sides& sides, const std::string& table, long long number,
                                        NumberMap& known) {
  const Turn turn;
  return counterpart(sides, {table, "name"}, number, known);
}

// Failures are logged and cost only this member.
void addMember(DBConnect_tag* destination, const std::string& memberTable, const std::string& mediaColumn,
               long long collection, long long media) {
  // Two rows of the source may have the same counterparts.
  claim(formatText("%lld %lld", collection, media));
  Result member;
  if (execute(destination, member, "SELECT * FROM %s WHERE collectionid = %s AND %s = %s", Name(memberTable),
              collection, Name(mediaColumn), media) &&
      !hasRows(member)) {
    execute(destination, "INSERT INTO %s (collectionid, %s) VALUES (%s, %s)", Name(memberTable), Name(mediaColumn),
            collection, media);
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
  const Sides sides = {destination, source, suffix};
  return mergeRows(sides, sql("SELECT * FROM %s%s", Name(table), sides.suffix), {{table, {"id", "userid", "name"}}},
                   readCollection,
                   [&](const Collection& collection) { return mergeCollection(destination, table, collection); });
}

int KavophotoSyncCollectionMembers(DBConnect_tag* destination, DBConnect_tag* source,
                                   const std::string& collectionTable, const std::string& memberTable,
                                   const char* suffix, const std::string& mediaColumn, const std::string& mediaTable,
                                   NumberMap& collections) {
  const Sides sides = {destination, source, suffix};
  NumberMap mediaFiles;
  return mergeRows(
      sides, sql("SELECT * FROM %s%s", Name(memberTable), sides.suffix), {{memberTable, {"collectionid", mediaColumn}}},
      [&](const Result& row) {
        return std::optional(Member{numberIn(row, "collectionid"), numberIn(row, mediaColumn.c_str())});
      },
      [&](const Member& member) {
        const auto collection = findCollection(sides, collectionTable, member.collection, collections);
        const auto media = counterpart(sides, {mediaTable, "path"}, member.media, mediaFiles);
        if (collection && media) {
          addMember(destination, memberTable, mediaColumn, *collection, *media);
        }
        return true;
      });
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

#pragma once

#include <algorithm>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "support/appliance.h"

// The rows of the 33 tables as people would tell them: without numbers of their own, and with the names of what they
// refer to in the place of its number. A reference to a row that is not there reads "(none)"; a null reads as the empty
// text, as it is carried over.
namespace named {

using Rows = std::vector<std::vector<std::string>>;
using Tables = std::map<std::string, Rows>;

struct Table {
  const char* name;
  std::string sql;
  // Per column the buffer, in bytes with a terminator, that a carried value is cut to; 0 where it is carried whole.
  std::vector<std::size_t> capacity;
};

constexpr std::size_t kText = 8192;
constexpr std::size_t kName = 1024;

inline std::string nameOf(const std::string& alias, const std::string& key, const std::string& name) {
  return "CASE WHEN " + alias + "." + key + " IS NULL THEN '(none)' ELSE " + alias + "." + name + " END";
}

inline Table userRight(const char* table) {
  return {table,
          "SELECT " + nameOf("u", "userid", "username") + ", " + nameOf("s", "shareid", "sharename") +
              ", r.create_time FROM " + table +
              " r LEFT JOIN photo_user u ON u.userid = r.userid LEFT JOIN photo_share s ON s.shareid = r.shareid",
          {kName, kText, 0}};
}

inline Table hostUserRight(const char* table) {
  return {table,
          "SELECT r.userid, " + nameOf("s", "shareid", "sharename") + ", r.create_time FROM " + table +
              " r LEFT JOIN photo_share s ON s.shareid = r.shareid",
          {0, 0, 0}};
}

inline Table collection(const char* table, bool hasUsers) {
  return {table,
          std::string("SELECT ") + (hasUsers ? "userid, " : "") +
              "name, is_shared, start_time, end_time, sharelink, create_date, hidden FROM " + table,
          std::vector<std::size_t>(hasUsers ? 8 : 7, 0)};
}

inline Table member(const char* table, const std::string& collections, const std::string& column,
                    const std::string& media) {
  return {table,
          "SELECT " + nameOf("c", "id", "name") + ", " + nameOf("m", "id", "path") + " FROM " + table +
              " r LEFT JOIN " + collections + " c ON c.id = r.collectionid LEFT JOIN " + media + " m ON m.id = r." +
              column,
          {0, 0}};
}

inline const std::vector<Table>& tables() {
  static const std::string joinedShare = " LEFT JOIN photo_share s ON s.shareid = r.shareid";
  static const std::vector<Table> all = {
      {"photo_label", "SELECT name, category, info FROM photo_label", {kName, kText, kName}},
      userRight("photo_access_right"),
      {"photo_comment",
       "SELECT " + nameOf("i", "id", "path") +
           ", r.name, r.email, r.comment, r.date FROM photo_comment r LEFT JOIN photo_image i ON i.id = r.photo_id",
       {kText, kName, kName, kText, 0}},
      {"photo_config", "SELECT module_name, config_key, config_value FROM photo_config", {kName, 512, kText}},
      {"photo_image",
       "SELECT path, name, title, description, album, size, resolutionx, resolutiony, camera_make, camera_model, "
       "exposure, aperture, iso, timetaken, version, create_time, gps FROM photo_image",
       {kText, kText, kText, kText, kText, 0, 0, 0, kName, kName, 32, 32, 0, 0, 0, 0, 64}},
      {"photo_log", "SELECT create_time, log, success, \"user\" FROM photo_log", {0, kText, 0, kName}},
      {"photo_share",
       "SELECT sharename, title, description, public, hits, cover, comment, is_subdir, conversion, password "
       "FROM photo_share",
       {kText, kText, kText, 0, 0, kText, 0, 0, 0, kText}},
      userRight("photo_upload_right"),
      {"photo_user",
       "SELECT username, description, password, disabled, lock_pass, admin, email FROM photo_user",
       {kName, kName, kName, 0, 0, 0, kName}},
      {"video_comment", "SELECT path, name, email, comment, date FROM video_comment", {kText, kName, kName, kText, 0}},
      {"video_desc", "SELECT path, title, description FROM video_desc", {kText, kText, kText}},
      hostUserRight("photo_access_right_for_hox_account"),
      hostUserRight("photo_upload_right_for_hox_account"),
      hostUserRight("photo_manage_right_for_hox_account"),
      {"photo_image_label",
       "SELECT " + nameOf("i", "id", "path") + ", " + nameOf("l", "id", "name") +
           ", l.category, r.info, r.info_new, r.status FROM photo_image_label r LEFT JOIN photo_image i ON i.id = "
           "r.image_id LEFT JOIN photo_label l ON l.id = r.label_id",
       {kText, kName, 0, kName, kName, 0}},
      {"photo_video_label",
       "SELECT r.video_path, " + nameOf("l", "id", "name") +
           ", l.category FROM photo_video_label r LEFT JOIN photo_label l ON l.id = r.label_id",
       {kText, kName, 0}},
      {"category", "SELECT name, hidden, order_number, create_date, modify_date FROM category", {kName, 0, 0, 0, 0}},
      {"category_items",
       "SELECT " + nameOf("c", "id", "name") +
           ", lower(r.type), r.order_number, CASE lower(r.type) WHEN 'album' THEN r.album_id::text WHEN 'tag' THEN "
           "r.tag_id::text ELSE r.smart_id END FROM category_items r LEFT JOIN category c ON c.id = r.category_id",
       {kName, 0, 0, 32}},
      userRight("photo_manage_right"),
      {"photo_group", "SELECT groupname, description FROM photo_group", {kName, kName}},
      {"photo_group_permission",
       "SELECT " + nameOf("g", "groupid", "groupname") + ", " + nameOf("s", "shareid", "sharename") +
           ", r.permission, r.create_time FROM photo_group_permission r LEFT JOIN photo_group g ON g.groupid = "
           "r.groupid" +
           joinedShare,
       {kName, kName, 0, 0}},
      {"photo_group_permission_for_hox_account",
       "SELECT r.groupid, " + nameOf("s", "shareid", "sharename") +
           ", r.permission, r.create_time FROM photo_group_permission_for_hox_account r" + joinedShare,
       {0, 0, 0, 0}},
      {"photo_user_group",
       "SELECT " + nameOf("u", "userid", "username") + ", " + nameOf("g", "groupid", "groupname") +
           " FROM photo_user_group r LEFT JOIN photo_user u ON u.userid = r.userid LEFT JOIN photo_group g ON "
           "g.groupid = r.groupid",
       {kName, kName}},
      {"watermark",
       "SELECT shareid, path, opacity, gravity, size, hash, mtime, changed FROM watermark",
       {0, 0, 0, 0, 0, 0, 0, 0}},
      collection("photo_personal_collection", true),
      collection("photo_personal_collection_for_hox_account", true),
      collection("photo_personal_collection_for_admin", false),
      member("photo_personal_collection_photo", "photo_personal_collection", "photoid", "photo_image"),
      member("photo_personal_collection_photo_for_admin", "photo_personal_collection_for_admin", "photoid",
             "photo_image"),
      member("photo_personal_collection_photo_for_hox_account", "photo_personal_collection_for_hox_account", "photoid",
             "photo_image"),
      member("photo_personal_collection_video", "photo_personal_collection", "videoid", "video"),
      member("photo_personal_collection_video_for_admin", "photo_personal_collection_for_admin", "videoid", "video"),
      member("photo_personal_collection_video_for_hox_account", "photo_personal_collection_for_hox_account", "videoid",
             "video"),
  };
  return all;
}

// The longest beginning that fits a buffer of that many bytes and does not end within a character.
inline std::string cut(const std::string& text, std::size_t capacity) {
  if (capacity == 0 || text.size() < capacity) {
    return text;
  }
  std::size_t length = capacity - 1;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) {
    --length;
  }
  return text.substr(0, length);
}

inline Rows rowsOf(appliance::Database& database, const Table& table, bool cutToCapacity) {
  Rows rows = database.rows(table.sql);
  for (std::vector<std::string>& row : rows) {
    for (std::size_t column = 0; column < row.size(); ++column) {
      if (row[column] == "(null)") {
        row[column].clear();
      }
      if (cutToCapacity) {
        row[column] = cut(row[column], table.capacity[column]);
      }
    }
  }
  std::sort(rows.begin(), rows.end());
  return rows;
}

inline Tables rows(appliance::Database& database) {
  Tables all;
  for (const Table& table : tables()) {
    all[table.name] = rowsOf(database, table, false);
  }
  return all;
}

// The rows with their values cut as a merge cuts them.
inline Tables carriedRows(appliance::Database& database) {
  Tables all;
  for (const Table& table : tables()) {
    all[table.name] = rowsOf(database, table, true);
  }
  return all;
}

inline Rows together(const Rows& some, const Rows& others) {
  Rows all;
  std::merge(some.begin(), some.end(), others.begin(), others.end(), std::back_inserter(all));
  return all;
}

inline bool isVideoMember(const std::string& table) { return table.rfind("photo_personal_collection_video", 0) == 0; }

}  // namespace named

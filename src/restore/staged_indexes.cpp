#include "restore/staged_indexes.h"

#include <array>

#include "platform/query.h"
#include "platform/text.h"

namespace {

// Of equal keys these indexes give the rows in the tables' order, as a scan of the table would. Photo paths are unique
// and may be too long for an entry of an ordered index, so theirs is a hash; photo_image_bak.id becomes the primary
// key.
constexpr std::array kIndexes = {
    "CREATE INDEX ON photo_image_bak USING hash (path)",
    "CREATE INDEX ON video_comment_bak (path)",
    "CREATE INDEX ON video_desc_bak (path)",
    "CREATE INDEX ON photo_video_label_bak (video_path)",
    "CREATE INDEX ON photo_comment_bak (photo_id)",
    "CREATE INDEX ON photo_image_label_bak (image_id)",
    "CREATE INDEX ON photo_label_bak (id)",
    "CREATE INDEX ON photo_share_bak (shareid)",
    "CREATE INDEX ON photo_user_bak (userid)",
    "CREATE INDEX ON photo_access_right_bak (userid)",
    "CREATE INDEX ON photo_upload_right_bak (userid)",
    "CREATE INDEX ON photo_manage_right_bak (userid)",
    "CREATE INDEX ON photo_user_group_bak (groupid)",
    "CREATE INDEX ON photo_group_permission_bak (groupid)",
    "CREATE INDEX ON category_bak (id)",
    "CREATE INDEX ON photo_personal_collection_bak (id)",
    "CREATE INDEX ON photo_personal_collection_for_hox_account_bak (id)",
    "CREATE INDEX ON photo_personal_collection_for_admin_bak (id)",
};

void executeQuietly(DBConnect_tag* connection, const std::string& statement) {
  Result result;
  KAVODBExecute(connection, statement.c_str(), &result.handle);
}

}  // namespace

void indexStagedTables(DBConnect_tag* connection, std::span<const char* const> tables) {
  for (const char* statement : kIndexes) {
    executeQuietly(connection, statement);
  }
  for (const char* table : tables) {
    executeQuietly(connection, formatText("ANALYZE %s_bak", table));
  }
}

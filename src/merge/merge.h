#pragma once

#include <string>

#include "platform/database.h"

// The merge routines: each carries the rows of one table, or of one table family, from a source to a destination
// database. Rows are matched by their natural key, never by number, and decided one by one: a row that the destination
// lacks is inserted; one that it has is left as it is in skip mode and replaced in overwrite mode (gIsOverwiroteMode).
//
// `destination` is the live database: every look-up, insert, update and delete runs there, on the bare table. `source`
// is read, from the tables whose names end in `suffix` (empty for a database of its own, "_bak" for staged tables,
// where both are one connection).
//
// 0 when every source row was handled. A failed statement is logged as "Failed to exec [statement] (error text)" and
// ends the routine at once with a negative result; what was written before stays written. Rows are
// committed in windows, or one by one after a failure (see platform/side_by_side.h); KavophotoSyncLog is one
// transaction.
using MergeRoutine = int(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix);

// One row of a merge-routine table; an empty name with a null routine ends the table.
struct MergeEntry {
  const char* table;
  MergeRoutine* routine;
};

// photo_config, by module_name and config_key.
MergeRoutine KavophotoSyncConfig;

// photo_label, by name and category.
MergeRoutine KavophotoSyncPhotoLabel;

// category, by name.
MergeRoutine KavophotoSyncCategory;

// video_comment, by path, date and name; rows whose video file does not exist are skipped silently.
MergeRoutine KavophotoSyncVideoComment;

// video_desc, by path; rows whose video file does not exist are skipped silently.
MergeRoutine KavophotoSyncVideoDesc;

// The newest 100000 entries of photo_log, by create_time and user, in one transaction, numbered on from the
// destination's highest number. After a failure the transaction is left open in its failed state: nothing of it is
// committed when the connection is closed, and nothing runs on the connection until then.
MergeRoutine KavophotoSyncLog;

// photo_video_label, by video path and the label's name and category. A link whose label the destination lacks is
// logged as "KAVODBFetchRow failed. [statement] (error text)" and dropped.
MergeRoutine KavophotoSyncPhotoVideoLabel;

// photo_share, by sharename; shares without a folder below /var/services/photo/ are skipped silently. A share keeps its
// number, or gets the next one above the highest.
MergeRoutine KavophotoSyncShare;

// photo_user, by username, each with its access, upload and manage rights, which are replaced as a whole when the user
// was inserted or overwritten. A right on a share that either side lacks is dropped silently; a failed statement ends
// the copy of that one table of rights and is logged, but does not change the result. The old rights go only when all
// new ones have been read and found.
MergeRoutine KavophotoSyncUser;

// photo_group, by groupname, each with its members and permissions, on the same terms as a user's rights.
MergeRoutine KavophotoSyncGroup;

// photo_image, by path, each with its comments (by date and name) and label links (by the label's name and category),
// which are merged in skip mode too. Photos whose file does not exist are skipped silently. A failed statement of a
// photo's comments or links ends those and is logged, but does not change the result.
MergeRoutine KavophotoSyncImage;

// category_items, the category by name, the member numbers as they are; albums and tags only where the destination has
// that number.
MergeRoutine KavophotoSyncCategoryItems;

// watermark, by shareid as it is. 0 also when the source cannot be read, which is not logged; -2 when a look-up fails,
// -3 when an insert or update fails.
MergeRoutine KavophotoSyncWatermark;

// True for the three tables of personal collections, in any spelling of their names.
bool isPersonalCollectionTable(const char* table);

// The rows of one of the personal-collection tables, by name. -1 when the source cannot be read, -2 when a look-up
// fails, -3 when an insert or update fails.
int KavophotoSyncPersonalCollection(DBConnect_tag* destination, DBConnect_tag* source, const std::string& table,
                                    const char* suffix);

// The photo and video members of all personal collections, found in the destination by the collection's name and the
// media file's path; a member without a counterpart is skipped. To be called last, when collections and media are
// merged. Members are only ever added. 0, or the first negative result of a family: its member table could not be read,
// and the families after it are not merged.
int KavophotoSyncPersonalCollectionItems(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix);

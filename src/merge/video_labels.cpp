#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

bool mergeLink(DBConnect_tag* destination, const Result& row) {
  const std::string plainPath = fieldText(row, "video_path", kTextCapacity);
  if (!fileExists(plainPath)) {
    return true;
  }
  const std::string path = escapeText(plainPath);
  const std::string name = escapeText(fieldText(row, "name", kNameCapacity));
  const std::string category = fieldText(row, "category", kTextCapacity);
  Result link;
  if (!execute(destination,
               formatText("Select photo_video_label.id as id from photo_video_label left join photo_label on "
                          "photo_video_label.label_id=photo_label.id where video_path = '%s' and name = '%s' and "
                          "category = %s",
                          path.c_str(), name.c_str(), category.c_str()),
               {{}, {category}}, link)) {
    return false;
  }
  if (hasRows(link)) {
    if (!gIsOverwiroteMode) {
      return true;
    }
    // Only the first link is replaced, also where there are several.
    fetchRow(link);
    const std::string id = fieldText(link, "id", kTextCapacity);
    if (!execute(destination, formatText("Delete from photo_video_label where id = %s", id.c_str()))) {
      return false;
    }
  }

  // A link whose label the destination lacks is dropped.
  std::string label;
  const Lookup found = findLabel(destination, name, category, label);
  if (found != Lookup::kFound) {
    return found == Lookup::kMissing;
  }
  return execute(destination,
                 formatText("Insert into photo_video_label (video_path, label_id, status) Values ('%s', %s, 't')",
                            path.c_str(), label.c_str()));
}

}  // namespace

int KavophotoSyncPhotoVideoLabel(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result links;
  if (!execute(source,
               formatText("Select * from photo_video_label%s left join photo_label%s on "
                          "photo_video_label%s.label_id=photo_label%s.id",
                          suffix, suffix, suffix, suffix),
               links)) {
    return -1;
  }
  while (fetchRow(links)) {
    if (!mergeLink(destination, links)) {
      return -1;
    }
  }
  return 0;
}

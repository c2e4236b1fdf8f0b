#include "merge/common.h"
#include "merge/merge.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kDateCapacity = 64;

Merged mergeComment(DBConnect_tag* destination, const Result& row) {
  const std::string plainPath = fieldText(row, "path", kTextCapacity);
  if (!fileExists(plainPath)) {
    return Merged::kKept;
  }
  const std::string path = escapeText(plainPath);
  const std::string name = escapeText(fieldText(row, "name", kNameCapacity));
  const std::string email = escapeText(fieldText(row, "email", kNameCapacity));
  const std::string comment = escapeText(fieldText(row, "comment", kTextCapacity));
  const std::string date = escapeText(fieldText(row, "date", kDateCapacity));
  return mergeRow(
      destination,
      formatText("Select * from video_comment where path = '%s' and date = '%s' and name = '%s'", path.c_str(),
                 date.c_str(), name.c_str()),
      formatText("Delete from video_comment where path = '%s' and date = '%s' and name = '%s'", path.c_str(),
                 date.c_str(), name.c_str()),
      formatText("Insert into video_comment (path, name, email, comment, date) Values ('%s', '%s', '%s', '%s', '%s')",
                 path.c_str(), name.c_str(), email.c_str(), comment.c_str(), date.c_str()));
}

Merged mergeDescription(DBConnect_tag* destination, const Result& row) {
  const std::string plainPath = fieldText(row, "path", kTextCapacity);
  if (!fileExists(plainPath)) {
    return Merged::kKept;
  }
  const std::string path = escapeText(plainPath);
  const std::string title = escapeText(fieldText(row, "title", kTextCapacity));
  const std::string description = escapeText(fieldText(row, "description", kTextCapacity));
  return mergeRow(destination, formatText("Select * from video_desc where path = '%s'", path.c_str()),
                  formatText("Delete from video_desc where path = '%s'", path.c_str()),
                  formatText("Insert into video_desc (path, title, description) Values ('%s', '%s', '%s')",
                             path.c_str(), title.c_str(), description.c_str()));
}

}  // namespace

int KavophotoSyncVideoComment(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result comments;
  if (!execute(source, formatText("Select * from video_comment%s", suffix), comments)) {
    return -1;
  }
  while (fetchRow(comments)) {
    if (mergeComment(destination, comments) == Merged::kFailed) {
      return -1;
    }
  }
  return 0;
}

int KavophotoSyncVideoDesc(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result descriptions;
  if (!execute(source, formatText("Select * from video_desc%s", suffix), descriptions)) {
    return -1;
  }
  while (fetchRow(descriptions)) {
    if (mergeDescription(destination, descriptions) == Merged::kFailed) {
      return -1;
    }
  }
  return 0;
}

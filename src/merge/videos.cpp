#include "merge/common.h"
#include "merge/merge.h"

namespace {

constexpr std::size_t kDateCapacity = 64;

struct Comment {
  Text path;
  Text name;
  Text email;
  Text comment;
  Text date;
};

std::vector<std::string> keysOf(const Comment& comment) {
  if (!isPrintedTime(comment.date.text)) {
    return {};
  }
  return {comment.path.text + '\n' + comment.date.text + '\n' + comment.name.text};
}

std::optional<Comment> readComment(const Result& row) {
  Comment comment = {textField(row, "path", kTextCapacity), textField(row, "name", kNameCapacity),
                     textField(row, "email", kNameCapacity), textField(row, "comment", kTextCapacity),
                     textField(row, "date", kDateCapacity)};
  return fileExists(comment.path.text) ? std::optional(std::move(comment)) : std::nullopt;
}

struct Description {
  Text path;
  Text title;
  Text description;
};

std::vector<std::string> keysOf(const Description& description) { return {description.path.text}; }

std::optional<Description> readDescription(const Result& row) {
  Description description = {textField(row, "path", kTextCapacity), textField(row, "title", kTextCapacity),
                             textField(row, "description", kTextCapacity)};
  return fileExists(description.path.text) ? std::optional(std::move(description)) : std::nullopt;
}

}  // namespace

int KavophotoSyncVideoComment(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  return mergeRows(
      sides, sql("Select * from video_comment%s", sides.suffix), {{"video_comment", {"id", "path", "date", "name"}}},
      readComment, [&](const Comment& comment) {
        return mergeNumberedRow(
            destination,
            sql("Select * from video_comment where path = '%s' and date = '%s' and name = '%s'", comment.path,
                comment.date, comment.name),
            sql("Delete from video_comment where path = '%s' and date = '%s' and name = '%s'", comment.path,
                comment.date, comment.name),
            sql("Insert into video_comment (path, name, email, comment, date) Values ('%s', '%s', '%s', '%s', "
                "'%s')",
                comment.path, comment.name, comment.email, comment.comment, comment.date));
      });
}

int KavophotoSyncVideoDesc(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  return mergeRows(sides, sql("Select * from video_desc%s", sides.suffix), {{"video_desc", {"id", "path"}}},
                   readDescription, [&](const Description& description) {
                     return mergeNumberedRow(
                         destination, sql("Select * from video_desc where path = '%s'", description.path),
                         sql("Delete from video_desc where path = '%s'", description.path),
                         sql("Insert into video_desc (path, title, description) Values ('%s', '%s', '%s')",
                             description.path, description.title, description.description));
                   });
}

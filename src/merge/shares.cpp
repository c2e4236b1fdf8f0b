#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

struct Share {
  Text name;
  Text title;
  Text description;
  Raw isPublic;
  Raw hits;
  Text cover;
  Raw comment;
  Raw isSubdirectory;
  Raw conversion;
  Raw password;
};

std::vector<std::string> keysOf(const Share& share) { return {share.name.text}; }

std::optional<Share> readShare(const Result& row) {
  Share share;
  share.name = textField(row, "sharename", kTextCapacity);
  if (!fileExists(cutText("/var/services/photo/" + share.name.text, kTextCapacity))) {
    return std::nullopt;
  }
  share.title = textField(row, "title", kTextCapacity);
  share.description = textField(row, "description", kTextCapacity);
  share.isPublic = rawField(row, "public", kNumberCapacity);
  share.hits = rawField(row, "hits", kNumberCapacity);
  share.cover = textField(row, "cover", kTextCapacity);
  share.comment = rawField(row, "comment", kNumberCapacity);
  share.isSubdirectory = rawField(row, "is_subdir", kNumberCapacity);
  share.conversion = rawField(row, "conversion", kNumberCapacity);
  share.password = rawField(row, "password", kTextCapacity);
  return share;
}

bool insertShare(DBConnect_tag* destination, const Share& share) {
  // Asked afresh for every insert, so that the shares of this run count.
  const Turn turn;
  const long long number =
      nextNumber(destination, sql("Select shareid from photo_share order by shareid desc limit 1"), "shareid");
  return execute(destination,
                 "Insert into photo_share "
                 "(shareid,sharename,title,description,public,hits,cover,comment,is_subdir,password,conversion) "
                 "Values (%s, '%s', '%s', '%s', '%s', %s, '%s', '%s', '%s', '%s', '%s')",
                 number, share.name, share.title, share.description, share.isPublic, share.hits, share.cover,
                 share.comment, share.isSubdirectory, share.password, share.conversion);
}

bool updateShare(DBConnect_tag* destination, const Share& share) {
  return execute(destination,
                 "Update photo_share set title = '%s', description = '%s', public = '%s', hits = %s, cover = '%s', "
                 "comment = '%s', is_subdir = '%s', password = '%s', conversion = '%s'  where sharename = '%s'",
                 share.title, share.description, share.isPublic, share.hits, share.cover, share.comment,
                 share.isSubdirectory, share.password, share.conversion, share.name);
}

bool mergeShare(DBConnect_tag* destination, const Share& share) {
  Result live;
  if (!execute(destination, live, "Select * from photo_share where sharename = '%s'", share.name)) {
    return false;
  }
  if (!hasRows(live)) {
    return insertShare(destination, share);
  }
  return !gIsOverwiroteMode || updateShare(destination, share);
}

}  // namespace

int KavophotoSyncShare(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  return mergeRows(sides, sql("Select * from photo_share%s", sides.suffix), {{"photo_share", {"shareid", "sharename"}}},
                   readShare, [&](const Share& share) { return mergeShare(destination, share); });
}

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

// A row of photo_share as it stands in the statements: escaped where its column is.
struct Share {
  std::string name;
  std::string title;
  std::string description;
  std::string isPublic;
  std::string hits;
  std::string cover;
  std::string comment;
  std::string isSubdirectory;
  std::string conversion;
  std::string password;
};

Share readShare(const Result& row) {
  Share share;
  share.name = escapeText(fieldText(row, "sharename", kTextCapacity));
  share.title = escapeText(fieldText(row, "title", kTextCapacity));
  share.description = escapeText(fieldText(row, "description", kTextCapacity));
  share.isPublic = fieldText(row, "public", kNumberCapacity);
  share.hits = fieldText(row, "hits", kNumberCapacity);
  share.cover = escapeText(fieldText(row, "cover", kTextCapacity));
  share.comment = fieldText(row, "comment", kNumberCapacity);
  share.isSubdirectory = fieldText(row, "is_subdir", kNumberCapacity);
  share.conversion = fieldText(row, "conversion", kNumberCapacity);
  share.password = fieldText(row, "password", kTextCapacity);
  return share;
}

RawValues rawValues(const Share& share) {
  return {{share.isPublic, share.comment, share.isSubdirectory, share.conversion, share.password}, {share.hits}};
}

// Asked afresh for every insert, so that the shares of this run count.
long long nextShareNumber(DBConnect_tag* connection) {
  return nextNumber(connection, "Select shareid from photo_share order by shareid desc limit 1", "shareid");
}

bool insertShare(DBConnect_tag* destination, const Share& share) {
  return execute(
      destination,
      formatText("Insert into photo_share "
                 "(shareid,sharename,title,description,public,hits,cover,comment,is_subdir,password,conversion) "
                 "Values (%lld, '%s', '%s', '%s', '%s', %s, '%s', '%s', '%s', '%s', '%s')",
                 nextShareNumber(destination), share.name.c_str(), share.title.c_str(), share.description.c_str(),
                 share.isPublic.c_str(), share.hits.c_str(), share.cover.c_str(), share.comment.c_str(),
                 share.isSubdirectory.c_str(), share.password.c_str(), share.conversion.c_str()),
      rawValues(share));
}

bool updateShare(DBConnect_tag* destination, const Share& share) {
  return execute(destination,
                 formatText("Update photo_share set title = '%s', description = '%s', public = '%s', hits = %s, "
                            "cover = '%s', comment = '%s', is_subdir = '%s', password = '%s', conversion = '%s'  "
                            "where sharename = '%s'",
                            share.title.c_str(), share.description.c_str(), share.isPublic.c_str(), share.hits.c_str(),
                            share.cover.c_str(), share.comment.c_str(), share.isSubdirectory.c_str(),
                            share.password.c_str(), share.conversion.c_str(), share.name.c_str()),
                 rawValues(share));
}

bool mergeShare(DBConnect_tag* destination, const Result& row) {
  const std::string folder = "/var/services/photo/" + fieldText(row, "sharename", kTextCapacity);
  if (!fileExists(cutText(folder, kTextCapacity))) {
    return true;
  }
  const Share share = readShare(row);
  Result live;
  if (!execute(destination, formatText("Select * from photo_share where sharename = '%s'", share.name.c_str()), live)) {
    return false;
  }
  if (!hasRows(live)) {
    return insertShare(destination, share);
  }
  return !gIsOverwiroteMode || updateShare(destination, share);
}

}  // namespace

int KavophotoSyncShare(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result shares;
  if (!execute(source, formatText("Select * from photo_share%s", suffix), shares)) {
    return -1;
  }
  while (fetchRow(shares)) {
    if (!mergeShare(destination, shares)) {
      return -1;
    }
  }
  return 0;
}

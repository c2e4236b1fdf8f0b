#include <climits>
#include <cstdlib>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/lookup_index.h"
#include "platform/text.h"

namespace {

constexpr int kMostEntries = 100000;
constexpr std::size_t kDateCapacity = 64;

// The numbers wrap at the column's largest one.
int idAfter(long long id) { return id >= INT_MAX ? 1 : static_cast<int>(id) + 1; }

// False when the statement fails.
bool readNextId(DBConnect_tag* destination, int& nextId) {
  Result highest;
  if (!execute(destination, "SELECT max(logid) as max FROM photo_log", highest)) {
    return false;
  }
  // An empty table gives one row with a null, which counts as 0.
  fetchRow(highest);
  nextId = idAfter(std::strtoll(fieldText(highest, "max", kNumberCapacity).c_str(), nullptr, 10));
  return true;
}

Merged mergeEntry(DBConnect_tag* destination, const Result& entry, int id) {
  const std::string createTime = escapeText(fieldText(entry, "create_time", kDateCapacity));
  const std::string log = escapeText(fieldText(entry, "log", kTextCapacity));
  const std::string success = escapeText(fieldText(entry, "success", kNumberCapacity));
  const std::string user = escapeText(fieldText(entry, "user", kNameCapacity));
  return mergeRow(destination,
                  formatText("Select * from photo_log where create_time = '%s' and photo_log.user = '%s'",
                             createTime.c_str(), user.c_str()),
                  formatText("Delete from photo_log where create_time = '%s' and photo_log.user = '%s'",
                             createTime.c_str(), user.c_str()),
                  formatText("Insert into photo_log Values (%d, '%s', '%s', '%s', '%s')", id, createTime.c_str(),
                             log.c_str(), success.c_str(), user.c_str()));
}

}  // namespace

int KavophotoSyncLog(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result entries;
  if (!execute(source, formatText("Select * from photo_log%s ORDER BY create_time DESC LIMIT %d", suffix, kMostEntries),
               entries)) {
    return -1;
  }
  int nextId = 1;
  if (!readNextId(destination, nextId)) {
    return -1;
  }

  KAVODBTransBegin(destination);
  // The log has no index for what it is looked up by, and a scan per entry would visit entries times entries rows.
  const bool hasIndex = createLookupIndex(destination, "photo_log", "create_time", rowCount(entries));
  while (fetchRow(entries)) {
    switch (mergeEntry(destination, entries, nextId)) {
      case Merged::kFailed:
        return -1;
      case Merged::kInserted:
        nextId = idAfter(nextId);
        break;
      case Merged::kKept:
        break;
    }
  }
  if (hasIndex) {
    dropLookupIndex(destination);
  }
  KAVODBTransCommit(destination);
  return 0;
}

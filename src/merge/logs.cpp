#include <climits>
#include <cstdlib>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/lookup_index.h"

namespace {

constexpr int kMostEntries = 100000;
constexpr std::size_t kDateCapacity = 64;

struct Entry {
  Text createTime;
  Text log;
  Text success;
  Text user;
};

std::vector<std::string> keysOf(const Entry& entry) {
  if (!isPrintedTime(entry.createTime.text)) {
    return {};
  }
  return {entry.createTime.text + '\n' + entry.user.text};
}

std::optional<Entry> readEntry(const Result& row) {
  return Entry{textField(row, "create_time", kDateCapacity), textField(row, "log", kTextCapacity),
               textField(row, "success", kNumberCapacity), textField(row, "user", kNameCapacity)};
}

// The numbers wrap at the column's largest one.
int idAfter(long long id) { return id >= INT_MAX ? 1 : static_cast<int>(id) + 1; }

// False when the statement fails.
bool readNextId(DBConnect_tag* destination, int& nextId) {
  Result highest;
  if (!execute(destination, highest, "SELECT max(logid) as max FROM photo_log")) {
    return false;
  }
  // An empty table gives one row with a null, which counts as 0.
  fetchRow(highest);
  nextId = idAfter(std::strtoll(fieldText(highest, "max", kNumberCapacity).c_str(), nullptr, 10));
  return true;
}

// Rows that are inserted are numbered in the order of the listing.
int takeId(int& nextId) {
  const Turn turn;
  const int id = nextId;
  nextId = idAfter(nextId);
  return id;
}

bool mergeEntry(DBConnect_tag* destination, const Entry& entry, int& nextId) {
  const Room room = makeRoom(
      destination,
      sql("Select * from photo_log where create_time = '%s' and photo_log.user = '%s'", entry.createTime, entry.user),
      sql("Delete from photo_log where create_time = '%s' and photo_log.user = '%s'", entry.createTime, entry.user));
  if (room != Room::kFree) {
    return room == Room::kTaken;
  }
  return execute(destination, "Insert into photo_log Values (%s, '%s', '%s', '%s', '%s')", takeId(nextId),
                 entry.createTime, entry.log, entry.success, entry.user);
}

}  // namespace

int KavophotoSyncLog(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result entries;
  if (!execute(source, entries, "Select * from photo_log%s ORDER BY create_time DESC LIMIT %s", Name(suffix),
               kMostEntries)) {
    return -1;
  }
  int nextId = 1;
  if (!readNextId(destination, nextId)) {
    return -1;
  }

  KAVODBTransBegin(destination);
  // The log has no index for what it is looked up by, and a scan per entry would visit entries times entries rows.
  const bool hasIndex = createLookupIndex(destination, "photo_log", "create_time", rowCount(entries));
  const int status = forEachRow(
      {destination, source, {{"photo_log", {"logid", "create_time", "user"}}}}, entries, readEntry,
      [&](const Entry& entry) { return mergeEntry(destination, entry, nextId); }, nextId);
  if (status < 0) {
    return status;
  }
  if (hasIndex) {
    dropLookupIndex(destination);
  }
  KAVODBTransCommit(destination);
  return 0;
}

#include "merge/common.h"

#include <sys/stat.h>

#include <climits>
#include <cstdlib>

#include "platform/log.h"
#include "platform/overwrite_mode.h"

Room makeRoom(DBConnect_tag* destination, const Statement& lookUp, const Statement& remove) {
  Result found;
  if (!execute(destination, found, lookUp)) {
    return Room::kFailed;
  }
  if (!hasRows(found)) {
    return Room::kFree;
  }
  if (!gIsOverwiroteMode) {
    return Room::kTaken;
  }
  return execute(destination, remove) ? Room::kFree : Room::kFailed;
}

bool mergeRow(DBConnect_tag* destination, const Statement& lookUp, const Statement& remove, const Statement& insert) {
  const Room room = makeRoom(destination, lookUp, remove);
  return room == Room::kTaken || (room == Room::kFree && execute(destination, insert));
}

bool mergeNumberedRow(DBConnect_tag* destination, const Statement& lookUp, const Statement& remove,
                      const Statement& insert) {
  const Room room = makeRoom(destination, lookUp, remove);
  if (room != Room::kFree) {
    return room == Room::kTaken;
  }
  takeTurn();
  return execute(destination, insert);
}

bool fileExists(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0;
}

long long nextNumber(DBConnect_tag* connection, const Statement& highest, const char* column) {
  Result row;
  if (!execute(connection, row, highest)) {
    return 1;
  }
  // An empty table gives the empty text, which counts as 0.
  const std::string number = fetchRow(row) ? fieldText(row, column, kNumberCapacity) : "";
  const long long value = std::strtoll(number.c_str(), nullptr, 10);
  return value < LLONG_MAX ? value + 1 : value;
}

namespace {

// The number of the row of the destination that has the name of a row of the source.
Lookup findByName(const Sides& sides, const Statement& inSource, const char* nameColumn, std::size_t nameCapacity,
                  Statement (*inDestination)(const Text& name), const char* numberColumn, Raw& number) {
  Result row;
  if (!execute(sides.source, row, inSource)) {
    return Lookup::kFailed;
  }
  if (!fetchRow(row)) {
    return Lookup::kMissing;
  }
  if (!execute(sides.destination, row, inDestination(textField(row, nameColumn, nameCapacity)))) {
    return Lookup::kFailed;
  }
  if (!fetchRow(row)) {
    return Lookup::kMissing;
  }
  number = rawField(row, numberColumn, kNumberCapacity);
  return Lookup::kFound;
}

}  // namespace

Lookup findShare(const Sides& sides, const Raw& sourceShare, std::size_t nameCapacity, Raw& number) {
  return findByName(
      sides, sql("Select * from photo_share%s where shareid = %s", sides.suffix, sourceShare), "sharename",
      nameCapacity, [](const Text& name) { return sql("Select * from photo_share where sharename = '%s'", name); },
      "shareid", number);
}

Lookup findUser(const Sides& sides, const Raw& sourceUser, Raw& number) {
  return findByName(
      sides, sql("Select * from photo_user%s where userid = %s", sides.suffix, sourceUser), "username", kNameCapacity,
      [](const Text& name) { return sql("Select * from photo_user where username = '%s'", name); }, "userid", number);
}

bool mergeLabelLink(DBConnect_tag* destination, const Text& name, const Raw& category, const Statement& lookUp,
                    std::size_t idCapacity, const std::function<Statement(const Raw& id)>& remove,
                    const std::function<Statement(const Raw& label)>& insert) {
  Result row;
  if (!execute(destination, row, lookUp)) {
    return false;
  }
  if (fetchRow(row)) {
    if (!gIsOverwiroteMode) {
      return true;
    }
    if (!execute(destination, remove(rawField(row, "id", idCapacity)))) {
      return false;
    }
  }
  const Statement findLabel = sql("Select id from photo_label where name = '%s' and category = %s", name, category);
  if (!execute(destination, row, findLabel)) {
    return false;
  }
  if (!fetchRow(row)) {
    KAVO_LOG("KAVODBFetchRow failed. [%s] (%s)", statementText(findLabel).c_str(), KAVODBErrorGet(destination));
    return true;
  }
  return execute(destination, insert(rawField(row, "id", kNumberCapacity)));
}

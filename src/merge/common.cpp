#include "merge/common.h"

#include <sys/stat.h>

#include <climits>
#include <cstdlib>

#include "platform/log.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

Merged mergeRow(DBConnect_tag* destination, const std::string& lookUp, const std::string& remove,
                const std::string& insert, const RawValues& rawInKey, const RawValues& rawInInsert, int line) {
  Result found;
  if (!execute(destination, lookUp, rawInKey, found, line)) {
    return Merged::kFailed;
  }
  if (hasRows(found)) {
    if (!gIsOverwiroteMode) {
      return Merged::kKept;
    }
    if (!execute(destination, remove, rawInKey, line)) {
      return Merged::kFailed;
    }
  }
  return execute(destination, insert, rawInInsert, line) ? Merged::kInserted : Merged::kFailed;
}

bool fileExists(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0;
}

long long nextNumber(DBConnect_tag* connection, const char* statement, const char* column, int line) {
  Result highest;
  if (!execute(connection, statement, highest, line)) {
    return 1;
  }
  // An empty table gives the empty text, which counts as 0.
  const std::string number = fetchRow(highest) ? fieldText(highest, column, kNumberCapacity) : "";
  const long long value = std::strtoll(number.c_str(), nullptr, 10);
  return value < LLONG_MAX ? value + 1 : value;
}

Lookup findShare(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix, const std::string& sourceShare,
                 std::size_t nameCapacity, std::string& number) {
  Result share;
  if (!execute(source, formatText("Select * from photo_share%s where shareid = %s", suffix, sourceShare.c_str()),
               {{}, {sourceShare}}, share)) {
    return Lookup::kFailed;
  }
  if (!fetchRow(share)) {
    return Lookup::kMissing;
  }
  const std::string name = escapeText(fieldText(share, "sharename", nameCapacity));
  if (!execute(destination, formatText("Select * from photo_share where sharename = '%s'", name.c_str()), share)) {
    return Lookup::kFailed;
  }
  if (!fetchRow(share)) {
    return Lookup::kMissing;
  }
  number = fieldText(share, "shareid", kNumberCapacity);
  return Lookup::kFound;
}

Lookup findLabel(DBConnect_tag* destination, const std::string& name, const std::string& category, std::string& number,
                 int line) {
  const std::string statement =
      formatText("Select id from photo_label where name = '%s' and category = %s", name.c_str(), category.c_str());
  Result label;
  if (!execute(destination, statement, {{}, {category}}, label, line)) {
    return Lookup::kFailed;
  }
  if (!fetchRow(label)) {
    KAVO_LOG_AT(line, "KAVODBFetchRow failed. [%s] (%s)", statement.c_str(), KAVODBErrorGet(destination));
    return Lookup::kMissing;
  }
  number = fieldText(label, "id", kNumberCapacity);
  return Lookup::kFound;
}

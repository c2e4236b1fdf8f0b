#pragma once

#include <string>

#include "platform/query.h"

// What the merge routines share. Every failed statement is logged here, for the caller's line.

// Sizes, in bytes with a terminator, of the buffers that column values are cut to.
inline constexpr std::size_t kTextCapacity = 8192;
inline constexpr std::size_t kNameCapacity = 1024;
inline constexpr std::size_t kNumberCapacity = 32;

// What became of a row; kFailed when one of its statements failed.
enum class Merged { kFailed, kKept, kInserted };

// Merges one row that is replaced as a whole: `insert` runs when `lookUp` finds no row; in overwrite mode `remove` and
// then `insert` when it finds some; nothing otherwise. `rawInKey` are the unescaped values in `lookUp` and `remove`,
// `rawInInsert` those in `insert`.
Merged mergeRow(DBConnect_tag* destination, const std::string& lookUp, const std::string& remove,
                const std::string& insert, const RawValues& rawInKey = {}, const RawValues& rawInInsert = {},
                int line = __builtin_LINE());

// True when something exists at `path` on the local file system.
bool fileExists(const std::string& path);

// One more than the number in `column` of the first row of `statement`, which asks for the highest, but never more than
// LLONG_MAX; 1 when there is no row or the statement fails, which is logged.
long long nextNumber(DBConnect_tag* connection, const char* statement, const char* column, int line = __builtin_LINE());

// Calls take() at each row of `rows`. True when it agreed to every one of them; false once it does not, and when rows
// that the server sent cannot be read back, which is logged.
template <typename Take>
bool takeEveryRow(Result& rows, Take take) {
  long long taken = 0;
  while (fetchRow(rows)) {
    if (!take()) {
      return false;
    }
    ++taken;
  }
  return taken == rowCount(rows);
}

enum class Lookup { kFound, kMissing, kFailed };

// Sets `number` to the destination's shareid of the share that has the number `sourceShare` in the source, found by its
// name, which is cut to `nameCapacity` bytes. Missing when either side lacks it.
Lookup findShare(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix, const std::string& sourceShare,
                 std::size_t nameCapacity, std::string& number);

// Sets `number` to the destination's id of the label of that name, which is escaped, and category, which is not.
// Missing when the destination lacks it, which is logged for the caller's line.
Lookup findLabel(DBConnect_tag* destination, const std::string& name, const std::string& category, std::string& number,
                 int line = __builtin_LINE());

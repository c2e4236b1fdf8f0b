#pragma once

#include <functional>
#include <string>
#include <utility>

#include "platform/for_each_row.h"

// What the merge routines share. Every failed statement is logged where it stands.

// Sizes, in bytes with a terminator, of the buffers that column values are cut to.
inline constexpr std::size_t kTextCapacity = 8192;
inline constexpr std::size_t kNameCapacity = 1024;
inline constexpr std::size_t kNumberCapacity = 32;

// Where a merge writes, where it reads, and what the names of the tables that it reads end in.
struct Sides {
  DBConnect_tag* destination;
  DBConnect_tag* source;
  Name suffix;
};

// Lists rows of the source and merges each of them, into the tables of `written`; see forEachRow. -1 when the listing
// fails.
template <typename Read, typename Merge>
int mergeRows(const Sides& sides, const Statement& listing, std::vector<WrittenTable> written, Read read, Merge merge) {
  Result rows;
  if (!execute(sides.source, rows, listing)) {
    return -1;
  }
  return forEachRow({sides.destination, sides.source, std::move(written)}, rows, std::move(read), std::move(merge));
}

// What became of the rows of the destination with a row's key: a statement failed, the row stays out, or there is none
// (any more).
enum class Room { kFailed, kTaken, kFree };

// Runs `remove` when `lookUp` finds rows in overwrite mode.
Room makeRoom(DBConnect_tag* destination, const Statement& lookUp, const Statement& remove);

// Merges one row that is replaced as a whole: `insert` runs when there is room. False when a statement failed.
bool mergeRow(DBConnect_tag* destination, const Statement& lookUp, const Statement& remove, const Statement& insert);

// The same for a row that the destination numbers: the numbers are in the order of the rows, also where some of them
// are replaced and some are new.
bool mergeNumberedRow(DBConnect_tag* destination, const Statement& lookUp, const Statement& remove,
                      const Statement& insert);

// True when something exists at `path` on the local file system.
bool fileExists(const std::string& path);

// One more than the number in `column` of the first row of `highest`, which asks for the highest, but never more than
// LLONG_MAX; 1 when there is no row or the statement fails. Rows side by side ask for it within a Turn.
long long nextNumber(DBConnect_tag* connection, const Statement& highest, const char* column);

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
Lookup findShare(const Sides& sides, const Raw& sourceShare, std::size_t nameCapacity, Raw& number);

// The same for the userid of a user.
Lookup findUser(const Sides& sides, const Raw& sourceUser, Raw& number);

// Merges the link of a photo or video to the label of that name and category. `lookUp` lists the links that the
// destination has, with their "id", of which at most `idCapacity` - 1 bytes count. In overwrite mode the first one is
// removed, by what `remove` makes of its id; then `insert` makes the link to the label's number. A link whose label the
// destination lacks is dropped, which is logged as "KAVODBFetchRow failed. [statement] (error text)". False when a
// statement failed.
bool mergeLabelLink(DBConnect_tag* destination, const Text& name, const Raw& category, const Statement& lookUp,
                    std::size_t idCapacity, const std::function<Statement(const Raw& id)>& remove,
                    const std::function<Statement(const Raw& label)>& insert);

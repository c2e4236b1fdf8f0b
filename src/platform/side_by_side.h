#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "platform/database.h"
#include "platform/independent_rows.h"
#include "platform/statement.h"

// Rows that are merged side by side. Each row's function runs on a stack of its own and reads as if it were alone: one
// statement after the other. Where it waits for a reply the next row goes on, so that the statements of all rows are on
// their way to the server together.

// The databases of a merge: rows are written to `destination`, to these tables, and read from `source`, which may be
// the same.
struct Databases {
  DBConnect_tag* destination;
  DBConnect_tag* source;
  std::vector<WrittenTable> written = {};
};

// How many rows run side by side; KAVOPHOTO_WINDOW of the environment sets another number from 0 to 1024. With 0 each
// row runs alone.
std::size_t windowRows();
// The same for a test of this process.
void setWindowRows(std::size_t rows);

// Calls row(0) to row(count - 1), in one transaction: after a kill none of them has written anything, or all have. They
// run side by side first. When any statement fails, or a row gives a negative result, all that is taken back,
// `takeBack` is called for what the rows have changed in this process, and they run again one after the other: each in
// a transaction of its own, in which a failed statement leaves what was written before it, until one gives a negative
// result. A row that is in the way of other sessions is tried ten times, and then its statements are committed one by
// one. Messages come out once, in the order of the rows.
//
// In an open transaction the rows become a part of it, and rows that run alone are not kept apart from it. 0, or the
// first negative result. A row that cannot be committed is logged and counts as -1.
int runRows(const Databases& databases, std::size_t count, const std::function<int(std::size_t)>& row,
            const std::function<void()>& takeBack);

// True in a row that runs beside others.
bool isBesideOthers();

// Runs a statement for such a row; other rows go on meanwhile. It does not return when the statement fails.
void executeBesideOthers(DBConnect_tag* connection, const Statement& statement, DBResult_tag** result);

// While a Turn lives, no later row has one, and all earlier rows have had theirs or are through. For what a row takes
// over from the rows before it: the highest number, say. At most one in a row's life.
class Turn {
 public:
  Turn();
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn();
};

// Waits for the row's turn and gives it up at once: what the row sends next reaches the server after what all earlier
// rows have sent in this way. For inserts that the server numbers.
inline void takeTurn() { const Turn turn; }

// For a row that learns only by look-ups which row of the destination it is about. When another row beside this one
// has claimed the same key, all rows of the window run again one after the other.
void claim(const std::string& key);

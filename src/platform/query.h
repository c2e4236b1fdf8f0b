#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/database.h"

struct ConnectionCloser {
  void operator()(DBConnect_tag* connection) const { KAVODBClose(connection); }
};
using Connection = std::unique_ptr<DBConnect_tag, ConnectionCloser>;

// Opens "photo" or another database of the local server as the tool's user; null on failure, which is not logged here.
Connection connectTo(const char* database);

// A result slot: freed when it goes out of scope or is used for the next statement.
struct Result {
  Result() = default;
  Result(const Result&) = delete;
  Result& operator=(const Result&) = delete;
  ~Result() { KAVODBFreeResult(handle); }

  DBResult_tag* handle = nullptr;
  DBRow_tag* row = nullptr;
};

inline constexpr std::size_t kWhole = std::numeric_limits<std::size_t>::max();

// Runs `statement` into `result`. On failure logs "Failed to exec [statement] (error text)" for the caller's line and
// returns false; the result is then empty.
bool execute(DBConnect_tag* connection, const std::string& statement, Result& result, int line = __builtin_LINE());

// The same for a statement whose rows nobody reads.
bool execute(DBConnect_tag* connection, const std::string& statement, int line = __builtin_LINE());

// Values that stand in a statement as the source holds them, not escaped: some between single quotes, some as bare
// numbers.
struct RawValues {
  std::vector<std::string_view> quoted;
  std::vector<std::string_view> bare;
};

// Runs a statement that holds such values, but not when one of them would end its place there: a single quote or
// anything but a number could turn the rest of the statement, its condition say, into another one that reaches rows of
// others. Such a statement fails: it is logged like any other, with what the server says to it unrun, or else with a
// reason of ours.
bool execute(DBConnect_tag* connection, const std::string& statement, const RawValues& raw, Result& result,
             int line = __builtin_LINE());
bool execute(DBConnect_tag* connection, const std::string& statement, const RawValues& raw,
             int line = __builtin_LINE());

// True when every value keeps its place: quotes in the quoted ones come in pairs, and the bare ones are made of numbers
// only.
bool keepTheirPlace(const RawValues& raw);

// Steps to the next row; false after the last.
bool fetchRow(Result& result);

long long rowCount(const Result& result);
inline bool hasRows(const Result& result) { return rowCount(result) > 0; }

// A column of the current row, cut to a buffer of `capacity` bytes (at most capacity - 1 are kept, never part of a
// UTF-8 character). A null field is the empty text.
std::string fieldText(const Result& result, const char* column, std::size_t capacity = kWhole);

// `text` escaped for use inside single quotes.
std::string escapeText(const std::string& text);

#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>

#include "platform/database.h"
#include "platform/statement.h"

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

// Runs the statement into `result`. On failure logs "Failed to exec [statement] (error text)" for the template's line
// and returns false; the result is then empty. So fails, without being run, a statement with a value that would end its
// own place there, which could make another statement of the rest; the error text is what the server says to it, or a
// reason of ours where the server would have run it.
//
// In a row that runs beside others (see side_by_side.h) it does not return when the statement fails.
bool execute(DBConnect_tag* connection, Result& result, const Statement& statement);
// The same for a statement whose rows nobody reads.
bool execute(DBConnect_tag* connection, const Statement& statement);

template <typename... Values>
bool execute(DBConnect_tag* connection, Result& result, std::type_identity_t<Template<Values...>> text,
             const Values&... values) {
  return execute(connection, result, sql<Values...>(text, values...));
}
template <typename... Values>
bool execute(DBConnect_tag* connection, std::type_identity_t<Template<Values...>> text, const Values&... values) {
  return execute(connection, sql<Values...>(text, values...));
}

// Steps to the next row; false after the last.
bool fetchRow(Result& result);

long long rowCount(const Result& result);
inline bool hasRows(const Result& result) { return rowCount(result) > 0; }

// A column of the current row, cut to a buffer of `capacity` bytes (at most capacity - 1 are kept, never part of a
// UTF-8 character). A null field is the empty text.
std::string fieldText(const Result& result, const char* column, std::size_t capacity = kWhole);

// The same as a value for a statement: to be escaped, or to stand as it is.
inline Text textField(const Result& result, const char* column, std::size_t capacity = kWhole) {
  return {fieldText(result, column, capacity)};
}
inline Raw rawField(const Result& result, const char* column, std::size_t capacity = kWhole) {
  return Raw(fieldText(result, column, capacity));
}

#include "platform/query.h"

#include <algorithm>

#include "platform/handles.h"
#include "platform/log.h"
#include "platform/progress.h"
#include "platform/text.h"

Connection connectTo(const char* database) { return Connection(KAVODBConnect(nullptr, "postgres", nullptr, database)); }

bool execute(DBConnect_tag* connection, const std::string& statement, Result& result, int line) {
  result.row = nullptr;
  if (KAVODBExecute(connection, statement.c_str(), &result.handle) == -1) {
    KAVO_LOG_AT(line, "Failed to exec [%s] (%s)", statement.c_str(), KAVODBErrorGet(connection));
    return false;
  }
  return true;
}

bool execute(DBConnect_tag* connection, const std::string& statement, int line) {
  Result result;
  return execute(connection, statement, result, line);
}

namespace {

// Inside quotes a doubled quote is one character of the text; a single one ends it.
bool staysQuoted(std::string_view value) {
  for (std::size_t at = value.find('\''); at != std::string_view::npos; at = value.find('\'', at + 2)) {
    if (value.substr(at, 2) != "''") {
      return false;
    }
  }
  return true;
}

// Two dashes begin a comment.
bool isNumeric(std::string_view value) {
  return value.find_first_not_of("0123456789.eE+- ") == std::string_view::npos &&
         value.find("--") == std::string_view::npos;
}

}  // namespace

bool keepTheirPlace(const RawValues& raw) {
  return std::all_of(raw.quoted.begin(), raw.quoted.end(), staysQuoted) &&
         std::all_of(raw.bare.begin(), raw.bare.end(), isNumeric);
}

bool execute(DBConnect_tag* connection, const std::string& statement, const RawValues& raw, Result& result, int line) {
  if (keepTheirPlace(raw)) {
    return execute(connection, statement, result, line);
  }
  const bool isRefused = KAVODBParse(connection, statement.c_str()) == -1;
  KAVO_LOG_AT(line, "Failed to exec [%s] (%s)", statement.c_str(),
              isRefused ? KAVODBErrorGet(connection) : "ERROR:  a value would end its own place in the statement");
  return false;
}

bool execute(DBConnect_tag* connection, const std::string& statement, const RawValues& raw, int line) {
  Result result;
  return execute(connection, statement, raw, result, line);
}

bool fetchRow(Result& result) {
  if (KAVODBFetchRow(result.handle, &result.row) != 0) {
    progressRowsEnd(result.handle);
    return false;
  }
  progressRow(result.handle, rowCount(result));
  return true;
}

long long rowCount(const Result& result) { return KAVODBNumRows(result.handle); }

std::string fieldText(const Result& result, const char* column, std::size_t capacity) {
  return cutText(KAVODBFetchField(result.handle, result.row, column), capacity);
}

std::string escapeText(const std::string& text) {
  const AllocatedText escaped(KAVODBEscapeStrAlloc(text.c_str()));
  return escaped.get();
}

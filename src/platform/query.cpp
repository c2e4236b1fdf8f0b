#include "platform/query.h"

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

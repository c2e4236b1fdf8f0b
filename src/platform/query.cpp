#include "platform/query.h"

#include <utility>

#include "platform/log.h"
#include "platform/progress.h"
#include "platform/side_by_side.h"
#include "platform/text.h"

Connection connectTo(const char* database) { return Connection(KAVODBConnect(nullptr, "postgres", nullptr, database)); }

namespace {

// Why a statement with a value that would end its own place there is not run.
const char* reasonAgainst(DBConnect_tag* connection, const std::string& text) {
  return KAVODBParse(connection, text.c_str()) == -1 ? KAVODBErrorGet(connection)
                                                     : "ERROR:  a value would end its own place in the statement";
}

}  // namespace

bool execute(DBConnect_tag* connection, Result& result, const Statement& statement) {
  result.row = nullptr;
  if (isBesideOthers()) {
    executeBesideOthers(connection, statement, &result.handle);
    return true;
  }
  const std::string text = statementText(statement);
  const bool mayRun = valuesKeepTheirPlaces(statement);
  if (mayRun && KAVODBExecute(connection, text.c_str(), &result.handle) != -1) {
    return true;
  }
  KAVODBFreeResult(std::exchange(result.handle, nullptr));
  KAVO_LOG_AT(statement.line, "Failed to exec [%s] (%s)", text.c_str(),
              mayRun ? KAVODBErrorGet(connection) : reasonAgainst(connection, text));
  return false;
}

bool execute(DBConnect_tag* connection, const Statement& statement) {
  Result result;
  return execute(connection, result, statement);
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

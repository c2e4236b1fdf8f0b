#include "platform/lookup_index.h"

#include <string>

#include "platform/text.h"

namespace {

constexpr long long kFewLookUps = 1000;

bool runs(DBConnect_tag* connection, const std::string& statement) {
  DBResult_tag* result = nullptr;
  const int status = KAVODBExecute(connection, statement.c_str(), &result);
  KAVODBFreeResult(result);
  return status != -1;
}

}  // namespace

bool createLookupIndex(DBConnect_tag* connection, const char* table, const char* column, long long lookUps) {
  if (lookUps < kFewLookUps || !runs(connection, "SAVEPOINT kavophoto_backup_lookup")) {
    return false;
  }
  // The strongest lock at once: dropping the index needs it in the end, and asking for it only then could deadlock with
  // a reader that wants to write. Statistics go with the index, for a table that never had any.
  const bool made = runs(connection, formatText("LOCK TABLE %s IN ACCESS EXCLUSIVE MODE NOWAIT", table)) &&
                    runs(connection, formatText("CREATE INDEX kavophoto_backup_lookup ON %s (%s)", table, column)) &&
                    runs(connection, formatText("ANALYZE %s", table)) &&
                    // A statement that is prepared while the table is empty would go on scanning it as it grows.
                    runs(connection, "SET LOCAL enable_seqscan = off");
  if (!made) {
    runs(connection, "ROLLBACK TO SAVEPOINT kavophoto_backup_lookup");
  }
  runs(connection, "RELEASE SAVEPOINT kavophoto_backup_lookup");
  return made;
}

void dropLookupIndex(DBConnect_tag* connection) { runs(connection, "DROP INDEX kavophoto_backup_lookup"); }

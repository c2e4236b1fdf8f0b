#include "restore/staging.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "platform/log.h"
#include "platform/process_runner.h"
#include "platform/query.h"
#include "platform/run_lock.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kTableNameCapacity = 1024;

KAVOUtils::ProcessRunner statementRunner(const std::string& statement) {
  return KAVOUtils::ProcessRunner("/usr/bin/psql", "/usr/bin/psql", "photo", "-U", "postgres", "-c", statement.c_str());
}

// psql also ends well when its start-up file for the whole system has switched autocommit off, and then nothing was
// renamed.
bool hasTable(DBConnect_tag* connection, const std::string& name) {
  Result found;
  const Statement statement = sql("SELECT FROM pg_class WHERE oid = to_regclass('public.%s')", Name(name));
  return KAVODBExecute(connection, statementText(statement).c_str(), &found.handle) != -1 && hasRows(found);
}

bool rename(const std::string& statement, const std::string& newName) {
  return statementRunner(statement).run(true, false) >= 0 && hasTable(runLockConnection(), newName);
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

List namesWith(const char* suffix, std::span<const char* const> tables) {
  std::vector<std::string> names;
  for (const char* table : tables) {
    names.push_back(std::string(table) + suffix);
  }
  return List::of(names, ", ");
}

// Column `column` of every row; nothing when the statement fails, which is logged.
std::optional<std::vector<std::string>> listNames(DBConnect_tag* connection, const Statement& statement,
                                                  const char* column) {
  Result rows;
  if (!execute(connection, rows, statement)) {
    return std::nullopt;
  }
  std::vector<std::string> names;
  while (fetchRow(rows)) {
    names.push_back(fieldText(rows, column, kTableNameCapacity));
  }
  return names;
}

std::optional<std::vector<std::string>> stagedTables(DBConnect_tag* connection, std::span<const char* const> tables) {
  return listNames(connection,
                   sql("SELECT tablename FROM pg_tables WHERE schemaname = 'public' and tablename in (%s)",
                       namesWith("_bak", tables)),
                   "tablename");
}

// An index or a sequence takes a name as well as a table.
const std::vector<std::string> kAnyKind = {"r", "p", "v", "m", "f", "i", "I", "S", "c", "t"};
// What the application may have in the place of a table; all of these are renamed alike.
const std::vector<std::string> kRenamable = {"r", "p", "v", "m", "f"};

std::optional<std::vector<std::string>> namesOfKind(DBConnect_tag* connection, std::span<const char* const> tables,
                                                    const char* suffix, const std::vector<std::string>& kinds) {
  return listNames(
      connection,
      sql("SELECT relname FROM pg_class WHERE relnamespace = 'public'::regnamespace and relkind in (%s) and "
          "relname in (%s)",
          List::of(kinds, ", "), namesWith(suffix, tables)),
      "relname");
}

// The note is a setting of the database: every later run finds it, it belongs to a transaction, and it adds no table to
// the application's database.
bool note(DBConnect_tag* connection, const std::string& value) {
  return execute(connection, "ALTER DATABASE photo SET kavophoto_backup.staged = '%s'", Text{value});
}

// Writes only where there is a note.
bool clearNote(DBConnect_tag* connection) {
  Result notes;
  if (!execute(connection, notes,
               "SELECT FROM pg_db_role_setting, unnest(setconfig) AS note WHERE setrole = 0 AND setdatabase = (SELECT "
               "oid FROM pg_database WHERE datname = current_database()) AND note LIKE 'kavophoto_backup.staged=%%'")) {
    return false;
  }
  return !hasRows(notes) || execute(connection, "ALTER DATABASE photo RESET kavophoto_backup.staged");
}

// Rolls back what was not committed when it goes out of scope.
class Transaction {
 public:
  explicit Transaction(DBConnect_tag* connection) : connection_(connection), isOpen_(execute(connection, "BEGIN")) {}
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (isOpen_) {
      execute(connection_, "ROLLBACK");
    }
  }

  bool isOpen() const { return isOpen_; }
  bool commit() {
    isOpen_ = false;
    return execute(connection_, "COMMIT");
  }

 private:
  DBConnect_tag* connection_;
  bool isOpen_;
};

// Whether a restore made the staged copy of `table`. All of these must hold:
// - Both are ordinary tables.
// - The note says so: the restore that is noted was loading when it was killed, or it noted this very table.
// - The copy is the younger one. The server counts object identifiers up from one table to the next, and a table keeps
//   its own through every renaming. So a live table that a backup has renamed is always older than one that the
//   application has made since under the live name, whatever the note says. After 2^32 objects the count begins anew;
//   two tables that are more than half of that apart are not compared.
constexpr char kIsRestoresCopy[] =
    "SELECT staged.oid FROM pg_class staged, pg_class live, pg_db_role_setting noted, unnest(noted.setconfig) AS note "
    "WHERE staged.oid = to_regclass('public.%s_bak') AND live.oid = to_regclass('public.%s') "
    "AND staged.relkind = 'r' AND live.relkind = 'r' "
    "AND staged.oid > live.oid AND staged.oid::bigint - live.oid::bigint < 2147483648 "
    "AND noted.setrole = 0 AND noted.setdatabase = (SELECT oid FROM pg_database WHERE datname = current_database()) "
    "AND (note = 'kavophoto_backup.staged=loading' OR (note LIKE 'kavophoto_backup.staged=%%' "
    "AND staged.oid::text = ANY (string_to_array(split_part(note, '=', 2), ' '))))";

void logLeftAlone(const char* table) {
  KAVO_LOG(
      "Table %s_bak is left alone, it may be the only copy of its rows: table %s exists too, and no restore made "
      "%s_bak. Compare the two, drop or rename the one that is not needed, and run again.",
      table, table, table);
}

void logWithoutLiveTable(const char* table) {
  KAVO_LOG(
      "Table %s_bak is left alone, it may be the only copy of its rows: there is no table %s. The next run renames "
      "it to %s.",
      table, table, table);
}

// Nothing when it cannot be asked, which is logged.
std::optional<bool> isRestoresCopy(DBConnect_tag* connection, const char* table) {
  Result copies;
  if (!execute(connection, copies, kIsRestoresCopy, Name(table), Name(table))) {
    return std::nullopt;
  }
  return hasRows(copies);
}

// The one place where the tool drops a table. Nothing is dropped but a copy that a restore made of a live table that
// still exists. The locks keep both from being dropped or renamed until the copy is gone, so they are taken before
// anything is looked at.
void dropStagedTable(DBConnect_tag* connection, const char* table) {
  Transaction transaction(connection);
  if (!transaction.isOpen() || !execute(connection, "LOCK TABLE %s IN ACCESS SHARE MODE", Name(table)) ||
      !execute(connection, "LOCK TABLE %s_bak IN ACCESS EXCLUSIVE MODE", Name(table))) {
    return;
  }
  const std::optional<bool> isCopy = isRestoresCopy(connection, table);
  if (!isCopy.value_or(false)) {
    if (isCopy) {
      logLeftAlone(table);
    }
    return;
  }
  const std::string statement = formatText("DROP TABLE %s_bak", table);
  Result dropped;
  if (KAVODBExecute(connection, statement.c_str(), &dropped.handle) == -1) {
    KAVO_LOG("Failed to execute commend: %s", statement.c_str());
    KAVO_LOG("Table %s_bak, a copy of table %s that a restore made, cannot be dropped (%s). Drop it and run again.",
             table, table, KAVODBErrorGet(connection));
    return;
  }
  transaction.commit();
}

}  // namespace

int KavophotoTableRename(const char* table) {
  if (table == nullptr) {
    KAVO_LOG("KavophotoTableRename: bad parameters.\n");
    return -1;
  }
  stageTable(table);
  return 0;
}

bool stageTable(const char* table) {
  if (!keepRunLock() ||
      !rename(formatText("ALTER TABLE %s RENAME TO %s_bak;", table, table), formatText("%s_bak", table))) {
    KAVO_LOG("KavophotoTableRename: Fail to rename table %s\n", table);
    return false;
  }
  return true;
}

int KavophotoTableRenameBack(const std::string& table) {
  if (table.empty()) {
    KAVO_LOG("KavophotoTableRename: bad parameters.\n");
    return -1;
  }
  if (!keepRunLockToUndo() ||
      !rename(formatText("ALTER TABLE %s_bak RENAME TO %s;", table.c_str(), table.c_str()), table)) {
    KAVO_LOG("KavophotoTableRenameBack: Fail to rename back table %s\n", table.c_str());
  }
  return 0;
}

int addDBPrimaryKey(const char* table, const char* keyColumn) {
  KAVOUtils::ProcessRunner runner =
      statementRunner(formatText("ALTER TABLE %s ADD CONSTRAINT %s_pkey PRIMARY KEY (%s)", table, table, keyColumn));
  if (!keepRunLock() || runner.run(true, false) < 0) {
    KAVO_LOG("addDBPrimaryKey failed (%s).", runner.toString().c_str());
    return 1;
  }
  return 0;
}

void recoverStagedTables(std::span<const char* const> tables) {
  const Connection connection = connectTo("photo");
  if (!connection) {
    return;
  }
  const auto staged = namesOfKind(connection.get(), tables, "_bak", kRenamable);
  const auto live = namesOfKind(connection.get(), tables, "", kAnyKind);
  for (const char* table : tables) {
    if (staged && live && contains(*staged, formatText("%s_bak", table)) && !contains(*live, table)) {
      KavophotoTableRenameBack(table);
    }
  }
}

int dropStagedTables(DBConnect_tag* connection, std::span<const char* const> tables) {
  const auto staged = stagedTables(connection, tables);
  const auto live = staged ? namesOfKind(connection, tables, "", kAnyKind) : std::nullopt;
  if (!live || !keepRunLock()) {
    return -1;
  }
  // Others cannot be locked, and are never copied by a restore.
  const auto lockable = namesOfKind(connection, tables, "", {"r", "p", "v"});
  for (const char* table : tables) {
    if (!contains(*staged, formatText("%s_bak", table))) {
      continue;
    }
    if (!contains(*live, table)) {
      logWithoutLiveTable(table);
    } else if (lockable && !contains(*lockable, table)) {
      logLeftAlone(table);
    } else {
      dropStagedTable(connection, table);
    }
  }
  return 0;
}

void reportForeignTables(std::span<const char* const> tables) {
  const Connection connection = connectTo("photo");
  if (!connection) {
    return;
  }
  const auto staged = stagedTables(connection.get(), tables);
  const auto live = staged && !staged->empty() ? namesOfKind(connection.get(), tables, "", kAnyKind) : std::nullopt;
  for (const char* table : tables) {
    if (live && contains(*staged, formatText("%s_bak", table)) && contains(*live, table) &&
        !isRestoresCopy(connection.get(), table).value_or(true)) {
      logLeftAlone(table);
    }
  }
}

void logTablesWithChildren(DBConnect_tag* connection, std::span<const char* const> tables) {
  const auto parents =
      listNames(connection,
                sql("SELECT DISTINCT parent.relname FROM pg_class parent JOIN pg_inherits ON inhparent = "
                    "parent.oid WHERE parent.relnamespace = 'public'::regnamespace and parent.relkind = 'r' and "
                    "parent.relname in (%s)",
                    namesWith("_bak", tables)),
                "relname");
  for (const char* table : tables) {
    if (parents && contains(*parents, formatText("%s_bak", table))) {
      KAVO_LOG("The archive does not hold the rows of the tables that inherit from table %s.", table);
    }
  }
}

bool freeStagedNames(DBConnect_tag* connection, std::span<const char* const> tables) {
  if (dropStagedTables(connection, tables) < 0) {
    return false;
  }
  const auto taken = namesOfKind(connection, tables, "_bak", kAnyKind);
  const auto logged = taken ? stagedTables(connection, tables) : std::nullopt;
  if (!logged) {
    return false;
  }
  for (const std::string& name : *taken) {
    if (!contains(*logged, name)) {
      KAVO_LOG("%s is no table, but a table needs the name for a while. Rename or drop it and run again.",
               name.c_str());
    }
  }
  return taken->empty() && clearNote(connection);
}

bool noteStagingBegins(DBConnect_tag* connection) { return note(connection, "loading"); }

bool noteStagedTables(DBConnect_tag* connection, std::span<const char* const> tables) {
  const auto identifiers =
      listNames(connection,
                sql("SELECT oid FROM pg_class WHERE relnamespace = 'public'::regnamespace and relname in (%s)",
                    namesWith("_bak", tables)),
                "oid");
  if (!identifiers) {
    return false;
  }
  std::string list;
  for (const std::string& identifier : *identifiers) {
    list += (list.empty() ? "" : " ") + identifier;
  }
  return note(connection, list);
}

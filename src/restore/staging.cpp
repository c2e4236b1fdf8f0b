#include "restore/staging.h"

#include <algorithm>
#include <optional>

#include "platform/log.h"
#include "platform/process_runner.h"
#include "platform/query.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kTableNameCapacity = 1024;

KAVOUtils::ProcessRunner statementRunner(const std::string& statement) {
  return KAVOUtils::ProcessRunner("/usr/bin/psql", "/usr/bin/psql", "photo", "-U", "postgres", "-c", statement.c_str());
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// The tables with these names and `suffix` behind that exist; nothing when they cannot be listed, which is logged.
std::optional<std::vector<std::string>> existingTables(DBConnect_tag* connection, std::span<const char* const> tables,
                                                       const char* suffix) {
  std::string names;
  for (const char* table : tables) {
    names += formatText(names.empty() ? "'%s%s'" : ", '%s%s'", table, suffix);
  }
  Result rows;
  if (!execute(connection,
               formatText("SELECT tablename FROM pg_tables WHERE schemaname = 'public' and tablename in (%s)",
                          names.c_str()),
               rows)) {
    return std::nullopt;
  }
  std::vector<std::string> existing;
  while (fetchRow(rows)) {
    existing.push_back(fieldText(rows, "tablename", kTableNameCapacity));
  }
  return existing;
}

// The live names of the staged tables that have no live table; nothing when they cannot be listed, which is logged.
std::optional<std::vector<std::string>> onlyCopies(DBConnect_tag* connection, std::span<const char* const> tables) {
  auto staged = existingTables(connection, tables, "_bak");
  if (!staged || staged->empty()) {
    return staged;
  }
  const auto live = existingTables(connection, tables, "");
  if (!live) {
    return std::nullopt;
  }
  std::vector<std::string> names;
  for (const char* table : tables) {
    if (contains(*staged, formatText("%s_bak", table)) && !contains(*live, table)) {
      names.emplace_back(table);
    }
  }
  return names;
}

}  // namespace

int KavophotoTableRename(const char* table) {
  if (table == nullptr) {
    KAVO_LOG("KavophotoTableRename: bad parameters.\n");
    return -1;
  }
  if (statementRunner(formatText("ALTER TABLE %s RENAME TO %s_bak;", table, table)).run(true, false) < 0) {
    KAVO_LOG("KavophotoTableRename: Fail to rename table %s\n", table);
  }
  return 0;
}

int KavophotoTableRenameBack(const std::string& table) {
  if (table.empty()) {
    KAVO_LOG("KavophotoTableRename: bad parameters.\n");
    return -1;
  }
  if (statementRunner(formatText("ALTER TABLE %s_bak RENAME TO %s;", table.c_str(), table.c_str())).run(true, false) <
      0) {
    KAVO_LOG("KavophotoTableRenameBack: Fail to rename back table %s\n", table.c_str());
  }
  return 0;
}

int addDBPrimaryKey(const char* table, const char* keyColumn) {
  KAVOUtils::ProcessRunner runner =
      statementRunner(formatText("ALTER TABLE %s ADD CONSTRAINT %s_pkey PRIMARY KEY (%s)", table, table, keyColumn));
  if (runner.run(true, false) < 0) {
    KAVO_LOG("addDBPrimaryKey failed (%s).", runner.toString().c_str());
    return 1;
  }
  return 0;
}

int dropStagedTables(DBConnect_tag* connection, std::span<const char* const> tables,
                     const std::vector<std::string>& spared) {
  const auto staged = existingTables(connection, tables, "_bak");
  if (!staged) {
    return -1;
  }
  for (const char* table : tables) {
    const std::string name = formatText("%s_bak", table);
    if (!contains(*staged, name) || contains(spared, table)) {
      continue;
    }
    const std::string statement = formatText("DROP TABLE %s", name.c_str());
    Result dropped;
    if (KAVODBExecute(connection, statement.c_str(), &dropped.handle) == -1) {
      KAVO_LOG("Failed to execute commend: %s", statement.c_str());
    }
  }
  return 0;
}

std::vector<std::string> dropLeftoverTables(DBConnect_tag* connection, std::span<const char* const> tables) {
  const auto spared = onlyCopies(connection, tables);
  if (!spared) {
    return {tables.begin(), tables.end()};
  }
  dropStagedTables(connection, tables, *spared);
  return *spared;
}

void recoverStagedTables(std::span<const char* const> tables) {
  std::optional<std::vector<std::string>> names;
  if (const Connection connection = connectTo("photo")) {
    names = onlyCopies(connection.get(), tables);
  }
  for (const std::string& name : names.value_or(std::vector<std::string>())) {
    KavophotoTableRenameBack(name);
  }
}

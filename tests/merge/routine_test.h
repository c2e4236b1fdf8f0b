#pragma once

#include <algorithm>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/database.h"
#include "platform/overwrite_mode.h"
#include "platform/query.h"
#include "platform/side_by_side.h"
#include "support/tool_test.h"

namespace appliance {

// Sets the mode of the merge routines for a scope.
class OverwriteMode {
 public:
  explicit OverwriteMode(bool overwrites) : before_(std::exchange(gIsOverwiroteMode, overwrites)) {}
  OverwriteMode(const OverwriteMode&) = delete;
  OverwriteMode& operator=(const OverwriteMode&) = delete;
  ~OverwriteMode() { gIsOverwiroteMode = before_; }

 private:
  bool before_;
};

// Makes every statement that reads a row of `table` for which `condition` holds fail with kRefused. Rows that the
// statement's own conditions leave out are not read. The table stays writable.
inline void refuseReading(Database& database, const std::string& table, const std::string& condition) {
  database.exec(
      "CREATE OR REPLACE FUNCTION refused() RETURNS boolean LANGUAGE plpgsql AS $$BEGIN RAISE EXCEPTION "
      "'refused'; END$$;"
      "ALTER TABLE " +
      table + " RENAME TO " + table + "_stored; CREATE VIEW " + table + " AS SELECT * FROM " + table +
      "_stored WHERE CASE WHEN " + condition + " THEN refused() ELSE true END");
}

// Makes an `operation` ("INSERT", "UPDATE", "DELETE") on a row of `table` for which `condition` (over NEW or OLD) holds
// fail with kRefused.
inline void refuseWriting(Database& database, const std::string& table, const std::string& operation,
                          const std::string& condition) {
  database.exec(
      "CREATE OR REPLACE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$BEGIN RAISE EXCEPTION "
      "'refused'; END$$;"
      "CREATE TRIGGER refuse_" +
      operation + " BEFORE " + operation + " ON " + table + " FOR EACH ROW WHEN (" + condition +
      ") EXECUTE FUNCTION refuse()");
}

// Makes an insert of such a row succeed without a row being written.
inline void swallowInsert(Database& database, const std::string& table, const std::string& condition) {
  database.exec(
      "CREATE OR REPLACE FUNCTION swallow() RETURNS trigger LANGUAGE plpgsql AS $$BEGIN RETURN NULL; END$$;"
      "CREATE TRIGGER swallow BEFORE INSERT ON " +
      table + " FOR EACH ROW WHEN (" + condition + ") EXECUTE FUNCTION swallow()");
}

inline constexpr const char* kRefused = "ERROR:  refused";

inline std::string noTable(const std::string& table) { return "ERROR:  relation \"" + table + "\" does not exist"; }

// Sets for a scope how many rows run side by side in this process; 0: each alone.
class WindowRows {
 public:
  explicit WindowRows(std::size_t rows) : before_(windowRows()) { setWindowRows(rows); }
  WindowRows(const WindowRows&) = delete;
  WindowRows& operator=(const WindowRows&) = delete;
  ~WindowRows() { setWindowRows(before_); }

 private:
  std::size_t before_;
};

struct Arrangement {
  const char* name;
  const char* suffix;
  bool overwrites;
  std::size_t windowRows;
};

inline void PrintTo(const Arrangement& arrangement, std::ostream* stream) { *stream << arrangement.name; }

// A test of one routine called in this process, with the live database and with the database "other", whose tables
// have staged names in half of the arrangements. An import never skips, so that one is reached only here. Each
// arrangement is tested with rows that run alone and with rows side by side.
class RoutineTest : public ToolTest, public ::testing::WithParamInterface<Arrangement> {
 protected:
  using Routine = std::function<int(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix)>;

  Database& source() { return other(); }
  bool overwrites() const { return GetParam().overwrites; }

  // Calls the routine on two new connections. The tables of the source have their staged names only meanwhile.
  int call(const Routine& routine) {
    rename("", GetParam().suffix);
    const OverwriteMode mode(overwrites());
    const WindowRows window(GetParam().windowRows);
    const Connection destination = connectTo("photo");
    const Connection from = connectTo("other");
    const std::string destinationProcess = processOf(destination.get());
    const std::string sourceProcess = processOf(from.get());
    const std::size_t before = server::log().size();
    const int result = routine(destination.get(), from.get(), GetParam().suffix);
    readStatements(server::log().substr(before), destinationProcess, sourceProcess);
    rename(GetParam().suffix, "");
    return result;
  }

  // What the last call ran, each as "live: " or "source: " and the statement; those that could not be analysed are
  // missing, and so is transaction control. "{}" in the expected texts stands for the suffix. Rows that run alone run
  // their statements in this order. Of rows side by side the order is not compared, and neither are quotes: the values
  // reach the server apart from the text.
  void expectStatements(std::vector<std::string> expected) {
    for (std::string& statement : expected) {
      for (std::size_t at = statement.find("{}"); at != std::string::npos; at = statement.find("{}", at)) {
        statement.replace(at, 2, GetParam().suffix);
      }
    }
    checked();
    if (GetParam().windowRows == 0) {
      EXPECT_THAT(statements_, ::testing::ElementsAreArray(expected));
      return;
    }
    for (std::string& statement : expected) {
      std::erase(statement, '\'');
    }
    EXPECT_EQ(sortedLines(statements_), sortedLines(expected));
  }

 private:
  void rename(const std::string& from, const std::string& to) {
    if (from == to) {
      return;
    }
    std::string statements;
    for (const auto& table : source().rows("SELECT tablename FROM pg_tables WHERE schemaname = 'public'")) {
      const std::string name = table[0].substr(0, table[0].size() - from.size());
      statements += "ALTER TABLE " + table[0] + " RENAME TO " + name + to + ";";
    }
    source().exec(statements);
  }

  static std::string processOf(DBConnect_tag* connection) {
    execute(connection, "SET log_statement = 'all'");
    Result process;
    execute(connection, process, "SELECT pg_backend_pid() AS pid");
    return fetchRow(process) ? fieldText(process, "pid") : "";
  }

  static std::string sortedLines(std::vector<std::string> statements) {
    std::sort(statements.begin(), statements.end());
    std::string lines;
    for (const std::string& statement : statements) {
      lines.append(statement).append("\n");
    }
    return lines;
  }

  static bool controlsTransactions(std::string_view statement) {
    return statement.empty() || statement.starts_with("BEGIN") || statement.starts_with("COMMIT") ||
           statement.starts_with("SET ") || statement.starts_with("SAVEPOINT") || statement.starts_with("RELEASE") ||
           statement.starts_with("SELECT FROM pg_class t ");
  }

  // Puts the values of a line "$1 = 'a', $2 = NULL" in their places, without the quotes.
  static void putIn(std::string_view values, std::string& statement) {
    for (int number = 1; !values.empty(); ++number) {
      const std::string place = "$" + std::to_string(number);
      const std::string next = ", $" + std::to_string(number + 1) + " = ";
      const std::size_t end = std::min(values.find(next), values.size());
      std::string value(values.substr(place.size() + 3, end - place.size() - 3));
      std::erase(value, '\'');
      statement.replace(statement.find(place), place.size(), value);
      values.remove_prefix(std::min(values.size(), end + 2));
    }
  }

  void readStatements(std::string_view log, const std::string& destination, const std::string& from) {
    statements_.clear();
    std::string* last = nullptr;
    while (!log.empty()) {
      const std::string_view line = log.substr(0, log.find('\n'));
      log.remove_prefix(std::min(log.size(), line.size() + 1));
      constexpr std::string_view kExecute = " LOG:  execute ";
      constexpr std::string_view kValues = "arameters: ";
      const std::size_t mark = line.find(kExecute);
      const std::string_view head = line.substr(0, line.find("] ") + 1);
      const char* const side = head.ends_with("[" + destination + "]") ? "live: "
                               : head.ends_with("[" + from + "]")      ? "source: "
                                                                       : nullptr;
      if (side == nullptr) {
        continue;
      }
      if (mark != std::string_view::npos) {
        const std::size_t begin = line.find(": ", mark + kExecute.size()) + 2;
        std::string statement(line.substr(begin));
        last = nullptr;
        if (!controlsTransactions(statement)) {
          last = &statements_.emplace_back(side + statement);
        }
      } else if (last != nullptr && line.find(" DETAIL:  ") != std::string_view::npos &&
                 line.find(kValues) != std::string_view::npos) {
        putIn(line.substr(line.find(kValues) + kValues.size()), *last);
      }
    }
    if (GetParam().windowRows > 0) {
      for (std::string& statement : statements_) {
        std::erase(statement, '\'');
      }
    }
  }

  std::vector<std::string> statements_;
};

}  // namespace appliance

#define APPLIANCE_ALL_ARRANGEMENTS(fixture)                                                     \
  INSTANTIATE_TEST_SUITE_P(                                                                     \
      Arrangements, fixture,                                                                    \
      ::testing::Values(appliance::Arrangement{"ImportSkip", "", false, 0},                     \
                        appliance::Arrangement{"ImportOverwrite", "", true, 0},                 \
                        appliance::Arrangement{"StagedSkip", "_bak", false, 0},                 \
                        appliance::Arrangement{"StagedOverwrite", "_bak", true, 0},             \
                        appliance::Arrangement{"ImportSkipSideBySide", "", false, 64},          \
                        appliance::Arrangement{"ImportOverwriteSideBySide", "", true, 64},      \
                        appliance::Arrangement{"StagedSkipSideBySide", "_bak", false, 64},      \
                        appliance::Arrangement{"StagedOverwriteSideBySide", "_bak", true, 64}), \
      [](const ::testing::TestParamInfo<appliance::Arrangement>& tested) { return std::string(tested.param.name); })

#include "platform/independent_rows.h"

#include <algorithm>
#include <string_view>

#include "platform/query.h"

namespace {

// Finds the table when nothing connects its rows. What an older server lacks is null in to_jsonb's object. Triggers
// that the server makes for foreign keys look at other tables only.
constexpr char kFindIndependent[] =
    "SELECT FROM pg_class t WHERE t.oid = to_regclass('public.%s') AND t.relkind = 'r' AND NOT t.relhasrules "
    "AND NOT EXISTS (SELECT FROM pg_trigger g WHERE g.tgrelid = t.oid AND NOT g.tgisinternal AND g.tgenabled <> 'D') "
    "AND NOT EXISTS (SELECT FROM pg_attribute a JOIN pg_type y ON y.oid = a.atttypid "
    "LEFT JOIN pg_collation c ON c.oid = a.attcollation "
    "WHERE a.attrelid = t.oid AND a.attname IN (%s) AND (y.typnamespace <> 'pg_catalog'::regnamespace "
    "OR y.typname NOT IN ('text', 'varchar', 'int2', 'int4', 'int8', 'bool', 'date', 'timestamp', 'timestamptz') "
    "OR to_jsonb(c) ->> 'collisdeterministic' = 'false')) "
    "AND NOT EXISTS (SELECT FROM pg_attrdef d WHERE d.adrelid = t.oid "
    "AND pg_get_expr(d.adbin, d.adrelid) ~ '(curr|last)val') "
    "AND NOT EXISTS (SELECT FROM pg_index i, unnest(i.indkey) AS number "
    "LEFT JOIN pg_attribute a ON a.attrelid = t.oid AND a.attnum = number "
    "WHERE i.indrelid = t.oid AND (i.indisunique OR i.indisexclusion) "
    "AND coalesce(a.attname NOT IN (%s), true))";

bool isIndependent(DBConnect_tag* connection, const WrittenTable& table) {
  const List columns = List::of(table.keyColumns, ", ");
  const std::string statement = statementText(sql(kFindIndependent, Name(table.name), columns, columns));
  Result found;
  return KAVODBExecute(connection, statement.c_str(), &found.handle) != -1 && hasRows(found);
}

bool isDigit(char character) { return character >= '0' && character <= '9'; }

}  // namespace

bool rowsAreIndependent(DBConnect_tag* connection, const std::vector<WrittenTable>& tables) {
  return std::all_of(tables.begin(), tables.end(),
                     [connection](const WrittenTable& table) { return isIndependent(connection, table); });
}

bool isPrintedNumber(const std::string& text) {
  const std::string_view digits = std::string_view(text).substr(text.rfind('-', 0) == 0 ? 1 : 0);
  return !digits.empty() && std::all_of(digits.begin(), digits.end(), isDigit) &&
         (digits.front() != '0' || text == "0");
}

bool isPrintedTime(const std::string& text) {
  constexpr std::string_view kForm = "0000-00-00 00:00:00";
  for (std::size_t at = 0; at < kForm.size(); ++at) {
    if (at >= text.size() || (kForm[at] == '0' ? !isDigit(text[at]) : text[at] != kForm[at])) {
      return false;
    }
  }
  std::string_view rest = std::string_view(text).substr(kForm.size());
  if (rest.ends_with("+00")) {
    rest.remove_suffix(3);
  }
  return rest.empty() || (rest.size() > 1 && rest.size() <= 7 && rest.front() == '.' && rest.back() != '0' &&
                          std::all_of(rest.begin() + 1, rest.end(), isDigit));
}

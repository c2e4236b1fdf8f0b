#include <algorithm>

#include "support/internals.h"

namespace appliance {
namespace {

using internals::fail;

// Never destroyed: the process is left through an exit handler that still uses it.
std::unique_ptr<Database>& administration() {
  static std::unique_ptr<Database>& connection = *new std::unique_ptr<Database>;
  return connection;
}

std::string quoteIdentifier(const std::string& name) {
  std::string quoted = "\"";
  for (const char letter : name) {
    quoted += letter == '"' ? std::string("\"\"") : std::string(1, letter);
  }
  return quoted + "\"";
}

std::string quoteConnectionValue(const std::string& value) {
  std::string quoted = "'";
  for (const char letter : value) {
    if (letter == '\'' || letter == '\\') {
      quoted += '\\';
    }
    quoted += letter;
  }
  return quoted + "'";
}

}  // namespace

Database::Database(std::string name, const std::string& options) : name_(std::move(name)) {
  const std::string where = "dbname=" + quoteConnectionValue(name_) +
                            " user=postgres application_name=appliance client_encoding=UTF8 " + options;
  connection_.reset(PQconnectdb(where.c_str()));
  if (PQstatus(raw()) != CONNECTION_OK) {
    fail("connect to " + name_ + ": " + PQerrorMessage(raw()));
  }
  PQsetNoticeProcessor(
      raw(), [](void*, const char*) {}, nullptr);
}

Database::Result Database::run(const std::string& sql) {
  Result result(PQexec(raw(), sql.c_str()), PQclear);
  if (PQstatus(raw()) == CONNECTION_BAD) {
    PQreset(raw());
    result.reset(PQexec(raw(), sql.c_str()));
  }
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    fail("[" + sql.substr(0, 2000) + "] on " + name_ + ": " + PQerrorMessage(raw()));
  }
  return result;
}

void Database::exec(const std::string& sql) { run(sql); }

Rows Database::rows(const std::string& sql) {
  internals::observed();
  const Result result = run(sql);
  Rows all;
  for (int row = 0; row < PQntuples(result.get()); ++row) {
    std::vector<std::string> fields;
    for (int column = 0; column < PQnfields(result.get()); ++column) {
      const bool null = PQgetisnull(result.get(), row, column) != 0;
      fields.emplace_back(null ? "(null)" : PQgetvalue(result.get(), row, column));
    }
    all.push_back(std::move(fields));
  }
  return all;
}

std::string Database::value(const std::string& sql) {
  const Rows found = rows(sql);
  if (found.size() != 1 || found[0].empty()) {
    fail("[" + sql + "] gave " + std::to_string(found.size()) + " rows");
  }
  return found[0][0];
}

long Database::count(const std::string& table) { return std::stol(value("SELECT count(*) FROM " + table)); }

void createDatabase(const std::string& name, const std::string& encoding) {
  dropDatabase(name);
  if (encoding == "UTF8") {
    internals::administer("CREATE DATABASE " + quoteIdentifier(name) + " TEMPLATE " + internals::kTemplate +
                          " STRATEGY file_copy");
    return;
  }
  internals::administer("CREATE DATABASE " + quoteIdentifier(name) + " TEMPLATE template0 ENCODING '" + encoding +
                        "' LOCALE 'C'");
  Database(name).exec(internals::kSchema);
}

void dropDatabase(const std::string& name) {
  internals::administer("DROP DATABASE IF EXISTS " + quoteIdentifier(name) + " WITH (FORCE)");
}

std::map<std::string, std::vector<std::string>> contents(const std::string& database) {
  Database connection(database);
  std::map<std::string, std::vector<std::string>> all;
  for (const auto& table : connection.rows("SELECT tablename FROM pg_tables WHERE schemaname = 'public'")) {
    std::vector<std::string>& lines = all[table[0]];
    for (auto& row : connection.rows("SELECT t::text FROM " + quoteIdentifier(table[0]) + " t")) {
      lines.push_back(std::move(row[0]));
    }
    std::sort(lines.begin(), lines.end());
  }
  return all;
}

std::vector<std::string> structure(const std::string& database) {
  Database connection(database);
  std::vector<std::string> lines;
  for (const char* query :
       {"SELECT 'table ' || c.relname || ' kind ' || c.relkind::text || ' owner ' || pg_get_userbyid(c.relowner) || ' "
        "acl ' || "
        "coalesce(c.relacl::text, '-') FROM pg_class c WHERE relnamespace = 'public'::regnamespace",
        "SELECT 'column ' || c.relname || ' ' || a.attnum || ' ' || a.attname || ' ' || format_type(a.atttypid, "
        "a.atttypmod) || ' notnull ' || a.attnotnull || ' default ' || coalesce(pg_get_expr(d.adbin, d.adrelid), '-') "
        "FROM pg_attribute a JOIN pg_class c ON c.oid = a.attrelid LEFT JOIN pg_attrdef d ON d.adrelid = a.attrelid "
        "AND "
        "d.adnum = a.attnum WHERE c.relnamespace = 'public'::regnamespace AND c.relkind = 'r' AND a.attnum > 0 AND NOT "
        "a.attisdropped",
        "SELECT 'index ' || indexname || ' on ' || tablename || ': ' || indexdef FROM pg_indexes WHERE schemaname = "
        "'public'",
        "SELECT 'constraint ' || conname || ' on ' || conrelid::regclass::text || ': ' || pg_get_constraintdef(oid) "
        "FROM "
        "pg_constraint WHERE connamespace = 'public'::regnamespace"}) {
    for (auto& row : connection.rows(query)) {
      lines.push_back(std::move(row[0]));
    }
  }
  const Rows sequences = connection.rows(
      "SELECT s.relname, coalesce(t.relname || '.' || a.attname, '-') FROM pg_class s LEFT JOIN pg_depend d ON d.objid "
      "= s.oid "
      "AND d.deptype = 'a' LEFT JOIN pg_class t ON t.oid = d.refobjid LEFT JOIN pg_attribute a ON a.attrelid = t.oid "
      "AND "
      "a.attnum = d.refobjsubid WHERE s.relkind = 'S' AND s.relnamespace = 'public'::regnamespace");
  for (const auto& sequence : sequences) {
    lines.push_back(
        "sequence " + sequence[0] + " of " + sequence[1] + " at " +
        connection.value("SELECT last_value || ' called ' || is_called FROM " + quoteIdentifier(sequence[0])));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

const std::vector<std::string>& tableNames() {
  static const std::vector<std::string> names = {"photo_label",
                                                 "photo_access_right",
                                                 "photo_comment",
                                                 "photo_config",
                                                 "photo_image",
                                                 "photo_log",
                                                 "photo_share",
                                                 "photo_upload_right",
                                                 "photo_user",
                                                 "video_comment",
                                                 "video_desc",
                                                 "photo_access_right_for_hox_account",
                                                 "photo_upload_right_for_hox_account",
                                                 "photo_manage_right_for_hox_account",
                                                 "photo_image_label",
                                                 "photo_video_label",
                                                 "category",
                                                 "category_items",
                                                 "photo_manage_right",
                                                 "photo_group",
                                                 "photo_group_permission",
                                                 "photo_group_permission_for_hox_account",
                                                 "photo_user_group",
                                                 "watermark",
                                                 "photo_personal_collection",
                                                 "photo_personal_collection_for_hox_account",
                                                 "photo_personal_collection_for_admin",
                                                 "photo_personal_collection_photo",
                                                 "photo_personal_collection_photo_for_admin",
                                                 "photo_personal_collection_photo_for_hox_account",
                                                 "photo_personal_collection_video",
                                                 "photo_personal_collection_video_for_admin",
                                                 "photo_personal_collection_video_for_hox_account"};
  return names;
}

namespace internals {

void administer(const std::string& sql) {
  if (!administration()) {
    administration() = std::make_unique<Database>("postgres");
  }
  administration()->exec(sql);
}

void closeAdministration() { administration().reset(); }

void makeTemplate() {
  administer(std::string("CREATE DATABASE ") + kTemplate);
  Database(kTemplate).exec(kSchema);
  // A copy is refused while anyone is connected to the original.
  administer(std::string("ALTER DATABASE ") + kTemplate + " ALLOW_CONNECTIONS false");
}

void dropTestDatabases() {
  administer("SELECT 1");
  const Rows names = administration()->rows(std::string("SELECT datname FROM pg_database WHERE datname NOT IN ") +
                                            "('postgres', 'template0', 'template1', '" + kTemplate + "')");
  for (const auto& name : names) {
    dropDatabase(name[0]);
  }
}

}  // namespace internals
}  // namespace appliance

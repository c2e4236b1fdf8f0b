#include "platform/database.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/database_handles.h"
#include "platform/log.h"
#include "platform/session_options.h"

namespace {

constexpr std::string_view kPlaceholder = "@KAVO:VAR";

int gServerVersion = 0;

std::vector<std::string>& serverVariables() {
  static std::vector<std::string> variables;
  return variables;
}

struct ConninfoFreer {
  void operator()(PQconninfoOption* options) const { PQconninfoFree(options); }
};
using Conninfo = std::unique_ptr<PQconninfoOption, ConninfoFreer>;

// Notices are the server's remarks on statements that succeeded; the tool reports failures only.
void ignoreNotice(void* /*argument*/, const PGresult* /*notice*/) {}

// Whether an option says how the server is reached, and not whose session it is or how the session behaves. A service
// is left out because the other options are what it was resolved to.
bool reachesServer(const PQconninfoOption& option) {
  constexpr std::array<std::string_view, 7> kOthers = {"user",    "dbname",  "client_encoding", "application_name",
                                                       "options", "service", "servicefile"};
  return std::find(kOthers.begin(), kOthers.end(), option.keyword) == kOthers.end();
}

// An option that is set to the empty text counts: libpq does not look at the variable then. A connection that was not
// accepted is remembered too. While the service cannot be read there are no options, and what is known stays: programs
// must not turn to the default server.
void rememberServer(PGconn* connection) {
  const Conninfo options(PQconninfo(connection));
  std::vector<std::string> variables;
  for (const PQconninfoOption* option = options.get(); option != nullptr && option->keyword != nullptr; ++option) {
    if (option->envvar != nullptr && option->val != nullptr && reachesServer(*option)) {
      variables.push_back(std::string(option->envvar) + "=" + option->val);
    }
  }
  if (!variables.empty()) {
    serverVariables() = std::move(variables);
  }
}

bool settleSession(PGconn* connection) {
  const std::string statements =
      settlingStatements({PQserverVersion(connection), PQparameterStatus(connection, "server_encoding"),
                          PQparameterStatus(connection, "DateStyle"), PQparameterStatus(connection, "TimeZone")});
  if (statements.empty()) {
    return true;
  }
  const PGResultHandle set(PQexec(connection, statements.c_str()));
  return PQresultStatus(set.get()) == PGRES_COMMAND_OK;
}

// The library breaks its own remarks, on a lost connection say, into several lines.
std::string onOneLine(const std::string& text) {
  std::string line;
  for (const char character : text) {
    if (character == '\n') {
      line += "  ";
    } else if (character != '\t') {
      line += character;
    }
  }
  return line.erase(line.find_last_not_of(' ') + 1);
}

void readColumns(const PGresult* reply, DBResult_tag& result) {
  if (!result.columns.empty()) {
    return;
  }
  for (int column = 0; column < PQnfields(reply); ++column) {
    result.columns.emplace_back(PQfname(reply, column));
  }
}

void readRows(const PGresult* reply, DBResult_tag& result, std::vector<std::string_view>& fields) {
  for (int row = 0; row < PQntuples(reply); ++row) {
    fields.clear();
    for (int column = 0; column < PQnfields(reply); ++column) {
      // libpq gives the empty text for a null field.
      fields.emplace_back(PQgetvalue(reply, row, column), static_cast<std::size_t>(PQgetlength(reply, row, column)));
    }
    appendRow(result.rows, fields);
  }
}

// A deadlock, changes at the same time by others, or a lock that was waited for too long.
bool gaveWayToOthers(const PGresult* reply) {
  const char* const state = PQresultErrorField(reply, PG_DIAG_SQLSTATE);
  return state != nullptr &&
         (std::strcmp(state, "40P01") == 0 || std::strcmp(state, "40001") == 0 || std::strcmp(state, "55P03") == 0);
}

// Reads the reply to its end, also after an error, so that the connection is free for the next statement.
bool readReply(DBConnect_tag& connection, DBResult_tag& result) {
  bool succeeded = true;
  std::vector<std::string_view> fields;
  for (;;) {
    const PGResultHandle reply(PQgetResult(connection.connection));
    if (!reply) {
      return succeeded;
    }
    switch (PQresultStatus(reply.get())) {
      case PGRES_SINGLE_TUPLE:
      case PGRES_TUPLES_OK:
        readColumns(reply.get(), result);
        readRows(reply.get(), result, fields);
        break;
      case PGRES_COMMAND_OK:
      case PGRES_EMPTY_QUERY:
        break;
      default:
        connection.error = errorText(reply.get(), connection.connection);
        connection.gaveWay = gaveWayToOthers(reply.get()) || connection.gaveWay;
        succeeded = false;
        break;
    }
    connection.wrote = changedSomething(reply.get()) || connection.wrote;
  }
}

// Logged here when it fails.
bool flush(DBConnect_tag& connection) {
  if (PQtransactionStatus(connection.connection) != PQTRANS_IDLE) {
    // What stands before the open transaction is committed and must not be lost with it.
    const PGResultHandle ended(PQexec(connection.connection, "ROLLBACK"));
  }
  // One synchronous commit flushes the log up to itself, with all commits before it. A transaction that writes nothing
  // is not flushed; the message is the least that can be written, and no table sees it. The disk of this server is
  // enough: a standby that is away would hold the tool for as long.
  const char* const statements =
      "SET synchronous_commit = local; SELECT pg_logical_emit_message(true, 'kavophoto_backup', '')";
  const PGResultHandle flushed(PQexec(connection.connection, statements));
  if (PQresultStatus(flushed.get()) == PGRES_TUPLES_OK) {
    return true;
  }
  KAVO_LOG("Failed to exec [%s] (%s)", statements, errorText(flushed.get(), connection.connection).c_str());
  return false;
}

void makeDurable(DBConnect_tag& connection) {
  if (!connection.wrote) {
    return;
  }
  if (PQstatus(connection.connection) != CONNECTION_OK || !flush(connection)) {
    KAVO_LOG("The last rows written to database %s may be lost. Run the same command again.",
             PQdb(connection.connection));
  }
}

void disconnect(DBConnect_tag* connection) {
  PQfinish(connection->connection);
  std::default_delete<DBConnect_tag>()(connection);
}

struct PersistentConnection {
  std::string database;
  DBConnect_tag* connection;
};

// Closed when the process exits.
struct PersistentConnections {
  PersistentConnections() = default;
  PersistentConnections(const PersistentConnections&) = delete;
  PersistentConnections& operator=(const PersistentConnections&) = delete;
  ~PersistentConnections() {
    for (const PersistentConnection& kept : list) {
      KAVODBClose(kept.connection);
    }
  }

  std::vector<PersistentConnection> list;
};

void executeUnchecked(DBConnect_tag* connection, const char* statement) {
  DBResult_tag* result = nullptr;
  KAVODBExecute(connection, statement, &result);
  KAVODBFreeResult(result);
}

void appendEscaped(std::string& escaped, std::string_view text) {
  for (const char character : text) {
    escaped.append(character == '\'' ? 2 : 1, character);
  }
}

char* allocated(const std::string& text) { return strdup(text.c_str()); }

// Where a failed statement must not end the transaction that it stands in.
class SavedStatement {
 public:
  explicit SavedStatement(DBConnect_tag& connection)
      : connection_(connection.savesEachStatement && PQtransactionStatus(connection.connection) == PQTRANS_INTRANS
                        ? &connection
                        : nullptr) {
    run("SAVEPOINT kavophoto_backup_statement");
  }
  SavedStatement(const SavedStatement&) = delete;
  SavedStatement& operator=(const SavedStatement&) = delete;
  ~SavedStatement() {
    if (connection_ != nullptr && PQtransactionStatus(connection_->connection) == PQTRANS_INERROR) {
      run("ROLLBACK TO SAVEPOINT kavophoto_backup_statement");
    }
    run("RELEASE SAVEPOINT kavophoto_backup_statement");
  }

 private:
  void run(const char* statement) const {
    if (connection_ != nullptr) {
      const PGResultHandle done(PQexec(connection_->connection, statement));
      noteLoss(*connection_, done.get());
    }
  }

  DBConnect_tag* connection_;
};

}  // namespace

void moveOutOfMemory(DBResult_tag& result) {
  std::vector<std::string_view> fields;
  readColumns(result.reply.get(), result);
  readRows(result.reply.get(), result, fields);
  result.reply.reset();
}

std::string errorText(const PGresult* result, PGconn* connection) {
  const char* primary = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
  if (primary == nullptr) {
    return onOneLine(PQerrorMessage(connection));
  }
  const char* severity = PQresultErrorField(result, PG_DIAG_SEVERITY);
  std::string text = std::string(severity != nullptr ? severity : "ERROR") + ":  " + primary;
  if (const char* detail = PQresultErrorField(result, PG_DIAG_MESSAGE_DETAIL)) {
    text.append("  DETAIL:  ").append(detail);
  }
  if (const char* hint = PQresultErrorField(result, PG_DIAG_MESSAGE_HINT)) {
    text.append("  HINT:  ").append(hint);
  }
  return text;
}

void noteLoss(DBConnect_tag& connection, const PGresult* reply) {
  // The server ends the session with such a reply, before the library sees the end of the connection.
  const char* const severity = PQresultErrorField(reply, PG_DIAG_SEVERITY_NONLOCALIZED);
  const bool endsSession = severity != nullptr && std::strcmp(severity, "ERROR") != 0;
  if (connection.lossError.empty() && (endsSession || PQstatus(connection.connection) != CONNECTION_OK)) {
    connection.lossError = errorText(reply, connection.connection);
  }
}

bool changedSomething(PGresult* reply) {
  const std::string_view status = PQcmdStatus(reply);
  const std::string_view verb = status.substr(0, status.find(' '));
  constexpr std::array<std::string_view, 13> kReading = {"",       "SELECT",   "SHOW",      "BEGIN",   "START",
                                                         "COMMIT", "ROLLBACK", "SAVEPOINT", "RELEASE", "SET",
                                                         "RESET",  "LOCK",     "EXPLAIN"};
  const bool reads = std::find(kReading.begin(), kReading.end(), verb) != kReading.end();
  return !reads && std::strcmp(PQcmdTuples(reply), "0") != 0;
}

std::string_view tableOfInsert(std::string_view statement) {
  constexpr std::string_view kVerb = "insert into ";
  if (strncasecmp(statement.data(), kVerb.data(), kVerb.size()) != 0) {
    return {};
  }
  statement.remove_prefix(kVerb.size());
  return statement.substr(0, statement.find_first_of(" ("));
}

void countInsert(DBConnect_tag& connection, std::string_view table) {
  if (table.empty()) {
    return;
  }
  auto grown = std::find_if(connection.grown.begin(), connection.grown.end(),
                            [table](const GrownTable& known) { return known.name == table; });
  if (grown == connection.grown.end()) {
    grown = connection.grown.insert(grown, {std::string(table)});
  }
  ++grown->inserted;
}

// Without fresh statistics the planner keeps scanning tables that started empty, and what it then reads for one row
// grows with the table. They are taken each time four times as many rows have come in. A table that anybody holds a
// lock on is left out, and where it cannot be done only speed is lost.
void refreshStatistics(DBConnect_tag& connection) {
  for (GrownTable& table : connection.grown) {
    if (table.inserted >= table.insertedAtStatistics && PQtransactionStatus(connection.connection) == PQTRANS_IDLE) {
      table.insertedAtStatistics *= 4;
      const PGResultHandle analysed(PQexec(connection.connection, ("ANALYZE (SKIP_LOCKED) " + table.name).c_str()));
    }
  }
}

DBConnect_tag* KAVODBConnect(const char* host, const char* user, const char* password, const char* database) {
  return KAVODBConnectAs("kavophoto_backup", host, user, password, database);
}

DBConnect_tag* KAVODBConnectAs(const char* applicationName, const char* host, const char* user, const char* password,
                               const char* database) {
  // For an empty name libpq would take the user's name instead.
  if (database == nullptr || *database == '\0') {
    return nullptr;
  }
  const std::string options = ownSessionOptions();
  // libpq takes a null value as one that is not set. Last, expansion is off: a database name is never read as a
  // connection string.
  const char* const keywords[] = {"host",    "user", "password", "dbname", "client_encoding", "application_name",
                                  "options", nullptr};
  const char* const values[] = {host, user, password, database, "UTF8", applicationName, options.c_str(), nullptr};
  auto connection = std::make_unique<DBConnect_tag>();
  connection->connection = PQconnectdbParams(keywords, values, 0);
  rememberServer(connection->connection);
  if (PQstatus(connection->connection) != CONNECTION_OK || !settleSession(connection->connection)) {
    disconnect(connection.release());
    return nullptr;
  }
  gServerVersion = PQserverVersion(connection->connection);
  PQsetNoticeReceiver(connection->connection, ignoreNotice, nullptr);
  return connection.release();
}

DBConnect_tag* KAVODBPConnect(const char* host, const char* user, const char* password, const char* database) {
  static PersistentConnections connections;
  for (const PersistentConnection& kept : connections.list) {
    if (kept.database == database && KAVODBIsUsable(kept.connection)) {
      return kept.connection;
    }
  }
  DBConnect_tag* connection = KAVODBConnect(host, user, password, database);
  if (connection != nullptr) {
    connections.list.push_back({database, connection});
  }
  return connection;
}

int lastServerVersion() { return gServerVersion; }

const std::vector<std::string>& lastServerVariables() { return serverVariables(); }

void KAVODBClose(DBConnect_tag* connection) {
  if (connection != nullptr) {
    makeDurable(*connection);
    disconnect(connection);
  }
}

int KAVODBExecute(DBConnect_tag* connection, const char* statement, DBResult_tag** result) {
  KAVODBFreeResult(*result);
  *result = nullptr;
  if (connection == nullptr) {
    return -1;
  }
  const SavedStatement saved(*connection);
  connection->error.clear();
  // The extended protocol carries one statement only, so no value that breaks out of its quotes can bring a second one
  // along.
  if (PQsendQueryParams(connection->connection, statement, 0, nullptr, nullptr, nullptr, nullptr, 0) != 1) {
    connection->error = connection->lossError.empty() ? errorText(nullptr, connection->connection)
                                                      : std::exchange(connection->lossError, {});
    return -1;
  }
  PQsetSingleRowMode(connection->connection);
  auto received = std::make_unique<DBResult_tag>();
  if (!readReply(*connection, *received)) {
    return -1;
  }
  *result = received.release();
  countInsert(*connection, tableOfInsert(statement));
  refreshStatistics(*connection);
  return 0;
}

int KAVODBParse(DBConnect_tag* connection, const char* statement) {
  if (connection == nullptr) {
    return -1;
  }
  const SavedStatement saved(*connection);
  connection->error.clear();
  const PGResultHandle parsed(PQprepare(connection->connection, "", statement, 0, nullptr));
  if (PQresultStatus(parsed.get()) == PGRES_COMMAND_OK) {
    return 0;
  }
  connection->error = errorText(parsed.get(), connection->connection);
  return -1;
}

int KAVODBFetchRow(DBResult_tag* result, DBRow_tag** row) {
  *row = nullptr;
  if (result == nullptr) {
    return -1;
  }
  const bool fetched = result->reply ? ++result->replyRow < PQntuples(result->reply.get()) : nextRow(result->rows);
  // The row lives in its result; its handle only says that there is one.
  *row = fetched ? reinterpret_cast<DBRow_tag*>(result) : nullptr;
  return fetched ? 0 : -1;
}

const char* KAVODBFetchField(DBResult_tag* result, DBRow_tag* row, const char* column) {
  if (result == nullptr || row == nullptr) {
    return "";
  }
  if (const PGresult* reply = result->reply.get()) {
    for (int at = 0; at < PQnfields(reply); ++at) {
      if (std::strcmp(PQfname(reply, at), column) == 0) {
        return PQgetvalue(reply, result->replyRow, at);
      }
    }
    return "";
  }
  for (std::size_t at = 0; at < result->columns.size() && at < result->rows.fields.size(); ++at) {
    if (result->columns[at] == column) {
      return result->rows.fields[at];
    }
  }
  return "";
}

std::size_t KAVODBRowBytes(DBResult_tag* result, DBRow_tag* row) {
  std::size_t bytes = 0;
  if (result != nullptr && row != nullptr && !result->reply) {
    for (const char* field : result->rows.fields) {
      bytes += std::strlen(field);
    }
  }
  for (int at = 0; row != nullptr && result != nullptr && result->reply && at < PQnfields(result->reply.get()); ++at) {
    bytes += static_cast<std::size_t>(PQgetlength(result->reply.get(), result->replyRow, at));
  }
  return bytes;
}

long long KAVODBNumRows(DBResult_tag* result) {
  if (result == nullptr) {
    return 0;
  }
  return result->reply ? PQntuples(result->reply.get()) : result->rows.count;
}

void KAVODBFreeResult(DBResult_tag* result) { std::default_delete<DBResult_tag>()(result); }

const char* KAVODBErrorGet(DBConnect_tag* connection) {
  return connection != nullptr ? connection->error.c_str() : "no connection";
}

char* KAVODBEscapeStrAlloc(const char* text) {
  if (text == nullptr) {
    return nullptr;
  }
  std::string escaped;
  appendEscaped(escaped, text);
  return allocated(escaped);
}

int KAVODBDatabaseTypeGet(DBConnect_tag* connection) { return connection != nullptr ? kPostgresqlType : 0; }

char* KAVODBEscapeStringEX3(int type, const char* text, const char* value) {
  if (type != kPostgresqlType || text == nullptr) {
    return nullptr;
  }
  std::string_view rest = text;
  std::string filled;
  for (std::size_t at = rest.find(kPlaceholder); value != nullptr && at != std::string_view::npos;
       at = rest.find(kPlaceholder)) {
    filled.append(rest.substr(0, at));
    appendEscaped(filled, value);
    rest.remove_prefix(at + kPlaceholder.size());
  }
  return allocated(filled.append(rest));
}

void KAVODBTransBegin(DBConnect_tag* connection) { executeUnchecked(connection, "BEGIN"); }

void KAVODBTransCommit(DBConnect_tag* connection) { executeUnchecked(connection, "COMMIT"); }

bool KAVODBIsUsable(DBConnect_tag* connection) {
  return connection != nullptr && PQstatus(connection->connection) == CONNECTION_OK &&
         PQtransactionStatus(connection->connection) != PQTRANS_INERROR;
}

bool KAVODBRowBegin(DBConnect_tag* connection, bool waits) {
  if (connection == nullptr || PQtransactionStatus(connection->connection) != PQTRANS_IDLE) {
    return false;
  }
  const PGResultHandle begun(PQexec(
      connection->connection, waits ? "BEGIN ISOLATION LEVEL READ COMMITTED; SET CONSTRAINTS ALL IMMEDIATE"
                                    : "BEGIN ISOLATION LEVEL READ COMMITTED; SET CONSTRAINTS ALL IMMEDIATE; SET LOCAL "
                                      "lock_timeout = 200"));
  noteLoss(*connection, begun.get());
  connection->savesEachStatement = PQresultStatus(begun.get()) == PGRES_COMMAND_OK;
  connection->gaveWay = false;
  return connection->savesEachStatement;
}

bool KAVODBRowGivesWay(DBConnect_tag* connection) { return connection != nullptr && connection->gaveWay; }

bool KAVODBRowGaveWay(DBConnect_tag* connection) {
  if (!connection->gaveWay) {
    return false;
  }
  connection->savesEachStatement = false;
  connection->gaveWay = false;
  executeUnchecked(connection, "ROLLBACK");
  return true;
}

int KAVODBRowEnd(DBConnect_tag* connection) {
  connection->savesEachStatement = false;
  if (PQstatus(connection->connection) != CONNECTION_OK) {
    return 0;
  }
  DBResult_tag* result = nullptr;
  const int status = KAVODBExecute(connection, "COMMIT", &result);
  KAVODBFreeResult(result);
  return status;
}

void KAVODBSpillDirectorySet(const char* directory) { setSpillDirectory(directory); }

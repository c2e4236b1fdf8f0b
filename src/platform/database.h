#pragma once

#include <cstddef>
#include <string>
#include <vector>

// The database client operations that all SQL of the tool goes through, on libpq.

struct DBConnect_tag;
struct DBResult_tag;
struct DBRow_tag;

// Opens a connection to `database` (a plain name, never a connection string) as `user`. A null `host` is libpq's
// default server, so PGHOST, PGPORT, PGPASSFILE and the like count; a null `password` sends none of the tool's own.
// Texts travel as UTF-8, or as the bytes that are stored when the database has no encoding (SQL_ASCII). Timeouts, time
// zone and search path are the tool's own whatever is set elsewhere (see session_options.h). Null on failure; nothing
// is logged here.
DBConnect_tag* KAVODBConnect(const char* host, const char* user, const char* password, const char* database);

// The same under another name than "kavophoto_backup" for the server's list of sessions (application_name).
DBConnect_tag* KAVODBConnectAs(const char* applicationName, const char* host, const char* user, const char* password,
                               const char* database);

// The same as KAVODBConnect, but the connection is kept and handed out again for the same database while it is usable.
// The caller never closes it; it is closed when the process exits.
DBConnect_tag* KAVODBPConnect(const char* host, const char* user, const char* password, const char* database);

// The version of the server that this process has last connected to, as PQserverVersion gives it; 0 before that.
int lastServerVersion();

// The variables, as "NAME=value", with which another program's libpq reaches the server that this process has last
// connected to, or tried to: host, port, password, encryption and so on, wherever they came from, but not user,
// database, encoding, application name and session options. Empty before that; an attempt whose service libpq could not
// read changes nothing. Valid until the next connection.
const std::vector<std::string>& lastServerVariables();

// Ends an open transaction without committing it, makes everything that the connection has committed durable on the
// server's own disk, and closes it. A connection that has changed nothing writes nothing here either. When the last
// changes may be lost, because the connection is lost or the server cannot write, that is logged with the name of the
// database. Null is allowed.
void KAVODBClose(DBConnect_tag* connection);

// Runs exactly one statement (the server refuses a second one in the text). 0 on success, and *result then holds the
// result, which replaces and frees one that was still there; -1 on failure, with *result null and the reason in
// KAVODBErrorGet. All rows have left the connection when this returns, so it is free for other statements; rows beyond
// the first few hundred kilobytes wait in an unlinked temporary file (see KAVODBSpillDirectorySet). Nothing is logged
// here.
int KAVODBExecute(DBConnect_tag* connection, const char* statement, DBResult_tag** result);

// Lets the server read one statement without running it. 0 when it understands it; -1 otherwise, with the reason in
// KAVODBErrorGet. Nothing is logged here.
int KAVODBParse(DBConnect_tag* connection, const char* statement);

// Steps to the next row, in the server's order. 0 when *row was set; -1 when there are no more rows or the result is
// null. The row and its fields are valid until the next fetch on the same result.
int KAVODBFetchRow(DBResult_tag* result, DBRow_tag** row);

// The text of a field of the current row; of two columns of one name, the first. The empty text for a null field, an
// unknown column or a null handle. Never null.
const char* KAVODBFetchField(DBResult_tag* result, DBRow_tag* row, const char* column);

// The bytes of all fields of the current row; 0 for a null handle.
std::size_t KAVODBRowBytes(DBResult_tag* result, DBRow_tag* row);

// Rows of the whole result, wherever the fetching stands; 0 for a null result.
long long KAVODBNumRows(DBResult_tag* result);

void KAVODBFreeResult(DBResult_tag* result);

// The text of the connection's last error, owned by the library and valid until the connection's next operation. Never
// null.
const char* KAVODBErrorGet(DBConnect_tag* connection);

// A newly allocated copy of `text`, escaped for use inside single quotes; the caller frees it with free(). Null for
// null.
char* KAVODBEscapeStrAlloc(const char* text);

// The type code of PostgreSQL servers, the only ones there are.
inline constexpr int kPostgresqlType = 1;

// The server type code of a connection; 0, which names no server, for null.
int KAVODBDatabaseTypeGet(DBConnect_tag* connection);

// A newly allocated copy of `text` in which the placeholder "@KAVO:VAR" is replaced by the escaped `value`, without
// quotes; the caller frees it with free(). The value itself is never searched for the placeholder. With a null `value`
// the text is returned unchanged. Null when the type code names no server or `text` is null.
char* KAVODBEscapeStringEX3(int type, const char* text, const char* value = nullptr);

// Neither reports a result: a statement that fails inside the transaction says so itself.
void KAVODBTransBegin(DBConnect_tag* connection);
void KAVODBTransCommit(DBConnect_tag* connection);

// Begins a transaction for the statements of one row: one that fails is taken back alone, as it is outside of
// transactions, and the others stay. False when there is a transaction already or it cannot be begun.
// Unless it `waits`, a statement fails that has waited for a lock for 200 ms: a transaction that holds
// locks while it waits may be in a deadlock with others, and they are not to be the ones that the server ends for it.
bool KAVODBRowBegin(DBConnect_tag* connection, bool waits);

// True when a statement of the row has failed so that others could go on, and the row is to run again.
bool KAVODBRowGivesWay(DBConnect_tag* connection);

// The same, and takes the whole transaction back then.
bool KAVODBRowGaveWay(DBConnect_tag* connection);

// Commits what KAVODBRowBegin has begun. 0 on success; -1 on failure, with the reason in KAVODBErrorGet: nothing of the
// row is written then. 0 too when a statement of the row has found the connection lost, which was its failure.
int KAVODBRowEnd(DBConnect_tag* connection);

// True while the connection can run statements: it is not lost and no failed transaction is open on it.
bool KAVODBIsUsable(DBConnect_tag* connection);

// Results too large for memory wait in unlinked temporary files in this directory's file system; the system's temporary
// directory until it is set, and where no file can be made there. The text is copied.
void KAVODBSpillDirectorySet(const char* directory);

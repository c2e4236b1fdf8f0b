#pragma once

#include <libpq-fe.h>

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/result_rows.h"

// What the handles of platform/database.h consist of. Only database.cpp and pipeline.cpp look inside.

struct PGResultClearer {
  void operator()(PGresult* result) const { PQclear(result); }
};
using PGResultHandle = std::unique_ptr<PGresult, PGResultClearer>;

// A table that a connection has put rows into.
struct GrownTable {
  std::string name;
  long long inserted = 0;
  // At this many the planner gets statistics again.
  long long insertedAtStatistics = 1000;
};

// A statement that the server keeps under a name.
struct PreparedStatement {
  std::string name;
  // The table that it inserts into; empty when it is of another kind.
  std::string insertsInto;
};

// What a reply in a pipeline belongs to.
struct PendingReply {
  // Of a statement that prepares, or controls the transaction; nobody waits for its reply.
  bool isOwn = false;
  std::string insertsInto;
};

// The statements on their way, and what they will have done.
struct Pipeline {
  std::deque<PendingReply> pending;
  bool hasTransaction = false;
  bool isInsideTransaction = false;
  bool wrote = false;
  std::vector<std::string> inserted;
};

struct DBConnect_tag {
  PGconn* connection = nullptr;
  std::string error;
  // What the server or the library said when the connection was lost, until a statement fails for it.
  std::string lossError;
  // Whether a command has changed something, so that there is something to make durable.
  bool wrote = false;
  // A failed statement is taken back alone, and the transaction that it stands in goes on.
  bool savesEachStatement = false;
  // The server has ended a statement of that transaction so that another session could go on.
  bool gaveWay = false;
  std::vector<GrownTable> grown;
  std::unordered_map<std::string, PreparedStatement> prepared;
  Pipeline pipeline;
};

struct DBResult_tag {
  // The rows of a large listing, or those of a statement that went through a pipeline.
  ResultRows rows;
  std::vector<std::string> columns;
  PGResultHandle reply;
  int replyRow = -1;
};

// Moves the rows of a reply to where those of a large listing are.
void moveOutOfMemory(DBResult_tag& result);

// One line of what the server said, or the library where the server said nothing. The statement is left out: whoever
// logs the error logs that too.
std::string errorText(const PGresult* result, PGconn* connection);

// Keeps the reason why the connection is lost, when it is, for the statement that next fails for it. To be called with
// every reply that nobody else reports; null for none.
void noteLoss(DBConnect_tag& connection, const PGresult* reply);

// Whether the command of this reply has changed anything. A failed command and a single row have no status.
bool changedSomething(PGresult* reply);

// The table that a statement puts a row into; empty for another kind of statement.
std::string_view tableOfInsert(std::string_view statement);

// Counts a row put into `table` (none when that is empty).
void countInsert(DBConnect_tag& connection, std::string_view table);

// Gives the planner new statistics of the tables that have grown a lot. Only outside of transactions and pipelines.
void refreshStatistics(DBConnect_tag& connection);

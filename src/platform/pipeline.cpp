#include "platform/pipeline.h"

#include <utility>

#include "platform/database_handles.h"

namespace {

// A server keeps this many statements for a connection at most. More come about only where the numbers of a table have
// every size in every mix.
constexpr std::size_t kMostPrepared = 500;

// A larger reply waits outside of this process's memory until its row has read it.
constexpr std::size_t kLargeReply = 1U << 18U;

bool succeeded(const PGresult* reply) {
  const ExecStatusType status = PQresultStatus(reply);
  return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK || status == PGRES_EMPTY_QUERY;
}

bool runs(DBConnect_tag& connection, const char* statements) {
  const PGResultHandle reply(PQexec(connection.connection, statements));
  return succeeded(reply.get());
}

bool isLost(const DBConnect_tag& connection) { return PQstatus(connection.connection) != CONNECTION_OK; }

bool add(DBConnect_tag& connection, bool wasSent, PendingReply reply) {
  if (!wasSent) {
    noteLoss(connection, nullptr);
    return false;
  }
  connection.pipeline.pending.push_back(std::move(reply));
  return true;
}

bool addText(DBConnect_tag& connection, const char* text, PendingReply reply) {
  return add(connection, PQsendQueryParams(connection.connection, text, 0, nullptr, nullptr, nullptr, nullptr, 0) == 1,
             std::move(reply));
}

bool addOwn(DBConnect_tag& connection, const char* statement) { return addText(connection, statement, {true, ""}); }

// Null when it could not be sent.
const PreparedStatement* prepare(DBConnect_tag& connection, const Statement& statement, const Parameters& parameters) {
  const auto known = connection.prepared.find(parameters.key);
  if (known != connection.prepared.end()) {
    return &known->second;
  }
  const std::string text = parameterText(statement);
  const PreparedStatement prepared = {"kavophoto_backup_" + std::to_string(connection.prepared.size()),
                                      std::string(tableOfInsert(text))};
  const bool wasSent = PQsendPrepare(connection.connection, prepared.name.c_str(), text.c_str(),
                                     static_cast<int>(parameters.types.size()), parameters.types.data()) == 1;
  if (!add(connection, wasSent, {true, ""})) {
    return nullptr;
  }
  return &connection.prepared.emplace(parameters.key, prepared).first->second;
}

// False when a reply says that its statement failed, or that it was left out because an earlier one failed.
bool readUntilSync(DBConnect_tag& connection) {
  bool isWhole = true;
  bool isCommitted = false;
  for (;;) {
    const PGResultHandle reply(PQgetResult(connection.connection));
    if (PQresultStatus(reply.get()) == PGRES_PIPELINE_SYNC) {
      return isWhole && (isCommitted || !connection.pipeline.hasTransaction);
    }
    if (reply) {
      isWhole = succeeded(reply.get()) && isWhole;
      // The server answers a commit of a failed transaction with "ROLLBACK".
      const std::string_view status = PQcmdStatus(reply.get());
      isCommitted = status == "COMMIT" || status == "RELEASE";
      noteLoss(connection, reply.get());
    } else if (isLost(connection)) {
      noteLoss(connection, nullptr);
      return false;
    }
  }
}

const char* keepingStatement(const Pipeline& pipeline) {
  return pipeline.isInsideTransaction ? "RELEASE SAVEPOINT kavophoto_backup_window" : "COMMIT";
}

// What the server has prepared may be what fails: a table may have been changed meanwhile.
void takeBack(DBConnect_tag& connection) {
  if (isLost(connection)) {
    return;
  }
  if (connection.pipeline.isInsideTransaction && connection.pipeline.hasTransaction) {
    runs(connection, "ROLLBACK TO SAVEPOINT kavophoto_backup_window");
    runs(connection, "RELEASE SAVEPOINT kavophoto_backup_window");
  } else if (PQtransactionStatus(connection.connection) != PQTRANS_IDLE) {
    runs(connection, "ROLLBACK");
  }
  runs(connection, "DEALLOCATE ALL");
  connection.prepared.clear();
}

}  // namespace

bool beginPipeline(DBConnect_tag* connection, bool withTransaction) {
  const PGTransactionStatusType status =
      connection != nullptr ? PQtransactionStatus(connection->connection) : PQTRANS_UNKNOWN;
  const bool isInside = status == PQTRANS_INTRANS;
  if ((status != PQTRANS_IDLE && !isInside) || PQenterPipelineMode(connection->connection) != 1) {
    return false;
  }
  connection->error.clear();
  connection->pipeline = {};
  connection->pipeline.hasTransaction = withTransaction;
  connection->pipeline.isInsideTransaction = isInside;
  if (!withTransaction) {
    // The library would give the first statement row by row when the connection has read a listing before.
    addOwn(*connection, "");
  } else if (isInside) {
    addOwn(*connection, "SAVEPOINT kavophoto_backup_window");
  } else {
    // As a statement alone would have it, each sees what others have committed meanwhile, and a deferred constraint
    // fails at the statement that breaks it.
    addOwn(*connection, "BEGIN ISOLATION LEVEL READ COMMITTED");
    addOwn(*connection, "SET CONSTRAINTS ALL IMMEDIATE");
    // It holds the locks of many rows. A session that holds one that it needs may wait for one of these, and is not to
    // be the one that the server ends for that.
    addOwn(*connection, "SET LOCAL lock_timeout = 200");
  }
  return true;
}

bool addToPipeline(DBConnect_tag* connection, const Statement& statement) {
  Parameters parameters;
  const bool isPlain = separateParameters(statement, parameters);
  if (!isPlain || (connection->prepared.size() >= kMostPrepared && !connection->prepared.contains(parameters.key))) {
    const std::string text = statementText(statement);
    return valuesKeepTheirPlaces(statement) &&
           addText(*connection, text.c_str(), {false, std::string(tableOfInsert(text))});
  }
  const PreparedStatement* prepared = prepare(*connection, statement, parameters);
  return prepared != nullptr && add(*connection,
                                    PQsendQueryPrepared(connection->connection, prepared->name.c_str(),
                                                        static_cast<int>(parameters.values.size()),
                                                        parameters.values.data(), nullptr, nullptr, 0) == 1,
                                    {false, prepared->insertsInto});
}

bool flushPipeline(DBConnect_tag* connection) {
  const bool wasSent = PQsendFlushRequest(connection->connection) == 1 && PQflush(connection->connection) == 0;
  if (!wasSent) {
    noteLoss(*connection, nullptr);
  }
  return wasSent;
}

int pipelineSocket(DBConnect_tag* connection) { return PQsocket(connection->connection); }

Reply takeReply(DBConnect_tag* connection, DBResult_tag** result) {
  for (;;) {
    if (PQisBusy(connection->connection) != 0 &&
        (PQconsumeInput(connection->connection) != 1 || PQisBusy(connection->connection) != 0)) {
      noteLoss(*connection, nullptr);
      return isLost(*connection) ? Reply::kFailed : Reply::kNotYet;
    }
    auto received = std::make_unique<DBResult_tag>();
    received->reply.reset(PQgetResult(connection->connection));
    if (!succeeded(received->reply.get())) {
      noteLoss(*connection, received->reply.get());
      return Reply::kFailed;
    }
    // Each statement's replies end with none.
    const PGResultHandle end(PQgetResult(connection->connection));
    const PendingReply pending = std::move(connection->pipeline.pending.front());
    connection->pipeline.pending.pop_front();
    if (pending.isOwn) {
      continue;
    }
    connection->pipeline.wrote = changedSomething(received->reply.get()) || connection->pipeline.wrote;
    if (!pending.insertsInto.empty()) {
      connection->pipeline.inserted.push_back(pending.insertsInto);
    }
    if (PQresultMemorySize(received->reply.get()) > kLargeReply) {
      moveOutOfMemory(*received);
    }
    *result = received.release();
    return Reply::kReady;
  }
}

bool endPipeline(DBConnect_tag* connection, bool keeps) {
  Pipeline& pipeline = connection->pipeline;
  if (keeps && pipeline.hasTransaction) {
    addOwn(*connection, keepingStatement(pipeline));
  }
  const bool isKept = PQpipelineSync(connection->connection) == 1 && readUntilSync(*connection) && keeps;
  PQexitPipelineMode(connection->connection);
  if (!isKept) {
    takeBack(*connection);
    return false;
  }
  connection->wrote = pipeline.wrote || connection->wrote;
  for (const std::string& table : pipeline.inserted) {
    countInsert(*connection, table);
  }
  if (!pipeline.isInsideTransaction) {
    refreshStatistics(*connection);
  }
  return true;
}

#pragma once

#include "platform/database.h"
#include "platform/statement.h"

// Statements that are sent one after the other without waiting for their replies in between, on connections that are
// lent to a window of rows (see side_by_side.h). Nothing is logged here.

// Begins a pipeline. With `withTransaction` its statements are one transaction, or a part of the open one that can be
// taken back; otherwise each statement is its own. False when the connection cannot run statements.
bool beginPipeline(DBConnect_tag* connection, bool withTransaction);

// Adds a statement, prepared once and bound each time where it can be. It may wait in this process until
// flushPipeline. False when the connection is lost.
bool addToPipeline(DBConnect_tag* connection, const Statement& statement);

// Sends what was added, and has the server send its replies.
bool flushPipeline(DBConnect_tag* connection);

// The socket, to wait for the server.
int pipelineSocket(DBConnect_tag* connection);

enum class Reply { kReady, kFailed, kNotYet };

// Reads the reply to the oldest statement that has none, without waiting. The result is a new one in *result.
Reply takeReply(DBConnect_tag* connection, DBResult_tag** result);

// Ends the pipeline and, where it had one, its transaction: with `keeps` it is committed, otherwise taken back. To be
// called after every beginPipeline that was true, also when a reply has failed or was not read. False when nothing was
// kept.
bool endPipeline(DBConnect_tag* connection, bool keeps);

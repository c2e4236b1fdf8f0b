#pragma once

#include "platform/database.h"

// The lock that lets only one run work on the database "photo" at a time, whatever becomes of the pid file: a
// session-level advisory lock of the server, on a connection of its own that is kept until the process ends. The server
// gives it up when the process ends in any way.

enum class RunLock {
  kHeld,
  // Another run holds it, or a session of an earlier run does not end.
  kHeldByAnother,
  // There was no connection to "photo". From then on no session of this process or of the programs that it starts can
  // be opened, also when the server comes up later: it would work without the lock.
  kNoServer,
};

// Takes the lock and then ends every session that an earlier run or one of its programs left on the server, so that
// nothing of it renames or writes any more. Nothing else may be done in the database before. A lock that another
// session holds is asked for again for about a second, because the server may notice late that a process was killed.
//
// Logged are a failed statement, and sessions that do not end within half a minute.
RunLock takeRunLock();

// True when this process has held the lock since it first took it, which it does now when it has not yet. To be called
// before anything is staged, dropped or loaded: another run may have worked in between otherwise. That the lock was
// lost is logged, once.
bool keepRunLock();

// The same, but a lock that was lost may also be taken again when nobody else holds it. That is enough to undo what
// this run has done: a table is renamed back only where its own name is free.
bool keepRunLockToUndo();

// The connection that the lock is held on, for reading; null when it is not held.
DBConnect_tag* runLockConnection();

// Gives the lock up and closes its connection.
void releaseRunLock();

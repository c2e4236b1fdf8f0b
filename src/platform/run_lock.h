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

// True when this process holds the lock; takes it (again) when it does not and nobody else holds it, which is so when
// the server was restarted during the run. To be called before anything is renamed, dropped or loaded. A lock that
// another run has taken meanwhile is logged, once; this process then cannot open a session any more.
bool keepRunLock();

// The connection that the lock is held on, for reading; null when it is not held.
DBConnect_tag* runLockConnection();

// Gives the lock up and closes its connection.
void releaseRunLock();

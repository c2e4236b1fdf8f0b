#include "platform/run_lock.h"

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "platform/log.h"
#include "platform/query.h"
#include "platform/text.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Any number will do as long as every version of the tool uses the same one: the bytes of "kavophot".
constexpr long long kKey = 0x6b61766f70686f74;

struct HeldLock {
  Connection connection;
  // The session that held it has ended, and another run may have worked since.
  bool wasLost = false;
  // Another run has it.
  bool isTaken = false;
};

HeldLock& held() {
  static HeldLock lock;
  return lock;
}

// A server that comes up after this run failed to take the lock, or that another run uses by now, refuses sessions with
// a parameter that it does not know. So nothing can work without the lock, neither this process nor a program that it
// starts.
void refuseFurtherSessions() { setenv("PGOPTIONS", "-c kavophoto_backup_does_not_hold_its_lock=on", 1); }

bool isAlive(DBConnect_tag* connection) {
  Result answer;
  return connection != nullptr && KAVODBExecute(connection, "SELECT 1", &answer.handle) != -1;
}

// Asks once. Without a value when the statement failed.
std::optional<bool> tryToLock(DBConnect_tag* connection) {
  Result answer;
  if (KAVODBExecute(connection, formatText("SELECT pg_try_advisory_lock(%lld) AS locked", kKey).c_str(),
                    &answer.handle) == -1 ||
      !fetchRow(answer)) {
    return std::nullopt;
  }
  return fieldText(answer, "locked") == "t";
}

// Connects and asks until the lock is given or the time is over.
RunLock lock() {
  constexpr int kAttempts = 20;
  constexpr auto kPause = milliseconds(50);
  Connection& connection = held().connection;
  for (int attempt = 1;; ++attempt) {
    if (!isAlive(connection.get())) {
      // The sessions that an earlier run left are found by their name. A session that only asks for the lock has
      // another one, so that the run that has just got it does not end it.
      connection.reset(KAVODBConnectAs("kavophoto_backup lock", nullptr, "postgres", nullptr, "photo"));
    }
    if (!connection) {
      return RunLock::kNoServer;
    }
    const std::optional<bool> locked = tryToLock(connection.get());
    if (locked.value_or(false)) {
      return RunLock::kHeld;
    }
    if (attempt == kAttempts) {
      if (!locked) {
        KAVO_LOG("Failed to take the lock of a run (%s)", KAVODBErrorGet(connection.get()));
      }
      connection.reset();
      return RunLock::kHeldByAnother;
    }
    std::this_thread::sleep_for(kPause);
  }
}

// Asks the server to end the sessions of earlier runs. The numbers of those that are still there, or nothing when that
// cannot be asked, which is logged.
std::optional<std::string> endSessions(DBConnect_tag* connection) {
  Result sessions;
  if (!execute(connection, sessions,
               "SELECT pid, pg_terminate_backend(pid) FROM pg_stat_activity WHERE application_name = "
               "'kavophoto_backup' AND usename = current_user AND pid <> pg_backend_pid()")) {
    return std::nullopt;
  }
  std::string numbers;
  while (fetchRow(sessions)) {
    numbers += (numbers.empty() ? "" : ", ") + fieldText(sessions, "pid");
  }
  return numbers;
}

// A program of a killed run dies with it, but the server goes on with the program's statement: one that waits for a
// lock would rename a table long after.
bool endEarlierSessions(DBConnect_tag* connection) {
  constexpr auto kLongest = seconds(30);
  constexpr auto kPause = milliseconds(20);
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    const std::optional<std::string> left = endSessions(connection);
    if (!left) {
      return false;
    }
    if (left->empty()) {
      return true;
    }
    if (std::chrono::steady_clock::now() - start > kLongest) {
      KAVO_LOG("Sessions of an earlier run do not end, nothing is done. End these processes of the server: %s",
               left->c_str());
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
}

// The lock belongs to the session: while that lives, it is held.
bool isStillHeld() {
  HeldLock& own = held();
  if (isAlive(own.connection.get())) {
    return true;
  }
  if (own.connection && !own.wasLost) {
    own.wasLost = true;
    KAVO_LOG("The lock of this run was lost with its connection. It only renames tables back from now on.");
  }
  own.connection.reset();
  return false;
}

}  // namespace

RunLock takeRunLock() {
  const RunLock taken = lock();
  if (taken == RunLock::kNoServer) {
    refuseFurtherSessions();
  }
  if (taken != RunLock::kHeld || endEarlierSessions(held().connection.get())) {
    return taken;
  }
  releaseRunLock();
  return RunLock::kHeldByAnother;
}

bool keepRunLock() { return (isStillHeld() || (!held().wasLost && lock() == RunLock::kHeld)) && !held().wasLost; }

bool keepRunLockToUndo() {
  HeldLock& own = held();
  if (isStillHeld()) {
    return true;
  }
  if (own.isTaken) {
    return false;
  }
  const RunLock taken = lock();
  if (taken == RunLock::kHeldByAnother) {
    own.isTaken = true;
    refuseFurtherSessions();
    KAVO_LOG("Another run has the lock now, and puts right what this one left.");
  }
  return taken == RunLock::kHeld;
}

DBConnect_tag* runLockConnection() { return held().connection.get(); }

void releaseRunLock() { held() = HeldLock(); }

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

Connection& lockConnection() {
  static Connection connection;
  return connection;
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

// Connects and asks until the lock is given or the time is over. A failed statement is asked again as well: the run
// that holds the lock may just be ending the sessions of others.
RunLock lock() {
  constexpr int kAttempts = 20;
  constexpr auto kPause = milliseconds(50);
  Connection& connection = lockConnection();
  for (int attempt = 1;; ++attempt) {
    if (!isAlive(connection.get())) {
      connection = connectTo("photo");
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
  if (!execute(connection,
               "SELECT pid, pg_terminate_backend(pid) FROM pg_stat_activity WHERE application_name = "
               "'kavophoto_backup' AND usename = current_user AND pid <> pg_backend_pid()",
               sessions)) {
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

}  // namespace

RunLock takeRunLock() {
  const RunLock taken = lock();
  if (taken == RunLock::kNoServer) {
    refuseFurtherSessions();
  }
  if (taken != RunLock::kHeld || endEarlierSessions(lockConnection().get())) {
    return taken;
  }
  releaseRunLock();
  return RunLock::kHeldByAnother;
}

bool keepRunLock() {
  static bool isLost = false;
  // The lock belongs to the session: while that lives, it is held.
  if (isLost || isAlive(lockConnection().get())) {
    return !isLost;
  }
  const RunLock taken = lock();
  if (taken == RunLock::kHeldByAnother) {
    isLost = true;
    refuseFurtherSessions();
    KAVO_LOG(
        "The lock of this run was lost with its connection, and another run has it now. This run changes nothing more "
        "in "
        "the database.");
  }
  return taken == RunLock::kHeld;
}

DBConnect_tag* runLockConnection() { return lockConnection().get(); }

void releaseRunLock() { lockConnection().reset(); }

#include "faults/next_run.h"

#include <unistd.h>

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

#include "backup/archive_check.h"
#include "faults/live_rows.h"
#include "faults/statement_relay.h"

namespace crash {
namespace {

using appliance::Database;
using Texts = std::vector<std::string>;

constexpr const char* kLastDirectory = "/tmp/last/";

bool keepsRows(Mode mode) { return !overwrites(mode); }
bool dropsStagedCopies(Mode mode) { return mode != Mode::kImport && mode != Mode::kExport; }

// A killed run, and what another mode makes of it, compared with what undisturbed runs leave.
struct Comparison {
  Mode killed;
  Mode next;
  const Outcome& before;
  const Outcome& afterKilled;
  const Outcome& afterNext;
  const Outcome& found;
};

Outcome undisturbedPair(Mode first, Mode next) {
  layOutForEveryMode();
  appliance::makeDirectories(kFirstDirectory);
  appliance::makeDirectories(kNextDirectory);
  const int firstStatus = appliance::runTool(commandLine(first, kFirstDirectory)).status;
  appliance::takeMessages();
  if (firstStatus != 0 || appliance::runTool(commandLine(next, kNextDirectory)).status != 0) {
    throw std::runtime_error("the undisturbed runs fail");
  }
  const Texts messages = appliance::takeMessages();
  Outcome outcome = look("");
  outcome.messages = messages;
  return outcome;
}

// One mode after the other. It is needed only where a row is neither of before nor of one of the modes alone.
const Outcome& afterBoth(Mode first, Mode next) {
  static std::map<std::pair<Mode, Mode>, Outcome> outcomes;
  const auto place = outcomes.find({first, next});
  return place != outcomes.end()
             ? place->second
             : outcomes.emplace(std::make_pair(first, next), undisturbedPair(first, next)).first->second;
}

void checkLost(Trial& trial, const Comparison& compared) {
  for (const LostRow& one : lostRows(compared.before.rows, {&compared.afterKilled.rows, &compared.afterNext.rows},
                                     compared.found.rows, overwrites(compared.killed))) {
    lose(trial, one.table, {joined(one.row)});
  }
}

void checkGained(Trial& trial, const Comparison& compared, const std::string& table) {
  const auto before = counted(compared.before.rows.at(table));
  const auto killed = counted(compared.afterKilled.rows.at(table));
  const auto next = counted(compared.afterNext.rows.at(table));
  for (auto [text, count] : counted(compared.found.rows.at(table))) {
    long allowed = std::max({countOf(before, text), countOf(killed, text), countOf(next, text)});
    if (count > allowed) {
      allowed = std::max(allowed, countOf(counted(afterBoth(compared.killed, compared.next).rows.at(table)), text));
    }
    // In skip mode these are recognised by the numbers that their categories had in the source, so they are added
    // again.
    if (table == "category_items" && (compared.killed == Mode::kRestoreSkip || compared.next == Mode::kRestoreSkip)) {
      count = std::min(count, 1L);
    }
    if (allowed == 0) {
      trial.faults.push_back(std::string("unknown row in ").append(table).append(": ").append(text));
    } else if (count > allowed) {
      gain(trial, table, Texts(static_cast<std::size_t>(count - allowed), text));
    }
  }
}

// The lines without those of the sequences, which go on with every row that is added.
Texts fixedStructure(Texts lines) {
  std::erase_if(lines, [](const std::string& line) { return line.rfind("sequence ", 0) == 0; });
  return lines;
}

void checkKept(Trial& trial, const Comparison& compared) {
  if (fixedStructure(compared.before.structure) != fixedStructure(compared.found.structure)) {
    trial.faults.emplace_back("the structure of the database differs");
  }
  if (!keepsRows(compared.killed) || !keepsRows(compared.next)) {
    return;
  }
  const bool none = !merges(compared.killed) && !merges(compared.next);
  for (const auto& [table, rows] : compared.before.contents) {
    const Texts& found = compared.found.contents.at(table);
    lose(trial, table + " as it was", missing(rows, found));
    if (none) {
      gain(trial, table, missing(found, rows));
    }
  }
  if (none && compared.before.structure != compared.found.structure) {
    trial.faults.emplace_back("the state of a sequence differs");
  }
  if (none && sharedReferenceOf(Mode::kBackup).after.archive != compared.found.archive) {
    trial.faults.emplace_back("the last archive holds other rows");
  }
}

void checkSessions(Trial& trial) {
  if (!waitUntilNoSessionIsLeft()) {
    trial.faults.emplace_back("a session of the tool is left");
  }
}

void checkNote(Trial& trial) {
  Database live("photo");
  for (const auto& row : live.rows("SELECT unnest(setconfig) FROM pg_db_role_setting")) {
    if (row[0].find("kavophoto_backup") != std::string::npos) {
      trial.faults.push_back("a note is left: " + row[0]);
    }
  }
}

// Of the live tables only, where staged copies may be there too.
std::map<std::string, Texts> liveContents() {
  std::map<std::string, Texts> contents = appliance::contents("photo");
  std::erase_if(contents, [](const auto& table) {
    return table.first.size() > 4 && table.first.compare(table.first.size() - 4, 4, "_bak") == 0;
  });
  return contents;
}

// A message may come from what the killed run has left to do or has done already.
void checkNextMessages(Trial& trial, Mode killed, Mode next, const Texts& messages) {
  Texts expected = sharedReferenceOf(next).after.messages;
  const auto isExpected = [&expected](const std::string& message) {
    return std::find(expected.begin(), expected.end(), message) != expected.end();
  };
  if (!std::all_of(messages.begin(), messages.end(), isExpected)) {
    const Texts both = afterBoth(killed, next).messages;
    expected.insert(expected.end(), both.begin(), both.end());
  }
  checkMessages(trial, expected, messages);
}

void runToItsEnd(Trial& trial, const std::string& what, const std::vector<std::string>& arguments) {
  const int status = appliance::runTool(arguments).status;
  if (status != 0) {
    trial.faults.push_back(what + " ends with status " + std::to_string(status));
  }
}

void checkArchive(Trial& trial, const std::string& directory) {
  if (!archiveIsWhole(directory + "kavophoto.backup")) {
    trial.faults.push_back("the archive in " + directory + " is not whole");
  }
}

}  // namespace

std::vector<std::string> commandLine(Mode mode, const std::string& directory) {
  switch (mode) {
    case Mode::kBackup:
      return {"-b", directory};
    case Mode::kExport:
      return {"-e", directory};
    default:
      return commandLine(mode);
  }
}

const Reference& sharedReferenceOf(Mode mode) {
  static std::map<std::pair<Mode, int>, Reference> references;
  const auto key = std::make_pair(mode, window());
  const auto place = references.find(key);
  if (place != references.end()) {
    return place->second;
  }
  Reference reference;
  reference.mode = mode;
  layOutForEveryMode();
  appliance::makeDirectories(kFirstDirectory);
  reference.before = look("");
  countPrograms(0, "");
  faults::StatementRelay relay;
  appliance::RunOptions options;
  options.env = {relay.environment()};
  if (appliance::runTool(commandLine(mode, kFirstDirectory), options).status != 0) {
    throw std::runtime_error("the undisturbed run fails");
  }
  reference.programs = countedPrograms();
  reference.statements = relay.statements();
  bringProgramsBack();
  const Texts messages = appliance::takeMessages();
  reference.after = look(mode == Mode::kBackup ? kFirstDirectory : "");
  reference.after.messages = messages;
  return references.emplace(key, std::move(reference)).first->second;
}

Trial killAndRunNext(Mode killed, Mode next, const KillPoint& point) {
  const Reference& killedReference = sharedReferenceOf(killed);
  const Reference& nextReference = sharedReferenceOf(next);
  const Reference& backupReference = sharedReferenceOf(Mode::kBackup);
  Trial trial;
  layOutForEveryMode();
  for (const char* directory : {kFirstDirectory, kNextDirectory, kLastDirectory}) {
    appliance::makeDirectories(directory);
  }
  if (!runAndKill(trial, killedReference, commandLine(killed, kFirstDirectory), point, true)) {
    trial.faults.push_back("the tool was not killed " + nameOf(point));
    return trial;
  }
  runToItsEnd(trial, "the next run", commandLine(next, kNextDirectory));
  const Texts messages = appliance::takeMessages();
  checkTables(trial, !dropsStagedCopies(next));
  const std::map<std::string, Texts> contents = liveContents();
  runToItsEnd(trial, "the last backup", commandLine(Mode::kBackup, kLastDirectory));
  checkMessages(trial, backupReference.after.messages, appliance::takeMessages());
  checkTables(trial, false);
  checkNote(trial);
  checkSessions(trial);
  checkArchive(trial, kLastDirectory);
  if (next == Mode::kBackup) {
    checkArchive(trial, kNextDirectory);
  }
  if (trial.wrongNames > 0) {
    return trial;
  }
  const Outcome found = look(kLastDirectory);
  for (const std::string& report : appliance::takeSanitizerReports()) {
    trial.faults.push_back(report);
  }
  if (contents != found.contents) {
    trial.faults.emplace_back("the last backup changes rows");
  }
  const Comparison compared = {killed, next, killedReference.before, killedReference.after, nextReference.after, found};
  checkKept(trial, compared);
  checkLost(trial, compared);
  for (const auto& [table, rows] : found.rows) {
    checkGained(trial, compared, table);
  }
  // The undisturbed runs of both modes lay out anew, so nothing may be looked at after this.
  checkNextMessages(trial, killed, next, messages);
  return trial;
}

}  // namespace crash

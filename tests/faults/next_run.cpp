#include "faults/next_run.h"

#include <unistd.h>

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

#include "backup/archive_check.h"
#include "faults/statement_relay.h"

namespace crash {
namespace {

using appliance::Database;
using Texts = std::vector<std::string>;

constexpr const char* kLastDirectory = "/tmp/last/";

bool overwrites(Mode mode) { return mode == Mode::kRestoreOverwrite || mode == Mode::kImport; }
bool keepsRows(Mode mode) { return !overwrites(mode); }
bool merges(Mode mode) { return mode != Mode::kBackup && mode != Mode::kExport; }
bool dropsStagedCopies(Mode mode) { return mode != Mode::kImport && mode != Mode::kExport; }

// What tells the rows of a table apart, in columns of named_rows.h.
struct Key {
  std::vector<std::size_t> columns;
  // The rows with the same values there are replaced together: the rights of a user, or what a group holds.
  std::vector<std::size_t> owner;
  // What reads "(none)" or nothing when the label or category of a link has got another number.
  std::vector<std::size_t> linked;
};

Key keyOf(const std::string& table) {
  static const std::map<std::string, Key> keys = {
      {"photo_label", {{0, 1}, {0, 1}, {}}},
      {"photo_image_label", {{0, 1, 2}, {0, 1, 2}, {1, 2}}},
      {"photo_video_label", {{0, 1, 2}, {0, 1, 2}, {1, 2}}},
      {"category_items", {{0, 1, 3}, {0, 1, 3}, {0}}},
      {"photo_comment", {{0, 1, 4}, {0, 1, 4}, {}}},
      {"video_comment", {{0, 1, 4}, {0, 1, 4}, {}}},
      {"photo_config", {{0, 1}, {0, 1}, {}}},
      {"photo_log", {{0, 3}, {0, 3}, {}}},
      {"photo_access_right", {{0, 1}, {0}, {}}},
      {"photo_upload_right", {{0, 1}, {0}, {}}},
      {"photo_manage_right", {{0, 1}, {0}, {}}},
      {"photo_group_permission", {{0, 1}, {0}, {}}},
      {"photo_user_group", {{0, 1}, {1}, {}}},
      {"photo_personal_collection", {{1}, {1}, {}}},
      {"photo_personal_collection_for_hox_account", {{1}, {1}, {}}},
  };
  const auto place = keys.find(table);
  if (place != keys.end()) {
    return place->second;
  }
  const bool isLink = table.find("_for_hox_account") != std::string::npos || named::isVideoMember(table) ||
                      table.rfind("photo_personal_collection_photo", 0) == 0;
  const std::vector<std::size_t> columns = isLink ? std::vector<std::size_t>{0, 1} : std::vector<std::size_t>{0};
  return {columns, columns, {}};
}

std::vector<std::string> part(const std::vector<std::string>& row, const std::vector<std::size_t>& columns) {
  std::vector<std::string> fields;
  fields.reserve(columns.size());
  for (const std::size_t column : columns) {
    fields.push_back(row[column]);
  }
  return fields;
}

// The rows of one table without those that link to nothing, each as often as it is there.
std::map<std::string, long> counted(const named::Rows& rows, const std::vector<std::size_t>* columns) {
  std::map<std::string, long> counts;
  for (const std::vector<std::string>& row : rows) {
    if (!linksToNothing(joined(row))) {
      ++counts[joined(columns == nullptr ? row : part(row, *columns))];
    }
  }
  return counts;
}

long countOf(const std::map<std::string, long>& counts, const std::string& text) {
  const auto place = counts.find(text);
  return place == counts.end() ? 0 : place->second;
}

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

struct LostRow {
  std::string table;
  std::vector<std::string> row;
};

// One row for each natural key that is missing as often as it is missing, and each row that is missing to the letter.
std::vector<LostRow> lostRows(const Comparison& compared, const std::string& table) {
  const Key key = keyOf(table);
  const named::Rows& rowsBefore = compared.before.rows.at(table);
  std::vector<LostRow> lost;
  std::set<std::string> told;
  const auto compare = [&](const std::vector<std::size_t>* columns) {
    const auto killed = counted(compared.afterKilled.rows.at(table), columns);
    const auto next = counted(compared.afterNext.rows.at(table), columns);
    const auto found = counted(compared.found.rows.at(table), columns);
    for (const auto& [text, count] : counted(rowsBefore, columns)) {
      const long required = std::min({count, countOf(killed, text), countOf(next, text)});
      const auto isThis = [&text = text, columns](const std::vector<std::string>& row) {
        return joined(columns == nullptr ? row : part(row, *columns)) == text;
      };
      const auto row = std::find_if(rowsBefore.begin(), rowsBefore.end(), isThis);
      for (long missing = required - countOf(found, text); missing > 0; --missing) {
        if (columns != nullptr || told.count(joined(part(*row, key.columns))) == 0) {
          lost.push_back({table, *row});
        }
        told.insert(joined(part(*row, key.columns)));
      }
    }
  };
  compare(&key.columns);
  compare(nullptr);
  return lost;
}

// A row of a link that is still there, but for the label or category that has another number by now.
std::string withoutLink(const std::vector<std::string>& row, const Key& key) {
  std::vector<std::string> fields;
  for (std::size_t column = 0; column < row.size(); ++column) {
    if (std::find(key.linked.begin(), key.linked.end(), column) == key.linked.end()) {
      fields.push_back(row[column]);
    }
  }
  return joined(fields);
}

// Takes the rows out of `lost` that are in the table with a link to nothing, which an undisturbed run gives a new link.
long takeCutLinks(const Comparison& compared, std::vector<LostRow>& lost) {
  long taken = 0;
  std::map<std::string, std::multiset<std::string>> cut;
  for (const auto& [table, rows] : compared.found.rows) {
    const Key key = keyOf(table);
    for (const std::vector<std::string>& row : rows) {
      if (!key.linked.empty() && row[key.linked.front()] == "(none)") {
        cut[table].insert(withoutLink(row, key));
      }
    }
  }
  std::erase_if(lost, [&cut, &taken](const LostRow& one) {
    std::multiset<std::string>& rows = cut[one.table];
    const auto place = rows.find(withoutLink(one.row, keyOf(one.table)));
    if (keyOf(one.table).linked.empty() || place == rows.end()) {
      return false;
    }
    rows.erase(place);
    ++taken;
    return true;
  });
  return taken;
}

// A run replaces one thing at a time: one row, or the rows of one owner in one table.
bool areOfOneReplacement(const std::vector<LostRow>& lost) {
  std::set<std::string> owners;
  for (const LostRow& one : lost) {
    owners.insert(one.table + ": " + joined(part(one.row, keyOf(one.table).owner)));
  }
  return owners.size() == 1;
}

void checkLost(NextTrial& trial, const Comparison& compared) {
  std::vector<LostRow> lost;
  for (const auto& [table, rows] : compared.before.rows) {
    const std::vector<LostRow> ofTable = lostRows(compared, table);
    lost.insert(lost.end(), ofTable.begin(), ofTable.end());
  }
  if (overwrites(compared.killed) && compared.next != compared.killed) {
    trial.linksCut = takeCutLinks(compared, lost);
    if (areOfOneReplacement(lost)) {
      trial.caughtInReplacement = static_cast<long>(lost.size());
      return;
    }
  }
  for (const LostRow& one : lost) {
    lose(trial, one.table, {joined(one.row)});
  }
}

void checkGained(NextTrial& trial, const Comparison& compared, const std::string& table) {
  const auto before = counted(compared.before.rows.at(table), nullptr);
  const auto killed = counted(compared.afterKilled.rows.at(table), nullptr);
  const auto next = counted(compared.afterNext.rows.at(table), nullptr);
  for (auto [text, count] : counted(compared.found.rows.at(table), nullptr)) {
    long allowed = std::max({countOf(before, text), countOf(killed, text), countOf(next, text)});
    if (count > allowed) {
      allowed =
          std::max(allowed, countOf(counted(afterBoth(compared.killed, compared.next).rows.at(table), nullptr), text));
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

void checkKept(NextTrial& trial, const Comparison& compared) {
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

// The server ends a session some time after its client.
void checkSessions(NextTrial& trial) {
  Database live("photo");
  constexpr int kAttempts = 100;
  constexpr useconds_t kPause = 20000;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (live.value("SELECT count(*) FROM pg_stat_activity WHERE application_name = 'kavophoto_backup'") == "0") {
      return;
    }
    usleep(kPause);
  }
  trial.faults.emplace_back("a session of the tool is left");
}

void checkNote(NextTrial& trial) {
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
void checkNextMessages(NextTrial& trial, Mode killed, Mode next, const Texts& messages) {
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

void runToItsEnd(NextTrial& trial, const std::string& what, const std::vector<std::string>& arguments) {
  const int status = appliance::runTool(arguments).status;
  if (status != 0) {
    trial.faults.push_back(what + " ends with status " + std::to_string(status));
  }
}

void checkArchive(NextTrial& trial, const std::string& directory) {
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
  static std::map<Mode, Reference> references;
  const auto place = references.find(mode);
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
  return references.emplace(mode, std::move(reference)).first->second;
}

NextTrial killAndRunNext(Mode killed, Mode next, const KillPoint& point) {
  const Reference& killedReference = sharedReferenceOf(killed);
  const Reference& nextReference = sharedReferenceOf(next);
  const Reference& backupReference = sharedReferenceOf(Mode::kBackup);
  NextTrial trial;
  layOutForEveryMode();
  for (const char* directory : {kFirstDirectory, kNextDirectory, kLastDirectory}) {
    appliance::makeDirectories(directory);
  }
  if (!runAndKill(commandLine(killed, kFirstDirectory), point)) {
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

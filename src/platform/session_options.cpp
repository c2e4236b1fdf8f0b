#include "platform/session_options.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::array<std::string_view, 7> kEverySession = {
    // The same value must read the same from two databases. A date with a time zone that is cut at the capacity of its
    // buffer would lose a part of its offset and name another instant; the offset of UTC is short enough to fit.
    "standard_conforming_strings=on", "datestyle=ISO", "timezone=UTC",
    // Names without a schema mean the application's tables, and functions and operators of another schema of a foreign
    // database never run in their place.
    "search_path=public",
    // A table is not left out because it is large or locked for a while, as in pg_dump's own sessions.
    "statement_timeout=0", "lock_timeout=0", "idle_in_transaction_session_timeout=0"};

// Commits need not wait for the disk one by one, because KAVODBClose makes all of them durable at once. The planner's
// compiler costs more than it gains on statements that touch a row.
constexpr std::array<std::string_view, 2> kOwnSessions = {"synchronous_commit=off", "jit=off"};

// On disk when the program ends, but without waiting for a standby that may be away for days.
constexpr std::array<std::string_view, 1> kChildSessions = {"synchronous_commit=local"};

struct NewerTimeout {
  int serverVersion;
  std::string_view name;
};
constexpr std::array<NewerTimeout, 2> kNewerTimeouts = {
    {{140000, "idle_session_timeout"}, {170000, "transaction_timeout"}}};

void append(std::string& options, std::string_view setting) { options.append(" -c ").append(setting); }

// The server takes the last of two options for the same setting.
std::string optionsOfEverySession() {
  const char* given = std::getenv("PGOPTIONS");
  std::string options = given != nullptr ? given : "";
  for (const std::string_view setting : kEverySession) {
    append(options, setting);
  }
  return options;
}

}  // namespace

std::string ownSessionOptions() {
  std::string options = optionsOfEverySession();
  for (const std::string_view setting : kOwnSessions) {
    append(options, setting);
  }
  return options;
}

std::string childSessionOptions(int serverVersion) {
  std::string options = optionsOfEverySession();
  for (const std::string_view setting : kChildSessions) {
    append(options, setting);
  }
  for (const NewerTimeout& timeout : kNewerTimeouts) {
    if (serverVersion >= timeout.serverVersion) {
      append(options, std::string(timeout.name) + "=0");
    }
  }
  return options;
}

std::string settlingStatements(const SessionState& state) {
  std::string statements;
  // The stored bytes of a database without an encoding can be in any, so they are not converted.
  if (state.serverEncoding != nullptr && std::strcmp(state.serverEncoding, "SQL_ASCII") == 0) {
    statements += "SET client_encoding = 'SQL_ASCII'; ";
  }
  // libpq sends PGDATESTYLE and PGTZ apart from the options, and they win.
  if (state.dateStyle != nullptr && std::strncmp(state.dateStyle, "ISO", 3) != 0) {
    statements += "SET datestyle = ISO; ";
  }
  if (state.timeZone != nullptr && std::strcmp(state.timeZone, "UTC") != 0) {
    statements += "SET timezone = 'UTC'; ";
  }
  for (const NewerTimeout& timeout : kNewerTimeouts) {
    if (state.serverVersion >= timeout.serverVersion) {
      statements.append("SET ").append(timeout.name).append(" = 0; ");
    }
  }
  return statements;
}

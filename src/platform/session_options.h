#pragma once

#include <string>

// The server's settings that must not depend on who runs the tool, or on what is set for the role or the database: in
// the tool's own sessions and in those of the programs that it starts.

// The start-up options of a session of the tool's own: those of PGOPTIONS, then the tool's, which win. Every server
// from version 11 on knows them. PGDATESTYLE and PGTZ win over them, and see settlingStatements.
std::string ownSessionOptions();

// PGOPTIONS for programs that the tool starts: those given, then the tool's, which win. `serverVersion` is that of the
// server they will connect to, as PQserverVersion gives it, or 0 when it is not known; the server refuses a session
// with a setting that it does not know, so with 0 what only newer servers know is left out.
std::string childSessionOptions(int serverVersion);

// What a session of the tool's own says about itself once it is connected. A null text is not known.
struct SessionState {
  int serverVersion;
  const char* serverEncoding;
  const char* dateStyle;
  const char* timeZone;
};

// The statements, to be sent together, that settle what the start-up options could not. Empty when there is nothing
// left to settle.
std::string settlingStatements(const SessionState& state);

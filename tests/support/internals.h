#pragma once

#include <string>
#include <vector>

#include "support/appliance.h"

namespace appliance::internals {

inline constexpr const char* kHome = "/appliance";
inline constexpr const char* kTool = "/appliance/bin/kavophoto_backup";
inline constexpr const char* kData = "/appliance/data";
inline constexpr const char* kSocketFolder = "/appliance/run";
inline constexpr const char* kWorkDirectory = "/tmp/backup/";
inline constexpr const char* kTemplate = "photo_template";

[[noreturn]] void fail(const std::string& what);
// With the text of errno.
[[noreturn]] void failErrno(const std::string& what);

// Waits for a child, through interruptions.
int waitFor(pid_t pid);

// Moves the process into the new root. `preserved` receives the top-level names of /tmp and /var that belong to the
// build and must survive reset().
void enterRoot(const EnterOptions& options, std::vector<std::string>& preserved);
// A descriptor of the machine's root folder, which is out of reach by any path.
int machineRoot();
// User and group that the server runs as.
unsigned serverUid();
unsigned serverGid();

void initialiseServer(const EnterOptions& options);
void ensureDefaultServer();
void stopServerAtExit();
std::string serverProgram(const std::string& name);

void makeTemplate();
void dropTestDatabases();
void closeAdministration();
void administer(const std::string& sql);

void startSink();
void stopSink();

void resetAccounts();
void observed();
void resetObservations();

extern const char* const kSchema;

}  // namespace appliance::internals

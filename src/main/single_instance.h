#pragma once

#include <optional>
#include <string>

#include "platform/handles.h"

// Takes the guard that keeps a second run out: the pid file "/tmp/kavophoto_backup.pid" with this process's number.
// False when another run is alive. A file that names no living process is replaced. A pid file that cannot be made is
// logged, and the guard counts as taken.
bool takeSingleInstanceGuard();

// Locks the directory that the prefix `path` begins with, up to its last slash, until the result is destroyed, so that
// no other run works on the same files. Waits about a second for a lock that another process holds; without a value
// when it is still held then. Where the directory cannot be opened or its file system knows no locks, the result owns
// nothing. Nothing is logged.
std::optional<Descriptor> lockDirectory(const std::string& path);

// Removes the pid file if there is one, whoever made it.
void removePidFile();

#pragma once

// Takes the guard that keeps a second run out: the pid file "/tmp/kavophoto_backup.pid" with this process's number.
// False when another run is alive. A file that names no living process is replaced. A pid file that cannot be made is
// logged, and the guard counts as taken.
bool takeSingleInstanceGuard();

// Removes the pid file if there is one, whoever made it.
void removePidFile();

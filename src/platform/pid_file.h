#pragma once

// True when the process that `path` names (a decimal number) exists, whichever user it runs as. A file that cannot be
// read or holds no positive number names no process; neither does one that is a symbolic link or no ordinary file, or
// that belongs to somebody other than root and the effective user.
bool KLIBCProcAliveByPidFile(const char* path);

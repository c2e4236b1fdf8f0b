#pragma once

// True when the process that `path` names (a decimal number) exists, whoever owns it. A file that cannot be read or
// holds no positive number names no process.
bool KLIBCProcAliveByPidFile(const char* path);

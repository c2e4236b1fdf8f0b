#pragma once

#include <ctime>
#include <string>

// The text of the backup-time file: the local time of the backup with the year within its century, the system's build
// number and the application's version, as three key="value" lines, cut to 1023 bytes. "%%" in a version comes out as
// "%".
std::string backupTimeText(const std::tm& time, const std::string& version, const std::string& photoVersion);

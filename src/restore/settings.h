#pragma once

// Merges the saved settings file `saved` into the live one: every saved value wins, keys that only the live file has
// stay, in that order. A missing live file counts as empty. `dir`, the work directory, is not used.
//
// 0, or -1 with the reason logged. The live file is written last and by one copy; it is not touched when either file
// cannot be read or the merged one cannot be made.
int KavophotoRestoreSetting(const char* dir, const char* saved);

#pragma once

// Copies the entries of "theme_bak" under the directory prefix `dir` into the live theme directory; outside the
// overwrite mode only those that it lacks. 0 when the saved directory was read through, also when single entries could
// not be copied; -1 when it cannot be opened. All of it is logged.
int KavophotoRestoreTheme(const char* dir);

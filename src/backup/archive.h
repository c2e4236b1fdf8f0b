#pragma once

#include <span>
#include <string>

// Writes the backup archive "kavophoto.backup" under the directory prefix `dir` (absolute, ending in "/"): a dump of
// the staged copies of `tables`, the backup time, the names of the host accounts that hold rights, the blog themes and
// the settings file.
//
// While it runs the live tables carry their staged names; afterwards they have their own again, whatever failed. Staged
// tables that an interrupted restore left beside live ones are dropped first; where a staged name stays taken, which is
// logged, nothing is done and an older archive stays. The same goes for a pipe, a device or a socket (or a link to one)
// in the place of a file that it writes: the name is removed first, and where that fails nothing is done. Each table
// that the dump lacks is logged, and the archive is made without it. 0 when the archive was made; -1 otherwise, with
// the step that failed logged, and then a partly written archive may be left. All other files that it makes under `dir`
// are removed in any case.
int KavophotoDumpDB(const char* dir, std::span<const char* const> tables);

// Copies the plain files of the live theme directory into a new directory "theme_bak" under `dir`. 0 also when single
// files could not be copied; -1 when the live directory cannot be opened or the new one cannot be made. All of it is
// logged.
int KavophotoCopyThemeDir(const char* dir);

// Removes the directory "theme_bak" under `dir`, with all that is in it, if it is there. A failure is logged only.
void removeThemeCopy(const std::string& dir);

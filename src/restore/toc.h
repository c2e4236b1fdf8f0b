#pragma once

#include <optional>
#include <string>
#include <string_view>

// The lines of a dump's table of contents that name tables or their rows, each ended by a newline: every line that
// contains "TABLE".
std::string tableEntries(std::string_view listing);

// The table of contents of the dump "kavophoto_backup.dump" under the directory prefix `dir`, a line for each entry;
// nothing when it cannot be listed, which is logged.
std::optional<std::string> listDump(const std::string& dir);

// The first table in a dump's table of contents that has rows there but not a staged name, as "schema name owner";
// nothing when there is none. Its rows would be added to a table that is in use.
std::optional<std::string> foreignRows(std::string_view listing);

// Writes the table entries of the dump "kavophoto_backup.dump" under the directory prefix `dir` to "toc_file" beside
// it. 0, or -1 with the reason logged, when the file may hold a part of them.
int makeTocFile(const std::string& dir);

#pragma once

#include <string>

// True when `path` is a backup archive with nothing wrong: a gzip stream with its proper end and nothing behind it that
// holds a tar archive with its proper end, and in that the six members, complete and in order, the directory
// "theme_bak" followed by its files; nothing missing, doubled or foreign. With an `origin`, a directory prefix, every
// file must also equal the one of its name there to the byte, and no file of the theme directory may be missing. Reads
// the archive once; any input is allowed. Nothing is logged.
bool archiveIsWhole(const std::string& path, const std::string& origin = "");

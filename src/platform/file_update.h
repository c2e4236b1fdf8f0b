#pragma once

#include <string>

enum class FileUpdate { kWritten, kNotOpened, kNotWritten };

// Replaces the contents of the file at `path`, keeping its owner, group, mode and, where it is a link, the link. The
// new text is written and flushed beside the file and then renamed over it, so that the file holds either text whole,
// whatever happens; only where the directory does not allow that is it written in place. kNotOpened when the file may
// not be written or is no ordinary one; kNotWritten with errno set when the writing failed. Nothing is logged.
FileUpdate updateFile(const std::string& path, const std::string& text);

// Makes a file of the tool's own with this text, or replaces the one that is there; it holds either text whole,
// whatever happens, and only its owner can read it. False with errno set when that fails, EFBIG for a text that
// readWholeFile would not read. Nothing is logged.
bool writeNewFile(const std::string& path, const std::string& text);

// Reads the whole file, an ordinary one of at most 64 MiB. False with errno set when that fails, EFBIG for a larger
// one; `text` is then of no use.
bool readWholeFile(const std::string& path, std::string& text);

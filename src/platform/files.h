#pragma once

#include <string>

#include "platform/handles.h"

// Only ordinary files are opened, and opening never waits. A folder in the place of a file fails with errno EISDIR; a
// pipe, a device or a socket with EINVAL or ENXIO.

// True when something exists at `path`; a symbolic link counts for what it points to.
bool exists(const std::string& path);

// True when a pipe, a device or a socket exists at `path`, or a symbolic link to one: things that a program may wait
// for without end when it opens them.
bool isSpecialFile(const std::string& path);

enum class Links { kFollowed, kRefused };

// Opens a file for reading; null with errno set when that fails, with ELOOP where a symbolic link is refused.
File openToRead(const std::string& path, Links links = Links::kFollowed);

// Opens a text file that the tool writes: made when it is missing, and emptied. Null with errno set otherwise. A
// symbolic link in its place is not followed, because the work directory may hold what an archive or another user put
// there.
File openToWrite(const std::string& path);

// The same, but what the file holds stays and text is added at its end.
File openToAppend(const std::string& path);

// Opens an existing file for writing over what it holds, which stays until then; symbolic links are followed. None with
// errno set when that fails.
Descriptor openInPlace(const std::string& path);

// Closes a file that was written. False when a part of what was written did not reach it.
bool closeWritten(File file);

// Removes the file at `path` if there is one. A failure is logged as "Failed to remove %s (%s)" with the path and the
// system's reason.
void removeIfThere(const std::string& path);

// Removes the name `path` when it is one of a special file; of a symbolic link only the link. Files, folders and the
// links to them stay. False when the removal failed, which is logged in the same way.
bool removeSpecialFile(const std::string& path);

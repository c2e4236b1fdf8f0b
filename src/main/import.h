#pragma once

#include <string>

// Merges the database `temporaryDatabase` of the local server into the live database "photo". `path` is the directory
// prefix under which the host-account files stand. First the photo and video paths in the temporary database are
// rewritten to this machine's share.
//
// 0 when the merge ran, whatever single tables failed (each is logged); -1 when a database cannot be reached, when
// `temporaryDatabase` is the live one or empty, or when the
// paths of the photo or video tables cannot be repaired, which is logged, and then nothing was merged.
int importDatabase(const std::string& path, const std::string& temporaryDatabase);

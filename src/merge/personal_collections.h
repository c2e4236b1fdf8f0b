#pragma once

#include <map>
#include <optional>
#include <string>

#include "platform/database.h"

// The numbers of rows of one table in the source, with the numbers of their counterparts in the destination; without a
// value for a row that has none, or whose look-up failed, so that it is asked for and logged once.
using NumberMap = std::map<long long, std::optional<long long>>;

// Merges the photo and then, unless those failed, the video members of one family of collections. The result of the
// last pass that was run.
int KavophotoSyncCollectionFamily(DBConnect_tag* destination, DBConnect_tag* source, const std::string& collectionTable,
                                  const std::string& photoMemberTable, const std::string& videoMemberTable,
                                  const char* suffix);

// Merges one member table: adds the members that the destination lacks. A member whose collection or media file has no
// counterpart is skipped; a failed statement after the first is logged and costs only its own member. 0, or -1 when the
// member table cannot be read.
int KavophotoSyncCollectionMembers(DBConnect_tag* destination, DBConnect_tag* source,
                                   const std::string& collectionTable, const std::string& memberTable,
                                   const char* suffix, const std::string& mediaColumn, const std::string& mediaTable,
                                   NumberMap& collections);

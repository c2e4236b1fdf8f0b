#pragma once

#include <span>

#include "platform/database.h"

// Makes the look-ups in freshly loaded staged copies of `tables` fast: indexes on the columns that the merge looks them
// up by, and statistics for the planner. What cannot be made is left out silently; the rows found are the same. All of
// it goes with the staged tables.
void indexStagedTables(DBConnect_tag* connection, std::span<const char* const> tables);

#pragma once

#include "transfer/transfer.h"

// Merges the backup archive "kavophoto.backup" under the directory prefix `dir` (absolute, ending in "/") into the live
// database, settings and themes. gIsOverwiroteMode decides whether the backup or what is live wins.
//
// 0 when the merge ran through, whatever single tables, settings or themes failed; -2 when the dump could not be
// loaded; -1 on every other failure. All failures are logged. What was merged before a failure stays merged, and staged
// tables may stay in the database beside the live ones; the next restore or backup drops them. The host-account files
// and the saved settings stay unpacked under `dir`.
int KavophotoRestoreDB(const char* dir, const TransferTables& tables);

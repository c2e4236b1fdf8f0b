#pragma once

#include "platform/database.h"

// Rewrites every value of `table`.`column` that does not contain the path of this machine's share "photo" so that it
// begins with it: the share path, immediately followed by what stands after the value's third "/" (or, in a value with
// fewer, after the third "/" of the last row before it that had one). `database` and `key` are accepted for the
// callers' sake and not used.
//
// 0 on success; -1 when the connection is null, the share cannot be found or a statement fails, which is logged. What
// was rewritten before a failure stays rewritten.
int KavophotoCheckPath(DBConnect_tag* connection, const char* database, const char* table, const char* column,
                       const char* key);

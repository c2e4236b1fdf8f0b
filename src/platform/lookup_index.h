#pragma once

#include "platform/database.h"

// An index that exists only inside the open transaction of a connection: whatever ends the transaction other than a
// commit takes it along, and it is to be dropped before a commit. Nobody else ever sees it.

// Makes the index on `table`.`column` when `lookUps`, the number of look-ups to come, make it worth while. It needs the
// table for itself until the transaction ends, so it is not made when anybody else is using the table, nor when it
// cannot be made for another reason: all that is lost then is speed, the transaction stays as it was and nothing is
// logged. True when the index was made; until the transaction ends, statements prefer indexes then.
bool createLookupIndex(DBConnect_tag* connection, const char* table, const char* column, long long lookUps);

void dropLookupIndex(DBConnect_tag* connection);

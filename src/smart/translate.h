#pragma once

#include <string>

#include "platform/database.h"

// True when `ids` can stand in a statement as a list of identifiers: it holds no ASCII letter and none of | ( ) and -.
bool isIdList(const std::string& ids);

// Translates `ids`, a comma-separated list of identifiers of the source, into the identifiers that the rows of the same
// names have in the destination, in the destination's row order, without blanks. `kind` "albums" stands for shares, any
// other for labels, which are compared by name alone. `suffix` is appended to the source's table name.
//
// 0 on success; -1 otherwise, with one line logged, and `result` untouched: `ids` holds anything else than identifiers,
// a statement failed, or no identifier is left. Single names that the destination lacks are dropped silently.
int KavophotoTranslateIdList(DBConnect_tag* destination, DBConnect_tag* source, const std::string& ids,
                             std::string& result, const char* suffix, const std::string& kind);

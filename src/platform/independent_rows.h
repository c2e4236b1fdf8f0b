#pragma once

#include <string>
#include <vector>

#include "platform/database.h"

// A table that the rows of a merge are written to, and the columns that tell its rows apart: those that a row's keys
// are made of, and its number.
struct WrittenTable {
  std::string name;
  std::vector<std::string> keyColumns;
};

// True when rows with different keys can know nothing of each other, so that they may run side by side: each table is
// an ordinary one without triggers and rules of its own, values of a key column are equal only when they are spelled
// alike, no other columns are unique, and no default looks at what the session did before. False also when the server
// cannot be asked. Nothing is logged.
bool rowsAreIndependent(DBConnect_tag* connection, const std::vector<WrittenTable>& tables);

// True when the text is how the server itself prints a whole number, or a date with a time: such texts are equal when
// the values are.
bool isPrintedNumber(const std::string& text);
bool isPrintedTime(const std::string& text);

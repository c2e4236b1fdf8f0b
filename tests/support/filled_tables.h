#pragma once

#include <string>

namespace appliance {

// Puts `rows` rows into every table of the database, each with a value of its own in every column; numbered columns
// count on by themselves.
void fillTables(const std::string& database, int rows = 3);

}  // namespace appliance

#pragma once

#include <string>

// Appends the host accounts named in the live rights and permission tables to the host-account files under the
// directory prefix `path`. Each table that fails is logged; the others are written all the same.
void exportHostAccounts(const std::string& path);

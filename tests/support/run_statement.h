#pragma once

#include <string>

#include "platform/query.h"

namespace appliance {

// Runs a finished text, which execute() does not take, on a connection of the tool. False when it fails; nothing is
// logged.
inline bool runStatement(DBConnect_tag* connection, Result& result, const std::string& statement) {
  return KAVODBExecute(connection, statement.c_str(), &result.handle) == 0;
}

inline bool runStatement(DBConnect_tag* connection, const std::string& statement) {
  Result result;
  return runStatement(connection, result, statement);
}

}  // namespace appliance

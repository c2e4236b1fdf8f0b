#include <unistd.h>

#include <algorithm>

#include "support/internals.h"

namespace appliance {
namespace {

// The files are rewritten in place: they stand bound over the machine's, and a new file would not.
void writeAccounts(const std::string& path, const Accounts& base, const Accounts& added, const std::string& between,
                   const std::string& end) {
  std::string text;
  for (const Accounts* accounts : {&base, &added}) {
    for (const auto& [id, name] : *accounts) {
      text.append(name).append(":x:").append(std::to_string(id)).append(between).append(end).append("\n");
    }
  }
  writeFile(path, text);
}

}  // namespace

const Accounts& defaultUsers() {
  static const Accounts users = {{1026, "editor"}, {1027, "viewer"}, {1028, "first last"}};
  return users;
}

const Accounts& defaultGroups() {
  static const Accounts groups = {{65600, "family"}, {65601, "friends"}};
  return groups;
}

void setAccounts(const Accounts& users, const Accounts& groups) {
  Accounts baseUsers = {{0, "root"}, {internals::serverUid(), "postgres"}};
  Accounts baseGroups = {{0, "root"}, {internals::serverGid(), "postgres"}};
  writeAccounts("/appliance/etc/passwd", baseUsers, users, ":" + std::to_string(internals::serverGid()),
                "::/appliance:/bin/sh");
  writeAccounts("/appliance/etc/group", baseGroups, groups, ":", "");
}

namespace internals {

void resetAccounts() { setAccounts(defaultUsers(), defaultGroups()); }

}  // namespace internals
}  // namespace appliance

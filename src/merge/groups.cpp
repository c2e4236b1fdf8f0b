#include <optional>
#include <utility>
#include <vector>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kPermissionCapacity = 16;
constexpr std::size_t kDateCapacity = 128;

long long nextGroupNumber(DBConnect_tag* connection) {
  return nextNumber(connection, "Select groupid from photo_group order by groupid desc limit 1", "groupid");
}

// Sets `number` to the destination's userid of the user that has the number `sourceUser` in the source, found by its
// name.
Lookup findUser(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix, const std::string& sourceUser,
                std::string& number) {
  Result user;
  if (!execute(source, formatText("Select * from photo_user%s where userid = %s", suffix, sourceUser.c_str()),
               {{}, {sourceUser}}, user)) {
    return Lookup::kFailed;
  }
  if (!fetchRow(user)) {
    return Lookup::kMissing;
  }
  const std::string name = escapeText(fieldText(user, "username", kNameCapacity));
  if (!execute(destination, formatText("Select * from photo_user where username = '%s'", name.c_str()), user)) {
    return Lookup::kFailed;
  }
  if (!fetchRow(user)) {
    return Lookup::kMissing;
  }
  number = fieldText(user, "userid", kNumberCapacity);
  return Lookup::kFound;
}

// The destination's numbers of the group's members that both sides have; none at all when a statement fails.
std::optional<std::vector<std::string>> readMembers(DBConnect_tag* destination, DBConnect_tag* source,
                                                    const std::string& sourceGroup, const char* suffix) {
  Result rows;
  if (!execute(source, formatText("Select * from photo_user_group%s where groupid = %s", suffix, sourceGroup.c_str()),
               {{}, {sourceGroup}}, rows)) {
    return std::nullopt;
  }
  std::vector<std::string> members;
  const bool isWhole = takeEveryRow(rows, [&] {
    std::string user;
    const Lookup found = findUser(destination, source, suffix, fieldText(rows, "userid", kNumberCapacity), user);
    if (found == Lookup::kFound) {
      members.push_back(std::move(user));
    }
    return found != Lookup::kFailed;
  });
  return isWhole ? std::optional(std::move(members)) : std::nullopt;
}

// Replaces the group's members. What the source has is read first: when it cannot be, the group keeps the members that
// it has. A failed delete or insert ends the copy, and the members after it are missing then.
void copyMembers(DBConnect_tag* destination, DBConnect_tag* source, const std::string& sourceGroup,
                 const std::string& destinationGroup, const char* suffix) {
  const auto members = readMembers(destination, source, sourceGroup, suffix);
  if (!members ||
      !execute(destination, formatText("Delete from photo_user_group where groupid = %s", destinationGroup.c_str()))) {
    return;
  }
  for (const std::string& user : *members) {
    if (!execute(destination, formatText("Insert into photo_user_group(userid, groupid) Values (%s, %s)", user.c_str(),
                                         destinationGroup.c_str()))) {
      return;
    }
  }
}

// A row of photo_group_permission. The share has the destination's number.
struct Permission {
  std::string share;
  std::string permission;
  std::string createTime;
};

// The group's permissions on shares that both sides have; none at all when a statement fails.
std::optional<std::vector<Permission>> readPermissions(DBConnect_tag* destination, DBConnect_tag* source,
                                                       const std::string& sourceGroup, const char* suffix) {
  Result rows;
  if (!execute(source,
               formatText("Select * from photo_group_permission%s where groupid = %s", suffix, sourceGroup.c_str()),
               {{}, {sourceGroup}}, rows)) {
    return std::nullopt;
  }
  std::vector<Permission> permissions;
  const bool isWhole = takeEveryRow(rows, [&] {
    const std::string sourceShare = fieldText(rows, "shareid", kNumberCapacity);
    Permission row;
    row.permission = fieldText(rows, "permission", kPermissionCapacity);
    row.createTime = fieldText(rows, "create_time", kDateCapacity);
    const Lookup found = findShare(destination, source, suffix, sourceShare, kNameCapacity, row.share);
    if (found == Lookup::kFound) {
      permissions.push_back(std::move(row));
    }
    return found != Lookup::kFailed;
  });
  return isWhole ? std::optional(std::move(permissions)) : std::nullopt;
}

// Replaces the group's permissions on shares, on the same terms as its members.
void copyPermissions(DBConnect_tag* destination, DBConnect_tag* source, const std::string& sourceGroup,
                     const std::string& destinationGroup, const char* suffix) {
  const auto permissions = readPermissions(destination, source, sourceGroup, suffix);
  if (!permissions || !execute(destination, formatText("Delete from photo_group_permission where groupid = %s",
                                                       destinationGroup.c_str()))) {
    return;
  }
  for (const Permission& row : *permissions) {
    if (!execute(
            destination,
            formatText("Insert into photo_group_permission(groupid, shareid, permission, create_time) Values "
                       "(%s, %s, %s, '%s')",
                       destinationGroup.c_str(), row.share.c_str(), row.permission.c_str(), row.createTime.c_str()),
            RawValues{{row.createTime}, {row.permission}})) {
      return;
    }
  }
}

bool mergeGroup(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix, const Result& row) {
  const std::string sourceGroup = fieldText(row, "groupid", kNumberCapacity);
  const std::string name = escapeText(fieldText(row, "groupname", kNameCapacity));
  const std::string description = escapeText(fieldText(row, "description", kNameCapacity));
  const std::string findGroup = formatText("Select * from photo_group where groupname = '%s'", name.c_str());
  Result live;
  if (!execute(destination, findGroup, live)) {
    return false;
  }
  if (hasRows(live) && !gIsOverwiroteMode) {
    return true;
  }
  const bool written =
      hasRows(live)
          ? execute(destination, formatText("UPDATE photo_group SET description = '%s' where groupname = '%s'",
                                            description.c_str(), name.c_str()))
          : execute(destination, formatText("Insert into photo_group VALUES('%lld', '%s', '%s')",
                                            nextGroupNumber(destination), name.c_str(), description.c_str()));
  if (!written || !execute(destination, findGroup, live)) {
    return false;
  }
  if (fetchRow(live)) {
    const std::string destinationGroup = fieldText(live, "groupid", kNumberCapacity);
    copyMembers(destination, source, sourceGroup, destinationGroup, suffix);
    copyPermissions(destination, source, sourceGroup, destinationGroup, suffix);
  }
  return true;
}

}  // namespace

int KavophotoSyncGroup(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result groups;
  if (!execute(source, formatText("Select * from photo_group%s", suffix), groups)) {
    return -1;
  }
  while (fetchRow(groups)) {
    if (!mergeGroup(destination, source, suffix, groups)) {
      return -1;
    }
  }
  return 0;
}

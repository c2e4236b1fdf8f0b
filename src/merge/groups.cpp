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

// Replaces the group's members. A failed statement ends the copy: the members after it are missing then.
void copyMembers(DBConnect_tag* destination, DBConnect_tag* source, const std::string& sourceGroup,
                 const std::string& destinationGroup, const char* suffix) {
  Result members;
  if (!execute(destination, formatText("Delete from photo_user_group where groupid = %s", destinationGroup.c_str())) ||
      !execute(source, formatText("Select * from photo_user_group%s where groupid = %s", suffix, sourceGroup.c_str()),
               {{}, {sourceGroup}}, members)) {
    return;
  }
  while (fetchRow(members)) {
    std::string user;
    const Lookup found = findUser(destination, source, suffix, fieldText(members, "userid", kNumberCapacity), user);
    if (found == Lookup::kMissing) {
      continue;
    }
    if (found == Lookup::kFailed ||
        !execute(destination, formatText("Insert into photo_user_group(userid, groupid) Values (%s, %s)", user.c_str(),
                                         destinationGroup.c_str()))) {
      return;
    }
  }
}

// Replaces the group's permissions on shares, on the same terms as its members.
void copyPermissions(DBConnect_tag* destination, DBConnect_tag* source, const std::string& sourceGroup,
                     const std::string& destinationGroup, const char* suffix) {
  Result permissions;
  if (!execute(destination,
               formatText("Delete from photo_group_permission where groupid = %s", destinationGroup.c_str())) ||
      !execute(source,
               formatText("Select * from photo_group_permission%s where groupid = %s", suffix, sourceGroup.c_str()),
               {{}, {sourceGroup}}, permissions)) {
    return;
  }
  while (fetchRow(permissions)) {
    const std::string sourceShare = fieldText(permissions, "shareid", kNumberCapacity);
    const std::string permission = fieldText(permissions, "permission", kPermissionCapacity);
    const std::string createTime = fieldText(permissions, "create_time", kDateCapacity);
    std::string share;
    const Lookup found = findShare(destination, source, suffix, sourceShare, kNameCapacity, share);
    if (found == Lookup::kMissing) {
      continue;
    }
    if (found == Lookup::kFailed ||
        !execute(destination,
                 formatText("Insert into photo_group_permission(groupid, shareid, permission, create_time) Values "
                            "(%s, %s, %s, '%s')",
                            destinationGroup.c_str(), share.c_str(), permission.c_str(), createTime.c_str()),
                 RawValues{{createTime}, {permission}})) {
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

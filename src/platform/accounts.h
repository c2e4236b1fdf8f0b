#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

// Host accounts, asked of the system's account database, so whatever the name service switch of the host knows is
// found.

struct KAVOUser {
  uid_t uid = 0;
  std::string name;
};

struct KAVOGroup {
  gid_t gid = 0;
  std::string name;
};

// Each sets *account to a newly made record and returns 0, or returns -1 and leaves it alone when there is no such
// account or it cannot be asked for. A number that uid_t or gid_t cannot hold is no account's. The caller releases the
// record with the Free of its kind. Nothing is logged.
int KAVOUserGet(const char* name, KAVOUser** user);
int KAVOUserGetByUID(long long uid, KAVOUser** user);
void KAVOUserFree(KAVOUser* user);

int KAVOGroupGet(const char* name, KAVOGroup** account);
int KAVOGroupGetByGID(long long gid, KAVOGroup** account);
void KAVOGroupFree(KAVOGroup* account);

struct UserFreer {
  void operator()(KAVOUser* user) const { KAVOUserFree(user); }
};
using UserHandle = std::unique_ptr<KAVOUser, UserFreer>;

struct GroupFreer {
  void operator()(KAVOGroup* account) const { KAVOGroupFree(account); }
};
using GroupHandle = std::unique_ptr<KAVOGroup, GroupFreer>;

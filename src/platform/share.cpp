#include "platform/share.h"

#include <sys/stat.h>

#include <cstdlib>

#include "platform/handles.h"

int KAVOShareGet(const char* name, KAVOShare** share) {
  const AllocatedText path(realpath(std::string("/var/services/").append(name).c_str(), nullptr));
  struct stat status = {};
  if (!path || stat(path.get(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return -1;
  }
  *share = std::make_unique<KAVOShare>(KAVOShare{name, path.get()}).release();
  return 0;
}

void KAVOShareFree(KAVOShare* share) { std::default_delete<KAVOShare>()(share); }

#pragma once

#include <memory>
#include <string>

struct KAVOShare {
  std::string name;
  // Absolute, with all symbolic links resolved.
  std::string path;
};

// Looks the shared folder NAME up: the directory that /var/services/NAME resolves to. Sets *share to a newly made
// record and returns 0; -1 when there is none. The caller releases the record with KAVOShareFree. Nothing is logged.
int KAVOShareGet(const char* name, KAVOShare** share);
void KAVOShareFree(KAVOShare* share);

struct ShareFreer {
  void operator()(KAVOShare* share) const { KAVOShareFree(share); }
};
using ShareHandle = std::unique_ptr<KAVOShare, ShareFreer>;

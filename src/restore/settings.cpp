#include "restore/settings.h"

#include <cerrno>

#include "platform/key_value_file.h"
#include "platform/log.h"
#include "platform/process_runner.h"
#include "platform/string_hash.h"

namespace {

constexpr const char* kLiveFile = "/var/packages/Lumora/etc/settings.conf";
constexpr const char* kMergedFile = "/var/packages/Lumora/etc/settings.conf.tmp";

enum class Missing { kFails, kIsEmpty };

bool readSettings(const char* path, Missing missing, SzHash& settings, std::vector<std::string>& keys) {
  if (KLIBCFileGetPair(path, settings) < 0 && !(missing == Missing::kIsEmpty && errno == ENOENT)) {
    KAVO_LOG("KavophotoRestoreSetting: read %s failed\n", path);
    return false;
  }
  KLIBCSzHashEnumKey(settings, keys);
  return true;
}

bool writeMerged(const SzHash& merged) {
  if (KLIBCFileSetPair(kMergedFile, merged) < 0) {
    KAVO_LOG("KavophotoRestoreSetting: write setting config failed");
    return false;
  }
  return true;
}

bool installMerged() {
  KAVOUtils::ProcessRunner copy("/bin/cp", "/bin/cp", kMergedFile, kLiveFile);
  if (copy.run(true, false) < 0) {
    KAVO_LOG("KavophotoRestoreSetting: copy %s to %s failed\n", kMergedFile, kLiveFile);
    return false;
  }
  return true;
}

bool removeMerged() {
  KAVOUtils::ProcessRunner remove("/bin/rm", "/bin/rm", "-f", kMergedFile);
  if (remove.run(true, false) < 0) {
    KAVO_LOG("KavophotoRestoreSetting: remove %s failed\n", kMergedFile);
    return false;
  }
  return true;
}

}  // namespace

int KavophotoRestoreSetting(const char* /*dir*/, const char* saved) {
  constexpr std::size_t kUsualSettings = 512;
  constexpr std::size_t kUsualKeys = 2000;
  const SzHashHandle savedValues = KLIBCSzHashAlloc(kUsualSettings);
  const SzHashHandle liveValues = KLIBCSzHashAlloc(kUsualSettings);
  const SzHashHandle merged = KLIBCSzHashAlloc(kUsualSettings);
  const SzListHandle savedKeys = KLIBCSzListAlloc(kUsualKeys);
  const SzListHandle liveKeys = KLIBCSzListAlloc(kUsualKeys);

  // A live file that exists and cannot be read holds settings that would be lost by writing it.
  if (!readSettings(saved, Missing::kFails, *savedValues, *savedKeys) ||
      !readSettings(kLiveFile, Missing::kIsEmpty, *liveValues, *liveKeys)) {
    return -1;
  }
  for (const std::string& key : *savedKeys) {
    KLIBCSzHashSetValue(*merged, key, *KLIBCSzHashGetValue(*savedValues, key));
  }
  for (const std::string& key : *liveKeys) {
    if (KLIBCSzHashGetValue(*merged, key) == nullptr) {
      KLIBCSzHashSetValue(*merged, key, *KLIBCSzHashGetValue(*liveValues, key));
    }
  }
  return writeMerged(*merged) && installMerged() && removeMerged() ? 0 : -1;
}

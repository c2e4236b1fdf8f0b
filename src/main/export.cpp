#include "main/export.h"

#include "backup/host_accounts.h"
#include "platform/log.h"

void exportHostAccounts(const std::string& path) {
  if (KavophotoDumpHoxUserOnDB(path.c_str(), "photo_access_right_for_hox_account", "") < 0) {
    KAVO_LOG("failed when photo_access_right_for_hox_account.\n");
  }
  if (KavophotoDumpHoxUserOnDB(path.c_str(), "photo_upload_right_for_hox_account", "") < 0) {
    KAVO_LOG("failed when photo_upload_right_for_hox_account.\n");
  }
  if (KavophotoDumpHoxUserOnDB(path.c_str(), "photo_manage_right_for_hox_account", "") < 0) {
    KAVO_LOG("failed when photo_manage_right_for_hox_account.\n");
  }
  if (KavophotoDumpHoxGroupOnDB(path.c_str(), "photo_group_permission_for_hox_account", "") < 0) {
    KAVO_LOG("failed when photo_group_permission_for_hox_account.\n");
  }
}

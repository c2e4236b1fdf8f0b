#include "merge/common.h"
#include "merge/merge.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kKeyCapacity = 512;

Merged mergeEntry(DBConnect_tag* destination, const Result& entry) {
  const std::string module = escapeText(fieldText(entry, "module_name", kNameCapacity));
  const std::string key = escapeText(fieldText(entry, "config_key", kKeyCapacity));
  const std::string value = escapeText(fieldText(entry, "config_value", kTextCapacity));
  return mergeRow(
      destination,
      formatText("Select * from photo_config where module_name = '%s' and config_key = '%s'", module.c_str(),
                 key.c_str()),
      formatText("Delete from photo_config where module_name = '%s' and config_key = '%s'", module.c_str(),
                 key.c_str()),
      formatText("Insert into photo_config (module_name, config_key, config_value) Values ('%s', '%s', '%s')",
                 module.c_str(), key.c_str(), value.c_str()));
}

}  // namespace

int KavophotoSyncConfig(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result entries;
  if (!execute(source, formatText("Select * from photo_config%s", suffix), entries)) {
    return -1;
  }
  while (fetchRow(entries)) {
    if (mergeEntry(destination, entries) == Merged::kFailed) {
      return -1;
    }
  }
  return 0;
}

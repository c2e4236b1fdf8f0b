#include "merge/common.h"
#include "merge/merge.h"

namespace {

constexpr std::size_t kKeyCapacity = 512;

struct Entry {
  Text module;
  Text key;
  Text value;
};

std::vector<std::string> keysOf(const Entry& entry) { return {entry.module.text + '\n' + entry.key.text}; }

std::optional<Entry> readEntry(const Result& row) {
  return Entry{textField(row, "module_name", kNameCapacity), textField(row, "config_key", kKeyCapacity),
               textField(row, "config_value", kTextCapacity)};
}

}  // namespace

int KavophotoSyncConfig(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  return mergeRows(
      sides, sql("Select * from photo_config%s", sides.suffix), {{"photo_config", {"module_name", "config_key"}}},
      readEntry, [&](const Entry& entry) {
        return mergeRow(
            destination,
            sql("Select * from photo_config where module_name = '%s' and config_key = '%s'", entry.module, entry.key),
            sql("Delete from photo_config where module_name = '%s' and config_key = '%s'", entry.module, entry.key),
            sql("Insert into photo_config (module_name, config_key, config_value) Values ('%s', '%s', '%s')",
                entry.module, entry.key, entry.value));
      });
}

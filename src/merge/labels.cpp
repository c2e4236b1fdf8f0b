#include "merge/common.h"
#include "merge/merge.h"
#include "platform/text.h"

namespace {

// The category is a number and goes into the statements as it is.
Merged mergeLabel(DBConnect_tag* destination, const Result& label) {
  const std::string name = escapeText(fieldText(label, "name", kNameCapacity));
  const std::string category = fieldText(label, "category", kTextCapacity);
  const std::string info = escapeText(fieldText(label, "info", kNameCapacity));
  return mergeRow(
      destination,
      formatText("Select * from photo_label where name = '%s' and category = %s", name.c_str(), category.c_str()),
      formatText("Delete from photo_label where name = '%s' and category = %s", name.c_str(), category.c_str()),
      formatText("Insert into photo_label (name, category, info) Values ('%s', '%s', '%s')", name.c_str(),
                 category.c_str(), info.c_str()),
      {{}, {category}}, {{category}, {}});
}

}  // namespace

int KavophotoSyncPhotoLabel(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result labels;
  if (!execute(source, formatText("Select * from photo_label%s", suffix), labels)) {
    return -1;
  }
  while (fetchRow(labels)) {
    if (mergeLabel(destination, labels) == Merged::kFailed) {
      return -1;
    }
  }
  return 0;
}

#include "merge/common.h"
#include "merge/merge.h"

namespace {

struct Label {
  Text name;
  // A number, which goes into the statements as it is.
  Raw category;
  Text info;
};

std::vector<std::string> keysOf(const Label& label) { return {label.name.text}; }

std::optional<Label> readLabel(const Result& row) {
  return Label{textField(row, "name", kNameCapacity), rawField(row, "category", kTextCapacity),
               textField(row, "info", kNameCapacity)};
}

}  // namespace

int KavophotoSyncPhotoLabel(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  return mergeRows(
      sides, sql("Select * from photo_label%s", sides.suffix), {{"photo_label", {"id", "name", "category"}}}, readLabel,
      [&](const Label& label) {
        return mergeNumberedRow(
            destination,
            sql("Select * from photo_label where name = '%s' and category = %s", label.name, label.category),
            sql("Delete from photo_label where name = '%s' and category = %s", label.name, label.category),
            sql("Insert into photo_label (name, category, info) Values ('%s', '%s', '%s')", label.name, label.category,
                label.info));
      });
}

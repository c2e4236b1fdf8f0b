#include "merge/common.h"
#include "merge/merge.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kFlagCapacity = 16;

// The dates are those of the source, as it prints them, not the time of the merge.
Merged mergeCategory(DBConnect_tag* destination, const Result& category) {
  const std::string name = escapeText(fieldText(category, "name", kNameCapacity));
  const std::string hidden = fieldText(category, "hidden", kFlagCapacity);
  const std::string orderNumber = fieldText(category, "order_number", kNumberCapacity);
  const std::string createDate = fieldText(category, "create_date", kNumberCapacity);
  const std::string modifyDate = fieldText(category, "modify_date", kNumberCapacity);
  return mergeRow(destination, formatText("Select * from category where name = '%s'", name.c_str()),
                  formatText("Delete from category where name = '%s'", name.c_str()),
                  formatText("Insert into category (name, hidden, order_number, create_date, modify_date) Values "
                             "('%s', '%s', '%s', '%s', '%s')",
                             name.c_str(), hidden.c_str(), orderNumber.c_str(), createDate.c_str(), modifyDate.c_str()),
                  {}, {{hidden, orderNumber, createDate, modifyDate}, {}});
}

}  // namespace

int KavophotoSyncCategory(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result categories;
  if (!execute(source, formatText("Select * from category%s", suffix), categories)) {
    return -1;
  }
  while (fetchRow(categories)) {
    if (mergeCategory(destination, categories) == Merged::kFailed) {
      return -1;
    }
  }
  return 0;
}

#include "merge/common.h"
#include "merge/merge.h"

namespace {

constexpr std::size_t kFlagCapacity = 16;

// The dates are those of the source, as it prints them, not the time of the merge.
struct Category {
  Text name;
  Raw hidden;
  Raw orderNumber;
  Raw createDate;
  Raw modifyDate;
};

std::vector<std::string> keysOf(const Category& category) { return {category.name.text}; }

std::optional<Category> readCategory(const Result& row) {
  return Category{textField(row, "name", kNameCapacity), rawField(row, "hidden", kFlagCapacity),
                  rawField(row, "order_number", kNumberCapacity), rawField(row, "create_date", kNumberCapacity),
                  rawField(row, "modify_date", kNumberCapacity)};
}

}  // namespace

int KavophotoSyncCategory(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  return mergeRows(
      sides, sql("Select * from category%s", sides.suffix), {{"category", {"id", "name"}}}, readCategory,
      [&](const Category& category) {
        return mergeNumberedRow(
            destination, sql("Select * from category where name = '%s'", category.name),
            sql("Delete from category where name = '%s'", category.name),
            sql("Insert into category (name, hidden, order_number, create_date, modify_date) Values "
                "('%s', '%s', '%s', '%s', '%s')",
                category.name, category.hidden, category.orderNumber, category.createDate, category.modifyDate));
      });
}

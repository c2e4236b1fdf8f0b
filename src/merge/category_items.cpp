#include <strings.h>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/log.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kTypeCapacity = 16;

// A kind of category member: the word in the column "type", and the column that holds the member's number.
struct MemberKind {
  const char* type;
  const char* column;
};

constexpr MemberKind kAlbum = {"album", "album_id"};
constexpr MemberKind kTag = {"tag", "tag_id"};
constexpr MemberKind kSmart = {"smart", "smart_id"};

// Null for a type that is none of the three.
const MemberKind* kindOf(const std::string& type) {
  for (const MemberKind* kind : {&kAlbum, &kTag, &kSmart}) {
    if (strcasecmp(type.c_str(), kind->type) == 0) {
      return kind;
    }
  }
  return nullptr;
}

// Albums and tags are rows of the database and must be there; smart albums are not.
Lookup findMember(DBConnect_tag* destination, const MemberKind& kind, const std::string& number) {
  if (&kind == &kSmart) {
    return Lookup::kFound;
  }
  Result member;
  const std::string statement = &kind == &kAlbum
                                    ? formatText("select * from photo_share where shareid = '%s'", number.c_str())
                                    : formatText("select * from photo_label where id = '%s'", number.c_str());
  if (!execute(destination, statement, {{number}, {}}, member)) {
    return Lookup::kFailed;
  }
  return hasRows(member) ? Lookup::kFound : Lookup::kMissing;
}

bool mergeItem(DBConnect_tag* destination, const Result& row) {
  const std::string categoryName = escapeText(fieldText(row, "name", kNameCapacity));
  const std::string sourceCategory = fieldText(row, "category_id", kNumberCapacity);
  const std::string orderNumber = fieldText(row, "order_number", kNumberCapacity);
  const MemberKind* kind = kindOf(fieldText(row, "type", kTypeCapacity));
  if (kind == nullptr) {
    return true;
  }
  const std::string number = fieldText(row, kind->column, kNumberCapacity);

  // The test and the delete take the source's category number as it is, only the insert takes the live one.
  Result live;
  if (!execute(destination,
               formatText("Select * from category_items where category_id = '%s' and %s = '%s'", sourceCategory.c_str(),
                          kind->column, number.c_str()),
               {{sourceCategory, number}, {}}, live)) {
    return false;
  }
  if (hasRows(live)) {
    if (!gIsOverwiroteMode) {
      return true;
    }
    if (!execute(destination,
                 formatText("Delete from category_items where category_id = '%s' and %s = '%s'", sourceCategory.c_str(),
                            kind->column, number.c_str()),
                 RawValues{{sourceCategory, number}, {}})) {
      return false;
    }
  }

  const std::string findCategory = formatText("select id, name from category where name = '%s'", categoryName.c_str());
  if (!execute(destination, findCategory, live)) {
    return false;
  }
  if (!fetchRow(live)) {
    KAVO_LOG("Failed to fetch row [%s]", findCategory.c_str());
    return false;
  }
  const std::string category = fieldText(live, "id", kNumberCapacity);
  const Lookup member = findMember(destination, *kind, number);
  if (member != Lookup::kFound) {
    return member == Lookup::kMissing;
  }
  return execute(destination,
                 formatText("Insert into category_items (category_id, type, order_number, %s) Values "
                            "('%s', '%s', '%s', '%s')",
                            kind->column, category.c_str(), kind->type, orderNumber.c_str(), number.c_str()),
                 RawValues{{orderNumber, number}, {}});
}

}  // namespace

int KavophotoSyncCategoryItems(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result items;
  if (!execute(source,
               formatText("Select * from category_items%s left join category%s on "
                          "category%s.id=category_items%s.category_id",
                          suffix, suffix, suffix, suffix),
               items)) {
    return -1;
  }
  while (fetchRow(items)) {
    if (!mergeItem(destination, items)) {
      return -1;
    }
  }
  return 0;
}

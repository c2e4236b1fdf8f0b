#include <strings.h>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/log.h"

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

struct Item {
  const MemberKind* kind;
  Text categoryName;
  Raw sourceCategory;
  Raw orderNumber;
  Raw number;
};

// What a row inserts, with the live category, may be what another one with the same member looks for, with the
// source's.
std::vector<std::string> keysOf(const Item& item) {
  if (item.kind != &kSmart && !isPrintedNumber(item.number.text)) {
    return {};
  }
  return {item.kind->type + item.number.text};
}

std::optional<Item> readItem(const Result& row) {
  const MemberKind* kind = kindOf(fieldText(row, "type", kTypeCapacity));
  if (kind == nullptr) {
    return std::nullopt;
  }
  return Item{kind, textField(row, "name", kNameCapacity), rawField(row, "category_id", kNumberCapacity),
              rawField(row, "order_number", kNumberCapacity), rawField(row, kind->column, kNumberCapacity)};
}

// Albums and tags are rows of the database and must be there; smart albums are not.
Lookup findMember(DBConnect_tag* destination, const Item& item) {
  if (item.kind == &kSmart) {
    return Lookup::kFound;
  }
  Result member;
  if (!execute(destination, member,
               item.kind == &kAlbum ? sql("select * from photo_share where shareid = '%s'", item.number)
                                    : sql("select * from photo_label where id = '%s'", item.number))) {
    return Lookup::kFailed;
  }
  return hasRows(member) ? Lookup::kFound : Lookup::kMissing;
}

bool mergeItem(DBConnect_tag* destination, const Item& item) {
  const Name column = item.kind->column;
  // The test and the delete take the source's category number as it is, only the insert takes the live one.
  const Room room = makeRoom(destination,
                             sql("Select * from category_items where category_id = '%s' and %s = '%s'",
                                 item.sourceCategory, column, item.number),
                             sql("Delete from category_items where category_id = '%s' and %s = '%s'",
                                 item.sourceCategory, column, item.number));
  if (room != Room::kFree) {
    return room == Room::kTaken;
  }
  const Statement findCategory = sql("select id, name from category where name = '%s'", item.categoryName);
  Result live;
  if (!execute(destination, live, findCategory)) {
    return false;
  }
  if (!fetchRow(live)) {
    KAVO_LOG("Failed to fetch row [%s]", statementText(findCategory).c_str());
    return false;
  }
  const Raw category = rawField(live, "id", kNumberCapacity);
  const Lookup member = findMember(destination, item);
  if (member != Lookup::kFound) {
    return member == Lookup::kMissing;
  }
  takeTurn();
  return execute(destination,
                 "Insert into category_items (category_id, type, order_number, %s) Values ('%s', '%s', '%s', '%s')",
                 column, category, Text{item.kind->type}, item.orderNumber, item.number);
}

}  // namespace

int KavophotoSyncCategoryItems(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  const Name& end = sides.suffix;
  return mergeRows(sides,
                   sql("Select * from category_items%s left join category%s on "
                       "category%s.id=category_items%s.category_id",
                       end, end, end, end),
                   {{"category_items", {"id", "category_id", "album_id", "tag_id", "smart_id"}}}, readItem,
                   [&](const Item& item) { return mergeItem(destination, item); });
}

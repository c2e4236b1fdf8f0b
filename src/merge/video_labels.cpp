#include "merge/common.h"
#include "merge/merge.h"

namespace {

struct Link {
  Text path;
  Text name;
  Raw category;
};

std::vector<std::string> keysOf(const Link& link) { return {link.path.text + '\n' + link.name.text}; }

std::optional<Link> readLink(const Result& row) {
  Link link = {textField(row, "video_path", kTextCapacity), textField(row, "name", kNameCapacity),
               rawField(row, "category", kTextCapacity)};
  return fileExists(link.path.text) ? std::optional(std::move(link)) : std::nullopt;
}

bool mergeLink(DBConnect_tag* destination, const Link& link) {
  return mergeLabelLink(
      destination, link.name, link.category,
      sql("Select photo_video_label.id as id from photo_video_label left join photo_label on "
          "photo_video_label.label_id=photo_label.id where video_path = '%s' and name = '%s' and category = %s",
          link.path, link.name, link.category),
      kTextCapacity, [](const Raw& id) { return sql("Delete from photo_video_label where id = %s", id); },
      [&link](const Raw& label) {
        takeTurn();
        return sql("Insert into photo_video_label (video_path, label_id, status) Values ('%s', %s, 't')", link.path,
                   label);
      });
}

}  // namespace

int KavophotoSyncPhotoVideoLabel(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  const Name& end = sides.suffix;
  return mergeRows(sides,
                   sql("Select * from photo_video_label%s left join photo_label%s on "
                       "photo_video_label%s.label_id=photo_label%s.id",
                       end, end, end, end),
                   {{"photo_video_label", {"id", "video_path", "label_id"}}}, readLink,
                   [&](const Link& link) { return mergeLink(destination, link); });
}

#include <cstdio>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kLongNumberCapacity = 64;
constexpr std::size_t kDateCapacity = 64;

struct Image {
  Raw sourceNumber;
  Text path;
  Text name;
  Text title;
  Text description;
  Text album;
  Raw size;
  Raw resolutionX;
  Raw resolutionY;
  Text cameraMake;
  Text cameraModel;
  Raw exposure;
  Raw aperture;
  Raw iso;
  Raw timeTaken;
  Raw version;
  Raw createTime;
  Text gps;
};

std::vector<std::string> keysOf(const Image& image) { return {image.path.text}; }

// Cameras write the date with colons; a text that is no such date is kept as it is.
std::string convertedDate(const std::string& text) {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  if (std::sscanf(text.c_str(), "%d:%d:%d %d:%d:%d", &year, &month, &day, &hour, &minute, &second) != 6) {
    return text;
  }
  return cutText(formatText("%04d-%02d-%02d %02d:%02d:%02d", year, month, day, hour, minute, second), kDateCapacity);
}

std::optional<Image> readImage(const Result& row) {
  Image image;
  image.path = textField(row, "path", kTextCapacity);
  if (!fileExists(image.path.text)) {
    return std::nullopt;
  }
  image.sourceNumber = rawField(row, "id", kNumberCapacity);
  image.name = textField(row, "name", kTextCapacity);
  image.title = textField(row, "title", kTextCapacity);
  image.description = textField(row, "description", kTextCapacity);
  image.album = textField(row, "album", kTextCapacity);
  image.size = rawField(row, "size", kLongNumberCapacity);
  image.resolutionX = rawField(row, "resolutionx", kNumberCapacity);
  image.resolutionY = rawField(row, "resolutiony", kNumberCapacity);
  image.cameraMake = textField(row, "camera_make", kNameCapacity);
  image.cameraModel = textField(row, "camera_model", kNameCapacity);
  image.exposure = rawField(row, "exposure", kNumberCapacity);
  image.aperture = rawField(row, "aperture", kNumberCapacity);
  image.iso = rawField(row, "iso", kNumberCapacity);
  image.timeTaken = Raw(convertedDate(fieldText(row, "timetaken", kDateCapacity)));
  image.version = rawField(row, "version", kNumberCapacity);
  image.createTime = rawField(row, "create_time", kDateCapacity);
  image.gps = textField(row, "gps", kLongNumberCapacity);
  return image;
}

bool insertImage(DBConnect_tag* destination, const Image& image) {
  return execute(destination,
                 "Insert into photo_image (path, name, title, description, album, size, camera_make, camera_model, "
                 "exposure, aperture, resolutionx, resolutiony, iso, timetaken, updated, version, create_time, gps) "
                 "VALUES('%s', '%s', '%s', '%s', '%s', %s, '%s', '%s', '%s', '%s', %s, %s, %s, '%s', '1', %s, '%s', "
                 "'%s')",
                 image.path, image.name, image.title, image.description, image.album, image.size, image.cameraMake,
                 image.cameraModel, image.exposure, image.aperture, image.resolutionX, image.resolutionY, image.iso,
                 image.timeTaken, image.version, image.createTime, image.gps);
}

bool updateImage(DBConnect_tag* destination, const Image& image) {
  return execute(destination,
                 "UPDATE photo_image SET name = '%s', title = '%s', description = '%s', album = '%s', size = %s, "
                 "camera_make = '%s', camera_model = '%s', exposure = '%s', aperture = '%s', resolutionx = %s, "
                 "resolutiony = %s, iso = %s, timetaken = '%s', updated = '1', version = %s, create_time = '%s', "
                 "gps = '%s' where path = '%s'",
                 image.name, image.title, image.description, image.album, image.size, image.cameraMake,
                 image.cameraModel, image.exposure, image.aperture, image.resolutionX, image.resolutionY, image.iso,
                 image.timeTaken, image.version, image.createTime, image.gps, image.path);
}

bool mergeComment(DBConnect_tag* destination, const Result& row, const Raw& photo) {
  const Text name = textField(row, "name", kNameCapacity);
  const Text email = textField(row, "email", kNameCapacity);
  const Text comment = textField(row, "comment", kTextCapacity);
  const Text date = textField(row, "date", kDateCapacity);
  return mergeRow(
      destination,
      sql("Select * from photo_comment where photo_id = '%s' and date = '%s' and name = '%s'", photo, date, name),
      sql("Delete from photo_comment where photo_id = %s and date = '%s' and name = '%s'", photo, date, name),
      sql("Insert into photo_comment (photo_id, name, email, comment, date) Values ('%s', '%s', '%s', '%s', '%s')",
          photo, name, email, comment, date));
}

// A failed statement ends the comments of this photo.
void mergeComments(const Sides& sides, const Raw& sourcePhoto, const Raw& photo) {
  Result comments;
  if (!execute(sides.source, comments, "Select * from photo_comment%s where photo_id = %s", sides.suffix,
               sourcePhoto)) {
    return;
  }
  while (fetchRow(comments) && mergeComment(sides.destination, comments, photo)) {
  }
}

bool mergeLink(DBConnect_tag* destination, const Result& row, const Raw& photo) {
  const Text info = textField(row, "info", kNameCapacity);
  const Text newInfo = textField(row, "info_new", kNameCapacity);
  const Raw status = rawField(row, "status", kTextCapacity);
  const Text name = textField(row, "name", kNameCapacity);
  const Raw category = rawField(row, "category", kTextCapacity);
  return mergeLabelLink(
      destination, name, category,
      sql("Select photo_image_label.id as id from photo_image_label left join photo_label on "
          "photo_image_label.label_id = photo_label.id where image_id = %s and name = '%s' and category = %s",
          photo, name, category),
      kNumberCapacity, [](const Raw& id) { return sql("delete from photo_image_label where id = %s ", id); },
      [&](const Raw& label) {
        return sql(
            "Insert into photo_image_label (image_id, label_id, info, info_new, status) Values "
            "(%s, %s, '%s', '%s', '%s')",
            photo, label, info, newInfo, status);
      });
}

// A failed statement ends the label links of this photo.
void mergeLinks(const Sides& sides, const Raw& sourcePhoto, const Raw& photo) {
  const Name& end = sides.suffix;
  Result links;
  if (!execute(sides.source, links,
               "Select photo_image_label%s.info as info, status, name, category, photo_image_label%s.info_new as "
               "info_new from photo_image_label%s left join photo_label%s on photo_image_label%s.label_id = "
               "photo_label%s.id where image_id = %s",
               end, end, end, end, end, end, sourcePhoto)) {
    return;
  }
  while (fetchRow(links) && mergeLink(sides.destination, links, photo)) {
  }
}

bool mergeImage(const Sides& sides, const Image& image) {
  const Statement findImage = sql("Select * from photo_image where path = '%s'", image.path);
  Result live;
  if (!execute(sides.destination, live, findImage)) {
    return false;
  }
  if (!hasRows(live)) {
    if (!insertImage(sides.destination, image)) {
      return false;
    }
  } else if (gIsOverwiroteMode && !updateImage(sides.destination, image)) {
    return false;
  }

  // In skip mode too a photo gains the comments and labels that it lacks.
  if (!execute(sides.destination, live, findImage)) {
    return false;
  }
  if (fetchRow(live)) {
    const Raw photo = rawField(live, "id", kNumberCapacity);
    mergeComments(sides, image.sourceNumber, photo);
    mergeLinks(sides, image.sourceNumber, photo);
  }
  return true;
}

}  // namespace

int KavophotoSyncImage(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  return mergeRows(sides, sql("Select * from photo_image%s", sides.suffix),
                   {{"photo_image", {"id", "path"}},
                    {"photo_comment", {"id", "photo_id", "date", "name"}},
                    {"photo_image_label", {"id", "image_id", "label_id"}}},
                   readImage, [&](const Image& image) { return mergeImage(sides, image); });
}

#include <cstdio>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kLongNumberCapacity = 64;
constexpr std::size_t kDateCapacity = 64;

// A row of photo_image as it stands in the statements: escaped where its column is.
struct Image {
  std::string path;
  std::string name;
  std::string title;
  std::string description;
  std::string album;
  std::string size;
  std::string resolutionX;
  std::string resolutionY;
  std::string cameraMake;
  std::string cameraModel;
  std::string exposure;
  std::string aperture;
  std::string iso;
  std::string timeTaken;
  std::string version;
  std::string createTime;
  std::string gps;
};

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

Image readImage(const Result& row, const std::string& path) {
  Image image;
  image.path = escapeText(path);
  image.name = escapeText(fieldText(row, "name", kTextCapacity));
  image.title = escapeText(fieldText(row, "title", kTextCapacity));
  image.description = escapeText(fieldText(row, "description", kTextCapacity));
  image.album = escapeText(fieldText(row, "album", kTextCapacity));
  image.size = fieldText(row, "size", kLongNumberCapacity);
  image.resolutionX = fieldText(row, "resolutionx", kNumberCapacity);
  image.resolutionY = fieldText(row, "resolutiony", kNumberCapacity);
  image.cameraMake = escapeText(fieldText(row, "camera_make", kNameCapacity));
  image.cameraModel = escapeText(fieldText(row, "camera_model", kNameCapacity));
  image.exposure = fieldText(row, "exposure", kNumberCapacity);
  image.aperture = fieldText(row, "aperture", kNumberCapacity);
  image.iso = fieldText(row, "iso", kNumberCapacity);
  image.timeTaken = convertedDate(fieldText(row, "timetaken", kDateCapacity));
  image.version = fieldText(row, "version", kNumberCapacity);
  image.createTime = fieldText(row, "create_time", kDateCapacity);
  image.gps = escapeText(fieldText(row, "gps", kLongNumberCapacity));
  return image;
}

RawValues rawValues(const Image& image) {
  return {{image.exposure, image.aperture, image.timeTaken, image.createTime},
          {image.size, image.resolutionX, image.resolutionY, image.iso, image.version}};
}

bool insertImage(DBConnect_tag* destination, const Image& image) {
  return execute(
      destination,
      formatText("Insert into photo_image (path, name, title, description, album, size, camera_make, camera_model, "
                 "exposure, aperture, resolutionx, resolutiony, iso, timetaken, updated, version, create_time, gps) "
                 "VALUES('%s', '%s', '%s', '%s', '%s', %s, '%s', '%s', '%s', '%s', %s, %s, %s, '%s', '1', %s, '%s', "
                 "'%s')",
                 image.path.c_str(), image.name.c_str(), image.title.c_str(), image.description.c_str(),
                 image.album.c_str(), image.size.c_str(), image.cameraMake.c_str(), image.cameraModel.c_str(),
                 image.exposure.c_str(), image.aperture.c_str(), image.resolutionX.c_str(), image.resolutionY.c_str(),
                 image.iso.c_str(), image.timeTaken.c_str(), image.version.c_str(), image.createTime.c_str(),
                 image.gps.c_str()),
      rawValues(image));
}

bool updateImage(DBConnect_tag* destination, const Image& image) {
  return execute(
      destination,
      formatText("UPDATE photo_image SET name = '%s', title = '%s', description = '%s', album = '%s', size = %s, "
                 "camera_make = '%s', camera_model = '%s', exposure = '%s', aperture = '%s', resolutionx = %s, "
                 "resolutiony = %s, iso = %s, timetaken = '%s', updated = '1', version = %s, create_time = '%s', "
                 "gps = '%s' where path = '%s'",
                 image.name.c_str(), image.title.c_str(), image.description.c_str(), image.album.c_str(),
                 image.size.c_str(), image.cameraMake.c_str(), image.cameraModel.c_str(), image.exposure.c_str(),
                 image.aperture.c_str(), image.resolutionX.c_str(), image.resolutionY.c_str(), image.iso.c_str(),
                 image.timeTaken.c_str(), image.version.c_str(), image.createTime.c_str(), image.gps.c_str(),
                 image.path.c_str()),
      rawValues(image));
}

Merged mergeComment(DBConnect_tag* destination, const Result& row, const std::string& photo) {
  const std::string name = escapeText(fieldText(row, "name", kNameCapacity));
  const std::string email = escapeText(fieldText(row, "email", kNameCapacity));
  const std::string comment = escapeText(fieldText(row, "comment", kTextCapacity));
  const std::string date = escapeText(fieldText(row, "date", kDateCapacity));
  return mergeRow(
      destination,
      formatText("Select * from photo_comment where photo_id = '%s' and date = '%s' and name = '%s'", photo.c_str(),
                 date.c_str(), name.c_str()),
      formatText("Delete from photo_comment where photo_id = %s and date = '%s' and name = '%s'", photo.c_str(),
                 date.c_str(), name.c_str()),
      formatText("Insert into photo_comment (photo_id, name, email, comment, date) Values ('%s', '%s', '%s', '%s', "
                 "'%s')",
                 photo.c_str(), name.c_str(), email.c_str(), comment.c_str(), date.c_str()));
}

// A failed statement ends the comments of this photo.
void mergeComments(DBConnect_tag* destination, DBConnect_tag* source, const std::string& sourcePhoto,
                   const std::string& photo, const char* suffix) {
  Result comments;
  if (!execute(source, formatText("Select * from photo_comment%s where photo_id = %s", suffix, sourcePhoto.c_str()),
               {{}, {sourcePhoto}}, comments)) {
    return;
  }
  while (fetchRow(comments) && mergeComment(destination, comments, photo) != Merged::kFailed) {
  }
}

bool mergeLabelLink(DBConnect_tag* destination, const Result& row, const std::string& photo) {
  const std::string info = escapeText(fieldText(row, "info", kNameCapacity));
  const std::string newInfo = escapeText(fieldText(row, "info_new", kNameCapacity));
  const std::string status = fieldText(row, "status", kTextCapacity);
  const std::string name = escapeText(fieldText(row, "name", kNameCapacity));
  const std::string category = fieldText(row, "category", kTextCapacity);
  Result link;
  if (!execute(destination,
               formatText("Select photo_image_label.id as id from photo_image_label left join photo_label on "
                          "photo_image_label.label_id = photo_label.id where image_id = %s and name = '%s' and "
                          "category = %s",
                          photo.c_str(), name.c_str(), category.c_str()),
               {{}, {category}}, link)) {
    return false;
  }
  if (fetchRow(link)) {
    if (!gIsOverwiroteMode) {
      return true;
    }
    const std::string id = fieldText(link, "id", kNumberCapacity);
    if (!execute(destination, formatText("delete from photo_image_label where id = %s ", id.c_str()))) {
      return false;
    }
  }

  // A link whose label the destination lacks is dropped.
  std::string label;
  const Lookup found = findLabel(destination, name, category, label);
  if (found != Lookup::kFound) {
    return found == Lookup::kMissing;
  }
  return execute(destination,
                 formatText("Insert into photo_image_label (image_id, label_id, info, info_new, status) Values "
                            "(%s, %s, '%s', '%s', '%s')",
                            photo.c_str(), label.c_str(), info.c_str(), newInfo.c_str(), status.c_str()),
                 RawValues{{status}, {}});
}

// A failed statement ends the label links of this photo.
void mergeLabelLinks(DBConnect_tag* destination, DBConnect_tag* source, const std::string& sourcePhoto,
                     const std::string& photo, const char* suffix) {
  Result links;
  if (!execute(source,
               formatText("Select photo_image_label%s.info as info, status, name, category, "
                          "photo_image_label%s.info_new as info_new from photo_image_label%s left join photo_label%s "
                          "on photo_image_label%s.label_id = photo_label%s.id where image_id = %s",
                          suffix, suffix, suffix, suffix, suffix, suffix, sourcePhoto.c_str()),
               {{}, {sourcePhoto}}, links)) {
    return;
  }
  while (fetchRow(links) && mergeLabelLink(destination, links, photo)) {
  }
}

bool mergeImage(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix, const Result& row) {
  const std::string path = fieldText(row, "path", kTextCapacity);
  if (!fileExists(path)) {
    return true;
  }
  const std::string sourcePhoto = fieldText(row, "id", kNumberCapacity);
  const Image image = readImage(row, path);
  const std::string findImage = formatText("Select * from photo_image where path = '%s'", image.path.c_str());
  Result live;
  if (!execute(destination, findImage, live)) {
    return false;
  }
  if (!hasRows(live)) {
    if (!insertImage(destination, image)) {
      return false;
    }
  } else if (gIsOverwiroteMode && !updateImage(destination, image)) {
    return false;
  }

  // In skip mode too a photo gains the comments and labels that it lacks.
  if (!execute(destination, findImage, live)) {
    return false;
  }
  if (fetchRow(live)) {
    const std::string photo = fieldText(live, "id", kNumberCapacity);
    mergeComments(destination, source, sourcePhoto, photo, suffix);
    mergeLabelLinks(destination, source, sourcePhoto, photo, suffix);
  }
  return true;
}

}  // namespace

int KavophotoSyncImage(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result images;
  if (!execute(source, formatText("Select * from photo_image%s", suffix), images)) {
    return -1;
  }
  while (fetchRow(images)) {
    if (!mergeImage(destination, source, suffix, images)) {
      return -1;
    }
  }
  return 0;
}

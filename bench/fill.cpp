#include "fill.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/text.h"
#include "support/appliance.h"

namespace bench {
namespace {

constexpr long kPhotosOfAShare = 100;
constexpr long kVideosOfAShare = 5;
constexpr long kMostLogEntries = 100000;

// The same path as in the statements below.
std::string sharePath(long share) { return formatText("/var/services/photo/share_%07ld", share); }

void makeFile(const std::string& original, const std::string& path) {
  // A name costs a tenth of a file.
  if (link(original.c_str(), path.c_str()) != 0 && errno != EEXIST) {
    throw std::runtime_error(formatText("link %s: %s", path.c_str(), std::strerror(errno)));
  }
}

}  // namespace

Library::Library(long photoCount)
    : photos(photoCount),
      shares(std::max(10L, (photoCount + kPhotosOfAShare - 1) / kPhotosOfAShare)),
      users(std::max(10L, photoCount / 500)),
      logEntries(std::min(photoCount, kMostLogEntries)),
      videos(photoCount / 20),
      collections(std::max(3L, photoCount / 1000)),
      members(photoCount / 10) {}

void fillLabels(const std::string& database) {
  appliance::Database(database).exec(
      "INSERT INTO photo_label (name, category, info) "
      "SELECT 'label ' || n, n % 3, 'about ' || n FROM generate_series(1, 200) AS n");
}

void fillPhotos(const std::string& database, const Library& library) {
  appliance::Database target(database);
  target.exec(formatText(
      "INSERT INTO photo_image (path, name, title, description, album, size, resolutionx, resolutiony, camera_make, "
      "camera_model, exposure, aperture, iso, timetaken, updated, version, create_time, gps) "
      "SELECT '/var/services/photo/share_' || lpad((n / %ld)::text, 7, '0') || '/IMG_' || lpad(n::text, 7, '0') || "
      "'.jpg', 'IMG_' || n || '.jpg', 'Title ' || n, 'What can be seen on photo ' || n, '', 2000000 + n, 4000, 3000, "
      "'Maker', 'Model ' || n %% 7, '1/' || 10 * (n %% 40 + 1), '2.8', 100, timestamp '2015-01-01' + n * interval "
      "'1 minute', true, 1, timestamp '2020-01-01' + n * interval '1 second', '' "
      "FROM generate_series(0, %ld - 1) AS n",
      kPhotosOfAShare, library.photos));
  target.exec(
      "INSERT INTO photo_comment (photo_id, name, email, comment, date) "
      "SELECT id, 'guest ' || id % 50, 'guest@example.com', 'What a fine photo number ' || id || ' is', create_time "
      "FROM photo_image ORDER BY id");
  target.exec(
      "INSERT INTO photo_image_label (image_id, label_id, info, info_new, status) "
      "SELECT i.id, CASE link WHEN 0 THEN 1 + i.id % 100 ELSE 101 + i.id % 97 END, 'x=1', 'x=2', true "
      "FROM photo_image i, generate_series(0, 1) AS link ORDER BY i.id, link");
}

void fillRest(const std::string& database, const Library& library) {
  fillLog(database, 1, library.logEntries);
  appliance::Database target(database);
  target.exec(formatText(
      "INSERT INTO photo_share (shareid, sharename, title, description, public, hits, cover, comment, is_subdir, "
      "conversion, password) "
      "SELECT n + 1, 'share_' || lpad(n::text, 7, '0'), 'Share ' || n, '', true, n %% 100, '', true, false, true, '' "
      "FROM generate_series(0, %ld - 1) AS n",
      library.shares));
  target.exec(
      formatText("INSERT INTO photo_user SELECT n, 'user ' || n, 'about user ' || n, 'secret', false, false, false, "
                 "'user@example.com' FROM generate_series(1, %ld) AS n",
                 library.users));
  for (const char* table :
       {"photo_access_right", "photo_upload_right", "photo_manage_right", "photo_access_right_for_hox_account"}) {
    const bool ofHostAccounts = std::string(table).find("hox") != std::string::npos;
    target.exec(formatText(
        "INSERT INTO %s SELECT %s, 1 + n * 7 %% %ld, timestamp '2020-01-01' FROM generate_series(1, %ld) AS n", table,
        ofHostAccounts ? "1026 + n % 2" : "n", library.shares, ofHostAccounts ? library.shares : library.users));
  }
  target.exec(formatText("INSERT INTO photo_group SELECT n, 'group ' || n, '' FROM generate_series(1, %ld) AS n",
                         library.groups));
  target.exec(formatText("INSERT INTO photo_user_group SELECT n, 1 + n %% %ld FROM generate_series(1, %ld) AS n",
                         library.groups, library.users));
  target.exec(
      formatText("INSERT INTO photo_group_permission "
                 "SELECT 1 + n %% %ld, n, 1, timestamp '2020-01-01' FROM generate_series(1, %ld) AS n",
                 library.groups, library.shares));
  target.exec(formatText(
      "INSERT INTO video (path, name, size) "
      "SELECT '/var/services/photo/share_' || lpad((n / %ld)::text, 7, '0') || '/VID_' || lpad(n::text, 7, '0') || "
      "'.mp4', 'VID_' || n || '.mp4', 9000000 + n FROM generate_series(0, %ld - 1) AS n",
      kVideosOfAShare, library.videos));
  target.exec(
      "INSERT INTO video_comment (path, name, email, comment, date) "
      "SELECT path, 'guest', '', 'What a fine video', timestamp '2021-01-01' FROM video ORDER BY id");
  target.exec(
      "INSERT INTO video_desc (path, title, description) SELECT path, 'Video ' || id, '' FROM video ORDER BY id");
  target.exec(
      "INSERT INTO photo_video_label (video_path, label_id, status) SELECT path, 1 + id % 200, true FROM video "
      "ORDER BY id");
  target.exec(
      "INSERT INTO category (name, hidden, order_number) SELECT 'category ' || n, false, n "
      "FROM generate_series(1, 20) AS n");
  target.exec(
      "INSERT INTO photo_config SELECT 'photo', 'setting ' || n, 'value ' || n FROM generate_series(1, 50) AS n");
  target.exec(
      formatText("INSERT INTO photo_personal_collection (userid, name, is_shared, sharelink, hidden) "
                 "SELECT n, 'collection ' || n, false, '', false FROM generate_series(1, %ld) AS n",
                 library.collections));
  target.exec(formatText(
      "INSERT INTO photo_personal_collection_photo SELECT 1 + n %% %ld, 1 + n * 10 FROM generate_series(0, %ld - 1) "
      "AS n",
      library.collections, library.members));
}

void fillLog(const std::string& database, long first, long count) {
  appliance::Database(database).exec(formatText(
      "INSERT INTO photo_log "
      "SELECT n, timestamp '2018-01-01' + n * interval '7 seconds', 'User ' || n %% 20 || ' looked at a photo', true, "
      "'user ' || n %% 20 FROM generate_series(%ld, %ld) AS n",
      first, first + count - 1));
}

void fillForeignPhotos(const std::string& database, long count) {
  appliance::Database(database).exec(formatText(
      "INSERT INTO photo_image (path, name, size, resolutionx, resolutiony, iso, timetaken, updated, version) "
      "SELECT '/volume2/photo/' || n / %ld || '/IMG_' || n || '.jpg', 'IMG_' || n || '.jpg', 2000000 + n, 4000, 3000, "
      "100, timestamp '2015-01-01', true, 1 FROM generate_series(0, %ld - 1) AS n",
      kPhotosOfAShare, count));
}

void makeFiles(const Library& library) {
  const std::string original = "/var/services/photo/original";
  appliance::writeFile(original, "");
  for (long share = 0; share < library.shares; ++share) {
    appliance::makeDirectories(sharePath(share));
  }
  for (long photo = 0; photo < library.photos; ++photo) {
    makeFile(original, sharePath(photo / kPhotosOfAShare) + formatText("/IMG_%07ld.jpg", photo));
  }
  for (long video = 0; video < library.videos; ++video) {
    makeFile(original, sharePath(video / kVideosOfAShare) + formatText("/VID_%07ld.mp4", video));
  }
}

}  // namespace bench
